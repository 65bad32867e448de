#pragma once

// Plumbing of the command-line tool: line input in large blocks, buffered
// output, the progress bar and the report of rejected lines.

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vorlink {

// Reads a file or standard input ("-") line by line through one large buffer.
class LineReader
{
public:
    ~LineReader();
    bool open(const std::string &path, std::string &error);
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
    bool eof_ = false;
    int readError_ = 0;
    std::vector<char> buffer_;
    std::size_t begin_ = 0, end_ = 0;
    long long lineNumber_ = 0, consumed_ = 0, total_ = -1;
    std::string name_;
};

// Buffered writer to a file descriptor, flushed in large blocks.
class Writer
{
public:
    explicit Writer(int fd = 1) : fd_(fd) { buffer_.reserve(capacity + 4096); }
    ~Writer() { flush(); }
    void append(const char *data, std::size_t size)
    {
        buffer_.append(data, size);
        if (buffer_.size() >= capacity)
            flush();
    }
    void append(std::string_view text) { append(text.data(), text.size()); }
    void append(char c)
    {
        buffer_.push_back(c);
        if (buffer_.size() >= capacity)
            flush();
    }
    // Direct access for formatters that append in place; call commit() after.
    std::string &buffer() { return buffer_; }
    void commit()
    {
        if (buffer_.size() >= capacity)
            flush();
    }
    bool flush();
    bool failed() const { return failed_; }
    int error() const { return error_; }   // errno of the failed write

private:
    static constexpr std::size_t capacity = 1 << 20;
    int fd_;
    bool failed_ = false;
    int error_ = 0;
    std::string buffer_;
};

// A one-line progress bar on standard error. Drawn only when standard error is
// a terminal, and only once a run has lasted a moment.
class Progress
{
public:
    Progress(bool wanted, long long totalBytes);
    ~Progress() { clear(); }
    void tick(long long bytes, long long lines)
    {
        if (enabled_ && (++calls_ & 0x3FF) == 0)
            draw(bytes, lines, false);
    }
    void clear();

private:
    void draw(long long bytes, long long lines, bool force);
    bool enabled_ = false;
    bool shown_ = false;
    unsigned calls_ = 0;
    long long total_;
    std::chrono::steady_clock::time_point start_, last_;
    std::chrono::milliseconds delay_;
};

// Counts and reports rejected lines as "<input>:<line>: <reason>".
class Rejects
{
public:
    Rejects(const std::string &input, Progress &progress) : input_(input), progress_(progress) {}
    // `cause` names the kind of fault ("bad time"), for the counts by cause.
    void report(long long line, const char *cause, const std::string &reason);
    // The same for a record of a binary stream, at its byte offset.
    void reportOffset(long long offset, const char *cause, const std::string &reason);
    long long count() const { return count_; }
    const char *unit() const { return records_ ? (count_ == 1 ? "record" : "records") : (count_ == 1 ? "line" : "lines"); }
    const std::map<std::string, long long> &byCause() const { return byCause_; }

private:
    std::string input_;
    Progress &progress_;
    long long count_ = 0;
    bool records_ = false;   // counts records of a binary stream, not lines
    std::map<std::string, long long> byCause_;

    void count(const char *cause);
};

} // namespace vorlink
