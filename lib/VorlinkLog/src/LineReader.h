#pragma once

// Lines of a bus log, read through one large buffer from a file, standard
// input or a caller's read function, and the count of what was rejected.

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
    // A file, or standard input for "-".
    bool open(const std::string &path, std::string &error);
    // Any other source, such as a Python file object; `name` is how reports call it.
    void open(ReadFunction read, std::string name);

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
    void skipByteOrderMark(std::string_view &line);
    int fd_ = -1;
    bool ownFd_ = false;
    ReadFunction read_;
    bool eof_ = false;
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
