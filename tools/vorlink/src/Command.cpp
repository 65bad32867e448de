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
    command.add_option("-m,--message", options.messages,
                       "only this message: an id (0x2600 or 9728), a message name (DdTemperatureData, "
                       "DdTemperatureDataPayload, MSG_ID_DD_TEMPERATURE_DATA, any case), or a node prefix (Td, Dd, "
                       "Fp, Ui) for all of its messages; repeatable")
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

void addFollowFlag(CLI::App &command, bool &follow)
{
    command.add_flag("-f,--follow", follow, "read FILE on as lines are appended to it, as 'tail -F' does, "
                                            "again from its start when it is truncated or replaced")
        ->disable_flag_override();
}

void addJobsOption(CLI::App &command, int &jobs)
{
    command.add_option("-j,--jobs", jobs, "convert a regular FILE on N threads, in pieces of whole lines; the output "
                                          "is the same as of one job. Standard input, --follow, --verbose and files "
                                          "under 256 KiB take one job")
        ->type_name("N")
        ->check(CLI::Range(1, 256));
}

bool openInput(LineReader &input, const std::string &path, bool follow, std::string &error)
{
    if (follow && path == "-") {
        error = "--follow reads a FILE by name; standard input is read as it comes anyway";
        return false;
    }
    return input.open(path, error, follow);
}

namespace {

volatile std::sig_atomic_t stopSignalNumber = 0;

extern "C" void onStopSignal(int signal) { stopSignalNumber = signal; }

} // namespace

void catchStopSignals()
{
    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;   // no SA_RESTART: a wait for input ends at once
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signal, &action, nullptr);
}

const volatile std::sig_atomic_t &stopSignal() { return stopSignalNumber; }

void watchInput(LineReader &input, Rejects &rejects, Writer *out, Progress &progress)
{
    catchStopSignals();
    showRejects(rejects, input.name(), progress, out);
    input.stopOn(&stopSignalNumber);
    // Written out before the reader waits; a reader of the output that went
    // away ends the input, or a followed file would be read for nobody.
    input.onIdle([out] { return out == nullptr || out->flush(); });
    input.onNotice([out, &progress](const std::string &note) {
        progress.clear();
        if (out != nullptr)
            out->flush();
        std::fprintf(stderr, "vorlink: %s\n", note.c_str());
    });
    if (input.following())
        progress.disable();
}

ScanView::ScanView(LogScan &scan, const RunFlags &flags, Writer *out)
    : scan_(scan), progress_(!flags.noProgress, scan.input().totalBytes())
{
    watchInput(scan.input(), scan.rejects(), out, progress_);
    scan.onProgress([this](long long bytes, long long lines) { progress_.show(bytes, lines); });
}

int ScanView::finish(const CLI::App &command, Writer &out)
{
    return finishRun(command, scan_.input(), scan_.rejects(), progress_, out, scan_.strict());
}

std::string parseErrorText(const CLI::App &where, const CLI::ParseError &error)
{
    if (dynamic_cast<const CLI::ExtrasError *>(&error) == nullptr)
        return error.what();
    const std::vector<std::string> extras = where.remaining();
    if (extras.empty())
        return error.what();
    const std::string &extra = extras.front();
    std::vector<std::string> names;
    if (!extra.empty() && extra[0] == '-') {
        for (const CLI::Option *option : where.get_options())
            for (const std::string &name : option->get_lnames())
                names.push_back("--" + name);
        names.emplace_back("--help");
        const std::string wanted = extra.substr(0, extra.find('='));
        return "unknown option '" + wanted + "'; nearest: " + nearestNames(wanted, names, 1);
    }
    if (where.get_parent() == nullptr) {
        for (const CLI::App *sub : where.get_subcommands({}))
            names.push_back(sub->get_name());
        return "unknown command '" + extra + "'; nearest: " + nearestNames(extra, names, 2);
    }
    return "unexpected argument '" + extra + "'";
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
    int status = written;
    if (rejects.count() > 0) {
        std::fprintf(stderr, "%s: %lld %s rejected%s\n", name.c_str(), rejects.count(), rejects.unit(),
                     strict ? ", stopped (--strict)" : "");
        status = exitRejected;
    }
    if (const int signal = stopSignal()) {
        std::fprintf(stderr, "%s: stopped by SIG%s\n", name.c_str(), sigabbrev_np(signal));
        return 128 + signal;
    }
    return status;
}

} // namespace vorlink
