#include "LineReader.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vorlink {
namespace {

constexpr long long idleEveryMs = 100;   // the idle call's period while a live source waits or keeps us busy
constexpr int growthPollMs = 20;         // how often a followed file at its end is looked at

long long nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// True when a read of `fd` would not wait: data, its end or an error.
bool readableNow(int fd)
{
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) != 0;
}

} // namespace

LineReader::LineReader() = default;

LineReader::~LineReader() { reset(); }

void LineReader::reset()
{
    inflating_.reset();
    if (ownFd_ && fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    ownFd_ = false;
    read_ = nullptr;
    compression_ = Compression::None;
    detected_ = waitingForFile_ = goneReported_ = false;
    eof_ = live_ = follow_ = stopped_ = false;
    rawBytes_ = refused_ = 0;
    lastIdle_ = fileOffset_ = 0;
    inode_ = device_ = 0;
    restart_ = std::size_t(-1);
    path_.clear();
    readError_ = 0;
    begin_ = end_ = 0;
    lineNumber_ = consumed_ = 0;
    total_ = -1;
}

bool LineReader::open(const std::string &path, std::string &error, bool follow)
{
    reset();
    struct stat st;
    if (path == "-") {
        fd_ = STDIN_FILENO;
        name_ = "<stdin>";
    } else {
        name_ = path;
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0 && follow && errno == ENOENT) {
            // Waited for as `tail -F` does; the first read says so.
            waitingForFile_ = true;
            ownFd_ = follow_ = live_ = true;
            path_ = path;
            buffer_.resize(std::size_t(1) << 20);
            return true;
        }
        if (fd_ < 0) {
            error = path + ": " + std::strerror(errno);
            return false;
        }
        ownFd_ = true;
    }
    if (::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode))
        total_ = st.st_size;
    if (total_ < 0 && ownFd_ && ::fstat(fd_, &st) == 0 && S_ISDIR(st.st_mode)) {
        error = path + ": is a directory";
        return false;
    }
    // Only a file by name can be followed; a pipe or a terminal is read as it
    // comes anyway.
    follow_ = follow && ownFd_ && total_ >= 0;
    live_ = follow_ || total_ < 0;
    if (follow_) {
        inode_ = st.st_ino;
        device_ = st.st_dev;
        path_ = path;
        total_ = -1;   // it grows
    }
#ifdef POSIX_FADV_SEQUENTIAL
    if (total_ >= 0)
        ::posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
#endif
    buffer_.resize(std::size_t(1) << 20);
    return true;
}

void LineReader::open(ReadFunction read, std::string name, bool plain)
{
    reset();
    detected_ = plain;
    read_ = std::move(read);
    name_ = std::move(name);
    buffer_.resize(std::size_t(1) << 20);
}

// Reads what the first bytes of the source are; false while they could still
// be the start of a compressed format's magic.
bool LineReader::detect()
{
    static constexpr std::string_view magics[] = {std::string_view("\x1F\x8B", 2), std::string_view("\xFD" "7zXZ\0", 6),
                                                  std::string_view("\x28\xB5\x2F\xFD", 4)};
    const std::string_view head(buffer_.data(), end_);
    if (!eof_)
        for (const std::string_view magic : magics)
            if (head.size() < magic.size() && magic.substr(0, head.size()) == head)
                return false;
    detected_ = true;
    compression_ = compressionOf(head);
    if (compression_ == Compression::None)
        return true;
    inflating_ = std::make_unique<Decompressor>(compression_, head, eof_);
    eof_ = false;
    begin_ = end_ = 0;
    if (follow_) {
        if (notice_)
            notice_(name_ + ": " + compressionName(compression_) + "-compressed; read once to its end, not followed");
        struct stat st;
        follow_ = false;
        live_ = false;
        if (::fstat(fd_, &st) == 0)
            total_ = st.st_size;
    }
    if (ownFd_ && !live_)
        inflating_->start(fd_);
    return true;
}

// Bytes of the source as the lines are made of them: decompressed, if it is
// compressed. As readRaw(), with -1 also where compressed data broke off.
long LineReader::readSource(char *data, std::size_t size)
{
    if (!inflating_)
        return readRaw(data, size);
    Decompressor &z = *inflating_;
    const long n = z.threaded() ? z.take(data, size, stop_)
                                : z.produce(data, size, [this](char *d, std::size_t s) { return readRaw(d, s); });
    rawBytes_ = z.taken();
    if (n < 0 && z.threaded()) {
        if (stop_ != nullptr && *stop_ != 0) {
            halt();
            return -1;
        }
        readError_ = z.readError();
    }
    return n;
}

