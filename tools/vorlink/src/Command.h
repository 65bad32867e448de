#pragma once

// What the subcommands share: exit codes, how misuse is reported, the
// library's log lines, and the end of a run over an input.
//
// Each subcommand lives in its own source file and adds itself to the
// command line with an add<Name>Command function; main.cpp only wires them.

#include "Io.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

namespace vorlink {

class LogScan;
class Selection;

constexpr int exitOk = 0;
constexpr int exitRejected = 1;
constexpr int exitMisuse = 2;

// A subcommand: its CLI11 node, and what runs when it was chosen.
struct Command
{
    CLI::App *app = nullptr;
    std::function<int()> run;
};

Command addDecodeCommand(CLI::App &parent);
Command addEncodeCommand(CLI::App &parent);
Command addStatsCommand(CLI::App &parent);
Command addListCommand(CLI::App &parent);
Command addSynthCommand(CLI::App &parent);
Command addPlotCommand(CLI::App &parent);
Command addMakeCommand(CLI::App &parent);
Command addMonitorCommand(CLI::App &parent);

// Reports misuse found after the command line was parsed (a value that reads
// but means nothing, a file that cannot be opened) and returns exitMisuse.
int misuse(const CLI::App &command, const std::string &error);

// The common flags of the commands that read a log.
struct RunFlags
{
    bool strict = false;
    bool verbose = false;
    bool noProgress = false;
    bool follow = false;
};
void addRunFlags(CLI::App &command, RunFlags &flags);
// --follow (-f): a FILE is read on as it grows, through truncation and rotation.
void addFollowFlag(CLI::App &command, bool &follow);
// --jobs N (-j N): a regular FILE converted on N threads (see Pieces.h).
void addJobsOption(CLI::App &command, int &jobs);
// Opens the input of a run: FILE, followed with `follow`, or standard input
// for "-". On misuse, false and the reason.
bool openInput(LineReader &input, const std::string &path, bool follow, std::string &error);

// SIGINT, SIGTERM and SIGHUP end a run cleanly: the input ends at its next
// read, what was converted is written and summed up, and the exit status is
// 128 + the signal's number. Installed by the commands that read a log.
void catchStopSignals();
const volatile std::sig_atomic_t &stopSignal();   // the signal that came, or 0

// Watches a run over `input` as it goes: each rejected line on standard error,
// after the progress bar is cleared and `out` (if any) is written out, so
// that both streams keep the order of the input; pending output written out
// whenever the input would wait; the end of the input on a stop signal or
// when the output is gone; notes on a followed file.
void watchInput(LineReader &input, Rejects &rejects, Writer *out, Progress &progress);

// --message (repeatable), --from and --to, as given.
struct SelectionOptions
{
    std::vector<std::string> messages;
    std::string from, to;
    bool fromGiven = false, toGiven = false;   // given, even as ""
};
void addSelectionOptions(CLI::App &command, SelectionOptions &options);
// Reads what the options hold into `selection`; on misuse, false and the reason.
bool resolveSelection(const SelectionOptions &options, Selection &selection, std::string &error);

// The FILE... of a reading command, standard input when none is given:
// misuse when one names no file (a missing FILE is waited for with `follow`)
// or a directory, when "-" is given twice, or when `follow` is asked of more
// than one.
bool checkInputs(std::vector<std::string> &paths, bool follow, std::string &error);

// A scan of logs, read in turn, as the terminal shows it: one progress bar
// over all of them, and each rejected line on standard error with the name of
// its file and its line number there.
class ScanView
{
public:
    // `out`, when given, is written out as the scan goes (see watchInput).
    ScanView(const CLI::App &command, LogScan &scan, const RunFlags &flags, std::vector<std::string> paths,
             Writer *out = nullptr);
    // The scan's next message, from the next input at the end of one: false
    // once all were read, or when the run stops early (a signal, --strict,
    // the output gone). An input that cannot be read is reported, and the run
    // goes on to the next.
    bool next();
    // Opens the next input, closing the one before: false once all were read
    // or the run stops early. For a run that reads each input itself.
    bool nextInput();
    // Called as each input ends, before the next is opened.
    void onInputEnd(std::function<void(const LineReader &)> end) { inputEnd_ = std::move(end); }
    // Closes the run: flushes the output and sums up what was rejected.
    int finish(Writer &out);
    // The progress bar of a run that reads an input itself rather than
    // through the scan: `bytes` into the current input, as its position() says.
    void tick(long long bytes, long long lines) { progress_.tick(done_ + bytes, lines); }
    void show(long long bytes, long long lines) { progress_.show(done_ + bytes, lines); }

private:
    void endInput();
    std::function<void(const LineReader &)> inputEnd_;
    const CLI::App &command_;
    LogScan &scan_;
    RunFlags flags_;
    std::vector<std::string> paths_;
    Writer *out_;
    std::size_t next_ = 0;
    bool open_ = false, failed_ = false;
    long long done_ = 0;   // bytes of the inputs already read, for the progress bar
    Progress progress_;
};

// The library speaks through Qt's logger. Its lines go to standard error with
// --verbose and are dropped otherwise; while `target` is set, a record's dump
// line is appended there instead, without a newline.
void installMessageHandler();
void setVerbose(bool verbose);
void setDumpTarget(std::string *target);

// Reads a named choice such as --format, case-insensitive, as given on the
// command line: false with "--format must be one of dump, json (got 'xml')".
// Kept as text while CLI11 parses, so that no number stands for a name.
template <class T>
bool choose(const std::string &option, const std::string &given,
            const std::vector<std::pair<std::string, T>> &choices, T &value, std::string &error)
{
    std::string names;
    for (const auto &[name, v] : choices) {
        if (CLI::detail::to_lower(given) == name) {
            value = v;
            return true;
        }
        names += (names.empty() ? "" : ", ") + name;
    }
    error = option + " must be one of " + names + " (got '" + given + "')";
    return false;
}

// The words for what CLI11 refused: an unknown option with the nearest one,
// an unknown command with the nearest ones, else CLI11's own text.
std::string parseErrorText(const CLI::App &where, const CLI::ParseError &error);

// Validates a whole decimal number (no sign, no base prefix).
const CLI::Validator &wholeNumber();

// Flushes the output. A failed write is reported with its reason (exitRejected);
// a closed pipe ends the run quietly (exitOk).
int finishOutput(const CLI::App &command, Writer &out);

// Closes a run: the output flushed, the rejected lines summed up, and the
// signal that stopped the run.
int summarize(const CLI::App &command, const Rejects &rejects, Progress &progress, Writer &out, bool strict);

} // namespace vorlink
