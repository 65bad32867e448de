#pragma once

// What the subcommands share: exit codes, how misuse is reported, the
// library's log lines, and the end of a run over an input.
//
// Each subcommand lives in its own source file and adds itself to the
// command line with an add<Name>Command function; main.cpp only wires them.

#include "Io.h"

#include <CLI/CLI.hpp>

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

// Reports misuse found after the command line was parsed (a value that reads
// but means nothing, a file that cannot be opened) and returns exitMisuse.
int misuse(const CLI::App &command, const std::string &error);

// The common flags of the commands that read a log.
struct RunFlags
{
    bool strict = false;
    bool verbose = false;
    bool noProgress = false;
};
void addRunFlags(CLI::App &command, RunFlags &flags);

// --message (repeatable), --from and --to, as given.
struct SelectionOptions
{
    std::vector<std::string> messages;
    std::string from, to;
};
void addSelectionOptions(CLI::App &command, SelectionOptions &options);
// Reads what the options hold into `selection`; on misuse, false and the reason.
bool resolveSelection(const SelectionOptions &options, Selection &selection, std::string &error);

// A scan of a log as the terminal shows it: the progress bar, and each
// rejected line on standard error.
class ScanView
{
public:
    ScanView(LogScan &scan, const RunFlags &flags);
    // Closes the run: flushes the output and sums up what was rejected.
    int finish(const CLI::App &command, Writer &out);

private:
    LogScan &scan_;
    Progress progress_;
};

// The library speaks through Qt's logger. Its lines go to standard error with
// --verbose and are dropped otherwise; while `target` is set, a record's dump
// line is appended there instead, without a newline.
void installMessageHandler();
void setVerbose(bool verbose);
void setDumpTarget(std::string *target);

// Validates a whole decimal number (no sign, no base prefix).
const CLI::Validator &wholeNumber();

// Flushes the output. A failed write is reported with its reason (exitRejected);
// a closed pipe ends the run quietly (exitOk).
int finishOutput(const CLI::App &command, Writer &out);

// Closes a run over an input: flushes the output and sums up what was rejected.
int finishRun(const CLI::App &command, const LineReader &input, const Rejects &rejects, Progress &progress,
              Writer &out, bool strict);

} // namespace vorlink