// The source's own bytes: the count, 0 at its end, -1 when the reader halted
// (or a followed file started again, see restart_) or the read failed.
long LineReader::readRaw(char *data, std::size_t size)
{
    for (;;) {
        if (stop_ != nullptr && *stop_ != 0) {
            halt();
            return -1;
        }
        if (waitingForFile_ && !waitForFile())
            return -1;
        if (live_ && !read_ && (idle_ || stop_ != nullptr)) {
            if (!follow_ && !readableNow(fd_)) {
                if (!waitForInput())
                    return -1;
            } else if (nowMs() - lastIdle_ >= idleEveryMs && !idle()) {
                halt();
                return -1;
            }
        }
        const long n = read_ ? read_(data, size) : long(::read(fd_, data, size));
        if (n > 0) {
            fileOffset_ += n;
            if (!inflating_)
                rawBytes_ += n;
            return n;
        }
        if (n < 0 && !read_ && errno == EINTR)
            continue;
        if (n == 0 && follow_ && compression_ == Compression::None) {
            if (!waitForGrowth())
                return -1;
            if (restart_ == end_)
                return -1;   // the replaced file's last line, now ended
            continue;
        }
        if (n < 0)
            readError_ = read_ ? int(-n) : errno;
        return n < 0 ? -1 : 0;
    }
}

bool LineReader::fill()
{
    if (begin_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        if (restart_ != std::size_t(-1))
            restart_ -= begin_;
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ == buffer_.size())
        buffer_.resize(buffer_.size() * 2);   // a line longer than the buffer, up to maxLineBytes
    for (;;) {
        const long n = detected_ ? readSource(buffer_.data() + end_, buffer_.size() - end_)
                                 : readRaw(buffer_.data() + end_, buffer_.size() - end_);
        if (n > 0) {
            end_ += std::size_t(n);
            if (!detected_ && (!detect() || inflating_))
                continue;   // more of the first bytes, or the first decompressed ones
            return true;
        }
        if (stopped_)
            return false;
        if (n < 0 && restart_ == end_ && restart_ != std::size_t(-1))
            return true;
        if (!detected_ && n == 0) {
            eof_ = true;
            detect();
            if (inflating_)
                continue;   // a compressed file shorter than one read
            return false;
        }
        if (inflating_ && !inflating_->error().empty()) {
            // Whole lines before the break were given out; the rest of the
            // line it cut is lost with the data behind it.
            const long long line = lineNumber_ + 1;
            begin_ = end_;
            eof_ = true;
            refuse(line, "broken data", inflating_->error());
            return false;
        }
        eof_ = true;
        return false;
    }
}

bool LineReader::idle()
{
    lastIdle_ = nowMs();
    return !idle_ || idle_();
}

bool LineReader::halt()
{
    stopped_ = eof_ = true;
    begin_ = end_;
    return false;
}

// A pipe or a terminal with nothing to read: the idle call, then a wait that
// a signal or the idle call's period cuts short.
bool LineReader::waitForInput()
{
    if (!idle())
        return halt();
    for (;;) {
        if (stop_ != nullptr && *stop_ != 0)
            return halt();
        pollfd p{fd_, POLLIN, 0};
        const int ready = ::poll(&p, 1, int(idleEveryMs));
        if (ready > 0 || (ready < 0 && errno != EINTR))
            return true;   // what read() says next
        if (!idle())
            return halt();
    }
}

// A followed file at its end: true when there is more to read, in it or in
// the file that replaced it.
bool LineReader::waitForGrowth()
{
    if (!idle())
        return halt();
    for (;;) {
        if (stop_ != nullptr && *stop_ != 0)
            return halt();
        struct stat st;
        if (::fstat(fd_, &st) == 0) {
            if (st.st_size > fileOffset_)
                return true;
            if (st.st_size < fileOffset_) {
                ::lseek(fd_, 0, SEEK_SET);
                startAgain("truncated; reading it again from its start");
                return true;
            }
        }
        struct stat named;
        const bool there = ::stat(path_.c_str(), &named) == 0;
        if (!there && errno == ENOENT && !goneReported_) {
            goneReported_ = true;
            if (notice_)
                notice_(name_ + ": disappeared; waiting for it to appear again");
        }
        if (there &&
            (static_cast<unsigned long long>(named.st_ino) != inode_ ||
             static_cast<unsigned long long>(named.st_dev) != device_)) {
            const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                struct stat opened;
                ::fstat(fd, &opened);
                ::close(fd_);
                fd_ = fd;
                inode_ = opened.st_ino;
                device_ = opened.st_dev;
                goneReported_ = false;
                startAgain("replaced; reading the new file from its start");
                return true;
            }
        }
        if (nowMs() - lastIdle_ >= idleEveryMs && !idle())
            return halt();
        ::poll(nullptr, 0, growthPollMs);
    }
}

// A followed file that is not there: waits for it to appear, saying so once.
bool LineReader::waitForFile()
{
    if (notice_)
        notice_(name_ + ": " + std::strerror(ENOENT) + "; waiting for it to appear");
    for (;;) {
        if (stop_ != nullptr && *stop_ != 0)
            return halt();
        fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        if (fd_ >= 0 && ::fstat(fd_, &st) == 0) {
            waitingForFile_ = false;
            inode_ = st.st_ino;
            device_ = st.st_dev;
            if (notice_)
                notice_(name_ + ": appeared; reading it");
            return true;
        }
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
        if (nowMs() - lastIdle_ >= idleEveryMs && !idle())
            return halt();
        ::poll(nullptr, 0, growthPollMs);
    }
}

