#pragma once

// Lines of a bus log, read through one large buffer from a file, standard
// input or a caller's read function, and the count of what was rejected.
//
// A source compressed with gzip, xz or zstd is recognised by its first bytes
// and read decompressed; a file by name is decompressed in a thread of its
// own, a few blocks ahead of the lines. Data that breaks off (corrupt or
// truncated) ends the input there: every whole line before it is given out,
// and the break is reported at its byte.
//
// A line longer than maxLineBytes is never held: it is skipped to its
// newline and reported with its number and length, and the lines behind it
// are read as usual. Memory stays within a few buffers on any input.
//
// A live source (a pipe, a terminal, a file followed as it grows) is read the
// same way, with three hooks for a caller that shows what it reads as it
// comes: a call whenever the reader is about to wait for more, a flag that
// ends the input (set by a signal handler), and notes about a followed file.

#include "Compressed.h"

#include <csignal>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vorlink {

class LineReader
{
public:
    // The longest line given out, newline excluded. A bus-log line is a few
    // hundred bytes at most (136 payload bytes in hex, times to nine decimals).
    static constexpr std::size_t maxLineBytes = std::size_t(1) << 20;

    // Reads up to `size` bytes into `data`: the count, 0 at the end, or -errno.
    using ReadFunction = std::function<long(char *data, std::size_t size)>;

    LineReader();
    ~LineReader();
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;
    // A file, or standard input for "-". With `follow`, a regular file is
    // read on as lines are appended to it, as `tail -F` does: at its end the
    // reader waits for more; a partial last line waits for its newline; a
    // file truncated or replaced under the same name (log rotation) is read
    // again from its start, the line numbers and byte counts starting again.
    // A followed file that does not exist yet is waited for, and one that
    // disappears is waited for again; a compressed one is read once, not
    // followed. Each of these is told through onNotice().
    //
    // A reader may be opened again for the next input: the line numbers and
    // counts start again, the calls given below are kept.
    bool open(const std::string &path, std::string &error, bool follow = false);
    // Any other source, such as a Python file object; `name` is how reports
    // call it. A `plain` source is never taken for compressed data, whatever
    // its first bytes (a piece of a plain file, cut anywhere).
    void open(ReadFunction read, std::string name, bool plain = false);

    // Called when the next read of a file descriptor would wait (a pipe or a
    // terminal with nothing to read at once, a followed file at its end),
    // every 100 ms while it waits, and at least every 100 ms while such a
    // source keeps the reader busy: the moment to write out pending output or
    // to redraw. Returning false ends the input there. Never called for a
    // regular file that is not followed, or for a read function.
    using Idle = std::function<bool()>;
    void onIdle(Idle idle) { idle_ = std::move(idle); }
    // The input ends at the next read once `*flag` is nonzero; a wait is cut
    // short. A partial last line is then dropped, the lines before it were
    // all given out.
    void stopOn(const volatile std::sig_atomic_t *flag) { stop_ = flag; }
    // What happened to a followed file: "truncated; reading it again from its start".
    void onNotice(std::function<void(const std::string &)> notice) { notice_ = std::move(notice); }
    // A line the reader refused (longer than maxLineBytes) or where its
    // compressed data broke off, with the kind of fault for counting and the
    // reason; returns whether to read on. Without it such a line is still
    // skipped, and counted in refused().
    using Refuse = std::function<bool(long long line, const char *cause, std::string reason)>;
    void onRefuse(Refuse refuse) { refuse_ = std::move(refuse); }
    long long refused() const { return refused_; }
    // True when the input ended by the flag or the idle call, not at its end.
    bool stopped() const { return stopped_; }
    bool following() const { return follow_; }
    // A file opened by its name, not standard input or a read function.
    bool byName() const { return ownFd_; }

    // The lines that follow are numbered from `lines` + 1: a piece of a file
    // read on its own keeps the file's numbers, and its first line is not
    // taken for the file's first.
    void startAtLine(long long lines) { lineNumber_ = lines; }

