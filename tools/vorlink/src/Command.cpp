#include "Command.h"
#include "LogScan.h"
#include "Selection.h"

#include <QLoggingCategory>
#include <QString>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include <sys/stat.h>
#include <unistd.h>

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
        ->type_name("T")
        ->each([&options](const std::string &) { options.fromGiven = true; });
    command.add_option("--to", options.to, "only messages at this time or earlier, in the same forms")
        ->type_name("T")
        ->each([&options](const std::string &) { options.toGiven = true; });
}

bool resolveSelection(const SelectionOptions &options, Selection &selection, std::string &error)
{
    for (const std::string &key : options.messages) {
        if (!selection.addMessage(key, error)) {
            error = "--message: " + error;
            return false;
        }
    }
    LogTime from{std::numeric_limits<qint64>::min(), 0};
    LogTime to{std::numeric_limits<qint64>::max(), 0};
    if (options.fromGiven && !parseTimeArgument(options.from, from)) {
        error = "--from: '" + options.from + "' is neither seconds since 1970 nor an ISO 8601 time";
        return false;
    }
    if (options.toGiven && !parseTimeArgument(options.to, to)) {
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

namespace {

const char *const followStdin = "--follow reads a FILE by name; standard input is read as it comes anyway";

} // namespace

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
        error = followStdin;
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

bool checkInputs(std::vector<std::string> &paths, bool follow, std::string &error)
{
    if (paths.empty())
        paths.emplace_back("-");
    if (follow && paths.size() > 1) {
        error = "--follow reads one FILE";
        return false;
    }
    if (follow && paths.front() == "-") {
        error = followStdin;
        return false;
    }
    if (std::count(paths.begin(), paths.end(), "-") > 1) {
        error = "standard input ('-') can be read once";
        return false;
    }
    for (const std::string &path : paths) {
        struct stat st;
        if (path == "-" || (follow && ::stat(path.c_str(), &st) != 0 && errno == ENOENT))
            continue;
        if (::stat(path.c_str(), &st) != 0 || ::access(path.c_str(), R_OK) != 0) {
            error = path + ": " + std::strerror(errno);
            return false;
        }
        if (S_ISDIR(st.st_mode)) {
            error = path + ": is a directory";
            return false;
        }
    }
    return true;
}

namespace {

long long totalSize(const std::vector<std::string> &paths)
{
    long long total = 0;
    for (const std::string &path : paths) {
        struct stat st;
        if (path == "-" || ::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            return -1;
        total += st.st_size;
    }
    return total;
}

} // namespace

ScanView::ScanView(const CLI::App &command, LogScan &scan, const RunFlags &flags, std::vector<std::string> paths,
                   Writer *out)
    : command_(command), scan_(scan), flags_(flags), paths_(std::move(paths)), out_(out),
      progress_(!flags.noProgress, flags.follow ? -1 : totalSize(paths_))
{
    watchInput(scan.input(), scan.rejects(), out, progress_);
    scan.onProgress([this](long long bytes, long long lines) { progress_.show(done_ + bytes, lines); });
}

void ScanView::endInput()
{
    if (!open_)
        return;
    open_ = false;
    const LineReader &input = scan_.input();
    done_ += input.position();
    if (input.readError() != 0) {
        progress_.clear();
        if (out_ != nullptr)
            out_->flush();
        std::fprintf(stderr, "vorlink %s: %s: %s\n", command_.get_name().c_str(), input.name().c_str(),
                     std::strerror(input.readError()));
        failed_ = true;
    }
    if (inputEnd_)
        inputEnd_(input);
}

bool ScanView::next()
{
    while (!(open_ && scan_.next()))
        if (!nextInput())
            return false;
    return true;
}

bool ScanView::nextInput()
{
    endInput();
    while (next_ < paths_.size() && stopSignal() == 0 && !scan_.stopped() && (out_ == nullptr || !out_->failed())) {
        std::string error;
        if (openInput(scan_.input(), paths_[next_++], flags_.follow, error)) {
            open_ = true;
            if (scan_.input().following())
                progress_.disable();
            return true;
        }
        progress_.clear();
        std::fprintf(stderr, "vorlink %s: %s\n", command_.get_name().c_str(), error.c_str());
        failed_ = true;
    }
    return false;
}

int ScanView::finish(Writer &out)
{
    endInput();
    const int status = summarize(command_, scan_.rejects(), progress_, out, scan_.strict());
    return failed_ && status == exitOk ? exitRejected : status;
}

namespace {

// CLI11's own sentences about an option's count and values, in the tool's
// words; anything else as it is.
std::string inOurWords(const std::string &text)
{
    const auto cut = [&](const std::string &marker, std::string &before, std::string &after) {
        const std::size_t at = text.find(marker);
        if (at == std::string::npos)
            return false;
        before = text.substr(0, at);
        after = text.substr(at + marker.size());
        return true;
    };
    std::string name, rest;
    if (cut(": At Most ", name, rest)) {   // "--fill: At Most 1 required but received 2"
        const std::string times = rest.substr(rest.rfind(' ') + 1);
        return rest.compare(0, 2, "1 ") == 0 ? name + " is given " + times + " times; give it once"
                                             : name + " is given " + times + " times, more than it takes";
    }
    if (cut(" required ", name, rest) && rest.size() > 8 && rest.compare(rest.size() - 8, 8, " missing") == 0)
        return name.substr(0, name.rfind(':')) + " needs a value";   // "--format: 1 required TEXT missing"
    if (cut("Expected exactly ", name, rest) && rest.find(" arguments to ") != std::string::npos) {
        const std::string option = rest.substr(rest.find(" arguments to ") + 14, rest.rfind(", got") - rest.find(" arguments to ") - 14);
        return option + " needs a value";
    }
    if (cut(" was given a disallowed flag override", name, rest))
        return name + " takes no value";
    if (cut(" is required", name, rest) && rest.empty())
        return name + " is missing";
    return text;
}

} // namespace

std::string parseErrorText(const CLI::App &where, const CLI::ParseError &error)
{
    if (dynamic_cast<const CLI::ExtrasError *>(&error) == nullptr)
        return inOurWords(error.what());
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

int summarize(const CLI::App &command, const Rejects &rejects, Progress &progress, Writer &out, bool strict)
{
    progress.clear();
    const std::string name = "vorlink " + command.get_name();
    int status = finishOutput(command, out);
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