// The followed file starts again. A last line the old one left without its
// newline is ended here; the line numbers and byte counts start again after it.
void LineReader::startAgain(const char *why)
{
    fileOffset_ = 0;
    if (begin_ < end_) {
        buffer_[end_++] = '\n';   // fill() left room
        restart_ = end_;
    } else {
        lineNumber_ = 0;
        consumed_ = 0;
    }
    if (notice_)
        notice_(name_ + ": " + why);
}

// Counts the line; an editor's UTF-8 byte-order mark ahead of the first line is
// not part of it.
void LineReader::skipByteOrderMark(std::string_view &line)
{
    if (++lineNumber_ == 1 && line.substr(0, 3) == "\xEF\xBB\xBF")
        line.remove_prefix(3);
}

bool LineReader::refuse(long long line, const char *cause, std::string reason)
{
    ++refused_;
    return !refuse_ || refuse_(line, cause, std::move(reason));
}

// The line at begin_ is longer than maxLineBytes: dropped as it comes, up to
// and with its newline, then refused. False when the input ends for good.
bool LineReader::skipLongLine()
{
    const long long number = ++lineNumber_;
    long long length = 0;
    for (;;) {
        const char *const from = buffer_.data() + begin_;
        const void *nl = std::memchr(from, '\n', end_ - begin_);
        const std::size_t part = nl != nullptr ? std::size_t(static_cast<const char *>(nl) - from) : end_ - begin_;
        length += static_cast<long long>(part);
        consumed_ += static_cast<long long>(part + (nl != nullptr ? 1 : 0));
        begin_ += part + (nl != nullptr ? 1 : 0);
        if (nl != nullptr || eof_ || (!fill() && (stopped_ || begin_ == end_))) {
            if (stopped_)
                return false;
            if (refuse(number, "line too long", "line of " + std::to_string(length) + " bytes is longer than the " +
                                                    std::to_string(maxLineBytes) + " a line may have; skipped"))
                return true;
            begin_ = end_;
            eof_ = true;
            return false;
        }
    }
}

bool LineReader::next(std::string_view &line)
{
    std::size_t searched = begin_;
    for (;;) {
        const void *nl = std::memchr(buffer_.data() + searched, '\n', end_ - searched);
        const std::size_t at = nl != nullptr ? std::size_t(static_cast<const char *>(nl) - buffer_.data()) : end_;
        if (at - begin_ > maxLineBytes) {
            if (!skipLongLine())
                return false;
            searched = begin_;
            continue;
        }
        if (nl != nullptr) {
            if (begin_ == restart_) {
                lineNumber_ = consumed_ = 0;
                restart_ = std::size_t(-1);
            }
            line = std::string_view(buffer_.data() + begin_, at - begin_);
            consumed_ += static_cast<long long>(at + 1 - begin_);
            begin_ = at + 1;
            skipByteOrderMark(line);
            return true;
        }
        if (eof_) {
            if (begin_ == end_)
                return false;
            line = std::string_view(buffer_.data() + begin_, end_ - begin_);   // last line without newline
            consumed_ += static_cast<long long>(end_ - begin_);
            begin_ = end_;
            skipByteOrderMark(line);
            return true;
        }
        const std::size_t pending = end_ - begin_;
        if (!fill() && stopped_)
            return false;
        searched = begin_ + std::min(pending, end_ - begin_);   // broken data drops the line it cut
    }
}

std::string_view LineReader::peek()
{
    if (begin_ == end_ && !eof_)
        fill();
    return std::string_view(buffer_.data() + begin_, end_ - begin_);
}

bool LineReader::nextChunk(std::string_view &chunk)
{
    if (begin_ == end_ && (eof_ || !fill()))
        return false;
    if (restart_ != std::size_t(-1)) {   // a followed stream started again
        consumed_ = 0;
        restart_ = std::size_t(-1);
    }
    chunk = std::string_view(buffer_.data() + begin_, end_ - begin_);
    consumed_ += static_cast<long long>(chunk.size());
    begin_ = end_;
    return true;
}

void LineReader::backUp(std::size_t count)
{
    begin_ -= count;
    consumed_ -= static_cast<long long>(count);
}

void Rejects::report(long long line, const char *cause, std::string reason)
{
    count({line, -1, cause, std::move(reason)});
}

void Rejects::reportOffset(long long offset, const char *cause, std::string reason)
{
    records_ = true;
    count({-1, offset, cause, std::move(reason)});
}

void Rejects::count(Rejected rejected)
{
    ++count_;
    ++byCause_[rejected.cause];
    if (sink_)
        sink_(rejected);
    last_ = std::move(rejected);
}

} // namespace vorlink