    // The next line without its newline; false at the end of the input.
    bool next(std::string_view &line);
    long long lineNumber() const { return lineNumber_; }
    long long bytesConsumed() const { return consumed_; }
    long long totalBytes() const { return total_; }   // -1 when not known (a pipe)
    // How far into the source the reader is, in the bytes totalBytes()
    // counts: those of the compressed file, for a compressed one.
    long long position() const { return compression_ == Compression::None ? consumed_ : rawBytes_; }
    Compression compression() const { return compression_; }
    const std::string &name() const { return name_; }
    int readError() const { return readError_; }   // errno of a failed read, or 0

    // Byte access, for a binary stream: the unread bytes without taking them
    // (read once if none are buffered; empty at the end) ...
    std::string_view peek();
    // ... the unread bytes, all taken (false at the end) ...
    bool nextChunk(std::string_view &chunk);
    // ... and the last `count` of them given back.
    void backUp(std::size_t count);

private:
    void reset();
    bool fill();
    long readSource(char *data, std::size_t size);
    long readRaw(char *data, std::size_t size);
    bool detect();
    bool skipLongLine();
    bool refuse(long long line, const char *cause, std::string reason);
    bool waitForFile();
    bool waitForInput();
    bool waitForGrowth();
    bool idle();
    bool halt();
    void startAgain(const char *why);
    void skipByteOrderMark(std::string_view &line);
    int fd_ = -1;
    bool ownFd_ = false;
    Compression compression_ = Compression::None;
    bool detected_ = false;
    std::unique_ptr<Decompressor> inflating_;
    long long rawBytes_ = 0;        // bytes read from the source itself
    Refuse refuse_;
    long long refused_ = 0;
    bool waitingForFile_ = false;   // a followed file that is not there yet
    bool goneReported_ = false;     // a followed file that disappeared, told once
    ReadFunction read_;
    bool eof_ = false;
    bool live_ = false;      // a pipe, a terminal or a followed file
    bool follow_ = false;
    bool stopped_ = false;
    Idle idle_;
    const volatile std::sig_atomic_t *stop_ = nullptr;
    std::function<void(const std::string &)> notice_;
    long long lastIdle_ = 0;         // steady clock, ms
    long long fileOffset_ = 0;       // bytes read from the followed file
    unsigned long long inode_ = 0, device_ = 0;
    std::size_t restart_ = std::size_t(-1);   // where a followed file starts again in the buffer
    std::string path_;
    int readError_ = 0;
    std::vector<char> buffer_;
    std::size_t begin_ = 0, end_ = 0;
    long long lineNumber_ = 0, consumed_ = 0, total_ = -1;
    std::string name_;
};

// One rejected line (or record of a binary stream, at its byte offset).
struct Rejected
{
    long long line = -1;     // -1 for a record of a binary stream
    long long offset = -1;   // byte offset of such a record; -1 for a line
    const char *cause = "";  // the kind of fault, for counting ("bad time")
    std::string reason;      // what is wrong, in a few words
};

// Counts rejected lines by cause and hands each to the sink, if one is set.
class Rejects
{
public:
    using Sink = std::function<void(const Rejected &)>;
    void setSink(Sink sink) { sink_ = std::move(sink); }

    void report(long long line, const char *cause, std::string reason);
    void reportOffset(long long offset, const char *cause, std::string reason);

    long long count() const { return count_; }
    const char *unit() const { return records_ ? (count_ == 1 ? "record" : "records") : (count_ == 1 ? "line" : "lines"); }
    const std::map<std::string, long long> &byCause() const { return byCause_; }
    const Rejected &last() const { return last_; }

private:
    void count(Rejected rejected);
    Sink sink_;
    long long count_ = 0;
    bool records_ = false;   // counts records of a binary stream, not lines
    std::map<std::string, long long> byCause_;
    Rejected last_;
};

} // namespace vorlink
