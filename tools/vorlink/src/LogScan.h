#pragma once

// One pass over a bus log for the commands that convert it (decode, stats):
// every line read, parsed, held against the selection and converted with
// canMessageToProtobufByteArray; the lines that fail are reported with their
// number and reason, and the pass goes on (or stops, with --strict).

#include "BusLog.h"
#include "Command.h"
#include "Io.h"

#include <Bytra/Can.h>

#include <QByteArray>

#include <memory>
#include <string>

namespace vorlink {

class Selection;
struct RowInfo;

class LogScan
{
public:
    LogScan(const RunFlags &flags, const Selection &selection) : flags_(flags), selection_(selection) {}

    // Opens FILE or "-" and sets up the progress bar and the report.
    bool open(const std::string &path, std::string &error);

    // The next selected line that converts; false at the end of the input
    // (or at the first rejected line with --strict).
    bool next();
    // Reports the current line as rejected; true when the pass goes on.
    bool reject(const char *cause, const std::string &reason);

    const RowInfo &row() const { return *row_; }
    const BusLogEntry &entry() const { return entry_; }
    const QByteArray &proto() const { return proto_; }   // the schema message's bytes
    long long lineNumber() const { return input_.lineNumber(); }

    long long messages() const { return messages_; }
    long long leftOut() const { return leftOut_; }
    const Rejects &rejects() const { return *rejects_; }

    int finish(const CLI::App &command, Writer &out) { return finishRun(command, input_, *rejects_, *progress_, out, flags_.strict); }

private:
    const RunFlags &flags_;
    const Selection &selection_;
    LineReader input_;
    std::unique_ptr<Progress> progress_;
    std::unique_ptr<Rejects> rejects_;
    bool stopped_ = false;
    BusLogEntry entry_;
    Bytra::Can::Message message_;
    QByteArray proto_;
    const RowInfo *row_ = nullptr;
    long long messages_ = 0;
    long long leftOut_ = 0;
};

} // namespace vorlink
