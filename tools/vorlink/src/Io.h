#pragma once

// Plumbing of the command-line tool: buffered output, the progress bar and
// the report of rejected lines on standard error.

#include "LineReader.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace vorlink {

// Buffered writer to a file descriptor, flushed in large blocks.
class Writer
{
public:
    explicit Writer(int fd = 1) : fd_(fd) { buffer_.reserve(capacity + 4096); }
    ~Writer() { flush(); }
    void append(const char *data, std::size_t size)
    {
        if (size >= capacity / 4) {   // a block made elsewhere goes out as it is, not through the buffer
            if (flush())
                writeAll(data, size);
            return;
        }
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
    bool writeAll(const char *data, std::size_t size);
    static constexpr std::size_t capacity = 1 << 20;
    int fd_;
    bool failed_ = false;
    int error_ = 0;
    std::string buffer_;
};

// A one-line progress bar on standard error. Drawn only when standard error is
// a terminal and standard output is not (there the output shows the
// progress), and only once a run has lasted a moment.
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
    // The same without counting calls, for a caller that calls seldom.
    void show(long long bytes, long long lines)
    {
        if (enabled_)
            draw(bytes, lines, false);
    }
    void clear();
    void disable()
    {
        clear();
        enabled_ = false;
    }

private:
    void draw(long long bytes, long long lines, bool force);
    bool enabled_ = false;
    bool shown_ = false;
    unsigned calls_ = 0;
    long long total_;
    std::chrono::steady_clock::time_point start_, last_;
    std::chrono::milliseconds delay_;
};

// Shows each rejected line on standard error as "<input>:<line>: <reason>"
// (a record of a binary stream as "<input>: byte <offset>: <reason>"),
// clearing the progress bar and writing out `out` (if any) first.
void showRejects(Rejects &rejects, const std::string &input, Progress &progress, Writer *out = nullptr);

} // namespace vorlink
