#pragma once

// One pass over a bus log: every line read, parsed, held against the
// selection and converted with canMessageToProtobufByteArray. A line that
// fails is counted in rejects() with its number, cause and reason, and the
// pass goes on, or stops there when the scan is strict.
//
// The caller shows progress and rejected lines as it likes: through the
// rejects' sink and the progress callback, or by asking after each line.

#include "BusLog.h"
#include "LineReader.h"

#include <Bytra/Can.h>

#include <QByteArray>

#include <functional>
#include <string>

namespace vorlink {

class Selection;
struct RowInfo;

class LogScan
{
public:
    LogScan(const Selection &selection, bool strict);

    // FILE, or standard input for "-"; a FILE followed as it grows with `follow`.
    // Opened again, the scan goes on into the next input: its counts and
    // rejects add up, its line numbers start again.
    bool open(const std::string &path, std::string &error, bool follow = false)
    {
        return input_.open(path, error, follow);
    }
    // Any other source of bytes.
    void open(LineReader::ReadFunction read, std::string name) { input_.open(std::move(read), std::move(name)); }

    // Called every 1024 lines with the bytes and lines read so far.
    void onProgress(std::function<void(long long bytes, long long lines)> progress) { progress_ = std::move(progress); }
    // Without conversion, next() checks the id and the payload's size as
    // the conversion would, and proto() stays empty.
    void setConvert(bool convert) { convert_ = convert; }
    bool converts() const { return convert_; }

    // The next selected line that converts; false at the end of the input
    // (or at the first rejected line of a strict scan).
    bool next();
    // Rejects the current line; true when the pass goes on.
    bool reject(const char *cause, std::string reason);

    const RowInfo &row() const { return *row_; }
    const BusLogEntry &entry() const { return entry_; }
    const QByteArray &proto() const { return proto_; }   // the schema message's bytes
    long long lineNumber() const { return input_.lineNumber(); }
    const LineReader &input() const { return input_; }
    LineReader &input() { return input_; }

    long long messages() const { return messages_; }
    long long leftOut() const { return leftOut_; }
    Rejects &rejects() { return rejects_; }
    const Rejects &rejects() const { return rejects_; }
    bool strict() const { return strict_; }
    bool stopped() const { return stopped_; }   // at a rejected line, --strict

private:
    const Selection &selection_;
    const bool strict_;
    bool convert_ = true;
    LineReader input_;
    Rejects rejects_;
    std::function<void(long long, long long)> progress_;
    void rejectShort();
    bool stopped_ = false;
    BusLogEntry entry_;
    Bytra::Can::Message message_;
    QByteArray proto_;
    const RowInfo *row_ = nullptr;
    long long messages_ = 0;
    long long leftOut_ = 0;
};

} // namespace vorlink
