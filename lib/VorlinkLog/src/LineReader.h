#pragma once

// Lines of a bus log, read through one large buffer from a file, standard
// input or a caller's read function, and the count of what was rejected.
//
// A live source (a pipe, a terminal, a file followed as it grows) is read the
// same way, with three hooks for a caller that shows what it reads as it
// comes: a call whenever the reader is about to wait for more, a flag that
// ends the input (set by a signal handler), and notes about a followed file.

#include <csignal>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vorlink {

class LineReader
{
public:
    // Reads up to `size` bytes into `data`: the count, 0 at the end, or -errno.
    using ReadFunction = std::function<long(char *data, std::size_t size)>;

    ~LineReader();
    // A file, or standard input for "-". With `follow`, a regular file is
    // read on as lines are appended to it, as `tail -F` does: at its end the
    // reader waits for more; a partial last line waits for its newline; a
    // file truncated or replaced under the same name (log rotation) is read
    // again from its start, the line numbers and byte counts starting again.
    bool open(const std::string &path, std::string &error, bool follow = false);
    // Any other source, such as a Python file object; `name` is how reports call it.
    void open(ReadFunction read, std::string name);

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
    // True when the input ended by the flag or the idle call, not at its end.
    bool stopped() const { return stopped_; }
    bool following() const { return follow_; }

    // The lines that follow are numbered from `lines` + 1: a piece of a file
    // read on its own keeps the file's numbers, and its first line is not
    // taken for the file's first.
    void startAtLine(long long lines) { lineNumber_ = lines; }

    // The next line without its newline; false at the end of the input.
    bool next(std::string_view &line);
    long long lineNumber() const { return lineNumber_; }
    long long bytesConsumed() const { return consumed_; }
    long long totalBytes() const { return total_; }   // -1 when not known (a pipe)
    const std::string &name() const { return name_; }
    int readError() const { return readError_; }

    // Byte access, for a binary stream: the unread bytes without taking them
    // (read once if none are buffered; empty at the end) ...
    std::string_view peek();
    // ... the unread bytes, all taken (false at the end) ...
    bool nextChunk(std::string_view &chunk);
    // ... and the last `count` of them given back.
    void backUp(std::size_t count);

private:
    bool fill();
    bool waitForInput();
    bool waitForGrowth();
    bool idle();
    bool halt();
    void startAgain(const char *why);
    void skipByteOrderMark(std::string_view &line);
    int fd_ = -1;
    bool ownFd_ = false;
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
