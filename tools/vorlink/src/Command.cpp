#include "Command.h"
#include "LogScan.h"
#include "Selection.h"

#include <QLoggingCategory>
#include <QString>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

namespace vorlink {
namespace {

std::string *dumpTarget = nullptr;
bool verboseLog = false;

void messageHandler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (dumpTarget != nullptr && type == QtDebugMsg &&
        (context.category == nullptr || std::strcmp(context.category, "default") == 0)) {
        const QByteArray utf8 = text.toUtf8();
        dumpTarget->append(utf8.constData(), std::size_t(utf8.size()));
        return;
    }
    if (verboseLog)
        std::fprintf(stderr, "vorlink: library: %s\n", text.toLocal8Bit().constData());
}

} // namespace

void installMessageHandler() { qInstallMessageHandler(messageHandler); }

void setVerbose(bool verbose)
{
    verboseLog = verbose;
    // Without --verbose the reader's warnings would only be dropped: keep the
    // library from building their text at all.
    if (!verbose)
        QLoggingCategory::setFilterRules(QStringLiteral("bytra.types.warning=false"));
}

void setDumpTarget(std::string *target) { dumpTarget = target; }

int misuse(const CLI::App &command, const std::string &error)
{
    const std::string name = command.get_parent() != nullptr ? "vorlink " + command.get_name() : "vorlink";
    std::fprintf(stderr, "%s: %s\nTry '%s --help'.\n", name.c_str(), error.c_str(), name.c_str());
    return exitMisuse;
}

void addRunFlags(CLI::App &command, RunFlags &flags)
{
    command.add_flag("--strict", flags.strict, "stop at the first rejected line")->disable_flag_override();
    command.add_flag("--verbose", flags.verbose, "show the library's own log lines on standard error")
        ->disable_flag_override();
    command.add_flag("--no-progress", flags.noProgress, "never draw the progress bar")->disable_flag_override();
}

void addSelectionOptions(CLI::App &command, SelectionOptions &options)
{
    command.add_option("--message", options.messages,
                       "only this message: an id (0x0100), a MSG_ID_ enumerator, a message name, or a node "
                       "prefix (Td, Dd, Fp, Ui) for all of its messages; repeatable")
        ->type_name("X")
        ->allow_extra_args(false);
    command.add_option("--from", options.from, "only messages at this time or later: seconds since 1970 as in the "
                                               "log, or ISO 8601 (2023-11-14T22:13:20.123Z; UTC when no offset)")
        ->type_name("T");
    command.add_option("--to", options.to, "only messages at this time or earlier, in the same forms")->type_name("T");
}

bool resolveSelection(const SelectionOptions &options, Selection &selection, std::string &error)
{
    for (const std::string &key : options.messages) {
        if (!selection.addMessage(key, error)) {
            error = "--message: " + error;
            return false;
        }
    }
    qint64 from = std::numeric_limits<qint64>::min();
    qint64 to = std::numeric_limits<qint64>::max();
    if (!options.from.empty() && !parseTimeArgument(options.from, from)) {
        error = "--from: '" + options.from + "' is neither seconds since 1970 nor an ISO 8601 time";
        return false;
    }
    if (!options.to.empty() && !parseTimeArgument(options.to, to)) {
        error = "--to: '" + options.to + "' is neither seconds since 1970 nor an ISO 8601 time";
        return false;
    }
    if (!selection.setSpan(from, to)) {
        error = "--from is later than --to";
        return false;
    }
    return true;
}

ScanView::ScanView(LogScan &scan, const RunFlags &flags)
    : scan_(scan), progress_(!flags.noProgress, scan.input().totalBytes())
{
    showRejects(scan.rejects(), scan.input().name(), progress_);
    scan.onProgress([this](long long bytes, long long lines) { progress_.show(bytes, lines); });
}

int ScanView::finish(const CLI::App &command, Writer &out)
{
    return finishRun(command, scan_.input(), scan_.rejects(), progress_, out, scan_.strict());
}

const CLI::Validator &wholeNumber()
{
    static const CLI::Validator validator(
        [](std::string &text) -> std::string {
            if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos)
                return "'" + text + "' is not a whole number";
            return {};
        },
        "N");
    return validator;
}

int finishOutput(const CLI::App &command, Writer &out)
{
    if (out.flush())
        return exitOk;
    // A reader that went away (`vorlink decode big.log | head`) is not an
    // error: it had all it wanted.
    if (out.error() == EPIPE)
        return exitOk;
    std::fprintf(stderr, "vorlink %s: cannot write the output: %s\n", command.get_name().c_str(),
                 std::strerror(out.error()));
    return exitRejected;
}

int finishRun(const CLI::App &command, const LineReader &input, const Rejects &rejects, Progress &progress,
              Writer &out, bool strict)
{
    progress.clear();
    const int written = finishOutput(command, out);
    const std::string name = "vorlink " + command.get_name();
    if (input.readError() != 0) {
        std::fprintf(stderr, "%s: %s: %s\n", name.c_str(), input.name().c_str(), std::strerror(input.readError()));
        return exitRejected;
    }
    if (rejects.count() > 0) {
        std::fprintf(stderr, "%s: %lld %s rejected%s\n", name.c_str(), rejects.count(), rejects.unit(),
                     strict ? ", stopped (--strict)" : "");
        return exitRejected;
    }
    return written;
}

} // namespace vorlink
