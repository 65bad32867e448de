#include "LineReader.h"

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

LineReader::~LineReader()
{
    if (ownFd_ && fd_ >= 0)
        ::close(fd_);
}

bool LineReader::open(const std::string &path, std::string &error, bool follow)
{
    if (path == "-") {
        fd_ = STDIN_FILENO;
        name_ = "<stdin>";
    } else {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) {
            error = path + ": " + std::strerror(errno);
            return false;
        }
        ownFd_ = true;
        name_ = path;
    }
    struct stat st;
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
    buffer_.resize(1 << 20);
    return true;
}

void LineReader::open(ReadFunction read, std::string name)
{
    read_ = std::move(read);
    name_ = std::move(name);
    buffer_.resize(1 << 20);
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
        buffer_.resize(buffer_.size() * 2);   // a line longer than the buffer
    for (;;) {
        if (stop_ != nullptr && *stop_ != 0)
            return halt();
        if (live_ && !read_ && (idle_ || stop_ != nullptr)) {
            if (!follow_ && !readableNow(fd_)) {
                if (!waitForInput())
                    return false;
            } else if (nowMs() - lastIdle_ >= idleEveryMs && !idle()) {
                return halt();
            }
        }
        const long n = read_ ? read_(buffer_.data() + end_, buffer_.size() - end_)
                             : long(::read(fd_, buffer_.data() + end_, buffer_.size() - end_));
        if (n > 0) {
            end_ += std::size_t(n);
            fileOffset_ += n;
            return true;
        }
        if (n < 0 && !read_ && errno == EINTR)
            continue;
        if (n == 0 && follow_) {
            if (!waitForGrowth())
                return false;
            if (restart_ == end_)
                return true;   // the replaced file's last line, now ended
            continue;
        }
        if (n < 0)
            readError_ = read_ ? int(-n) : errno;
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
        if (::stat(path_.c_str(), &named) == 0 &&
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
                startAgain("replaced; reading the new file from its start");
                return true;
            }
        }
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

bool LineReader::next(std::string_view &line)
{
    std::size_t searched = begin_;
    for (;;) {
        const void *nl = std::memchr(buffer_.data() + searched, '\n', end_ - searched);
        if (nl != nullptr) {
            if (begin_ == restart_) {
                lineNumber_ = consumed_ = 0;
                restart_ = std::size_t(-1);
            }
            const std::size_t at = std::size_t(static_cast<const char *>(nl) - buffer_.data());
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
        searched = begin_ + pending;
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
