#pragma once

// Compressed logs: gzip, xz and zstd, recognised by their first bytes (never
// by a file's name) and decompressed as a stream, member after member or
// frame after frame, as the command-line tools do with concatenated files.

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace vorlink {

enum class Compression { None, Gzip, Xz, Zstd };

// The format whose magic bytes start `head`; None for anything else. Six bytes
// decide; a shorter head is None unless it is a whole magic.
Compression compressionOf(std::string_view head);
const char *compressionName(Compression format);   // "gzip", "xz", "zstd"

class Inflater
{
public:
    explicit Inflater(Compression format);
    ~Inflater();
    Inflater(const Inflater &) = delete;
    Inflater &operator=(const Inflater &) = delete;

    enum Status { Going, Ended, Broken };
    // Decompresses from [in, inEnd) into [out, outEnd), moving `in` past what
    // it took and `out` past what it made. `last` says that no input follows
    // [in, inEnd): a stream that has not ended there is cut short. Broken
    // gives the reason in error(), and `in` stays where the data broke.
    Status run(const char *&in, const char *inEnd, char *&out, char *outEnd, bool last);
    const std::string &error() const { return error_; }

private:
    struct State;
    std::unique_ptr<State> state_;
    std::string error_;
};

// A compressed source decompressed as its lines are read: in the reader's
// thread, or in a thread of its own a few blocks of 1 MiB ahead of it.
class Decompressor
{
public:
    // Raw bytes of the source: > 0, 0 at its end, < 0 when it failed or the
    // reader stopped.
    using Read = std::function<long(char *, std::size_t)>;

    // `head`: the first bytes of the source, already read; `whole` when they
    // are all of it.
    Decompressor(Compression format, std::string_view head, bool whole);
    ~Decompressor() { stop(); }
    Decompressor(const Decompressor &) = delete;
    Decompressor &operator=(const Decompressor &) = delete;

    // In the reader's thread: decompressed bytes into [out, out + size), the
    // raw ones through `read`. The count, 0 at the end, -1 where the data
    // broke off (see error()) or the source failed. Gives what it has rather
    // than wait for more raw bytes.
    long produce(char *out, std::size_t size, const Read &read);

    // In a thread of its own, reading `fd` (a regular file) to its end ...
    void start(int fd);
    bool threaded() const { return thread_.joinable(); }
    // ... and its blocks taken in turn: as produce(), and -1 when `stop` is
    // set while it waits.
    long take(char *data, std::size_t size, const volatile std::sig_atomic_t *stop);

    long long taken() const { return taken_.load(); }   // raw bytes decompressed so far
    // Where and why the data broke off: "gzip data ends early (the file is
    // truncated), at byte 5120"; empty while it is whole. Read it once
    // produce() or take() gave -1.
    const std::string &error() const { return error_; }
    int readError() const { return readError_; }   // errno of a failed read of the thread's file

private:
    void stop();
    Compression format_;
    Inflater inflater_;
    std::vector<char> raw_;
    std::size_t rawBegin_ = 0, rawEnd_ = 0;
    bool rawEnded_ = false, ended_ = false;
    std::atomic<long long> taken_{0};
    std::string error_;

    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::vector<char>> ready_;
    std::vector<std::vector<char>> spare_;   // blocks read out, to be filled again
    bool done_ = false, quit_ = false;
    int readError_ = 0;
    std::vector<char> current_;
    std::size_t currentAt_ = 0;
};

} // namespace vorlink
