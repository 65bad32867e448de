#include "Io.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vorlink {

LineReader::~LineReader()
{
    if (ownFd_ && fd_ >= 0)
        ::close(fd_);
}

bool LineReader::open(const std::string &path, std::string &error)
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
#ifdef POSIX_FADV_SEQUENTIAL
    if (total_ >= 0)
        ::posix_fadvise(fd_, 0, 0, POSIX_FADV_SEQUENTIAL);
#endif
    buffer_.resize(1 << 20);
    return true;
}

bool LineReader::fill()
{
    if (begin_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ == buffer_.size())
        buffer_.resize(buffer_.size() * 2);   // a line longer than the buffer
    for (;;) {
        const ssize_t n = ::read(fd_, buffer_.data() + end_, buffer_.size() - end_);
        if (n > 0) {
            end_ += std::size_t(n);
            return true;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            readError_ = errno;
        eof_ = true;
        return false;
    }
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
        fill();
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

bool Writer::flush()
{
    const char *p = buffer_.data();
    std::size_t left = buffer_.size();
    while (left > 0 && !failed_) {
        const ssize_t n = ::write(fd_, p, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            failed_ = true;
            error_ = n < 0 ? errno : EIO;
            break;
        }
        p += n;
        left -= std::size_t(n);
    }
    buffer_.clear();
    return !failed_;
}

Progress::Progress(bool wanted, long long totalBytes)
    : enabled_(wanted && ::isatty(STDERR_FILENO) == 1),
      total_(totalBytes),
      start_(std::chrono::steady_clock::now()),
      last_(start_),
      delay_(1000)
{
    // The delay before the bar first shows; tests set it to 0.
    if (const char *ms = std::getenv("VORLINK_PROGRESS_DELAY_MS"))
        delay_ = std::chrono::milliseconds(std::atol(ms));
}

void Progress::draw(long long bytes, long long lines, bool force)
{
    const auto now = std::chrono::steady_clock::now();
    if (!force && (now - start_ < delay_ || (shown_ && now - last_ < std::chrono::milliseconds(100))))
        return;
    last_ = now;
    char text[128];
    if (total_ > 0) {
        constexpr int width = 30;
        const double done = bytes >= total_ ? 1.0 : double(bytes) / double(total_);
        const int filled = int(done * width);
        char bar[width + 1];
        for (int k = 0; k < width; ++k)
            bar[k] = k < filled ? '#' : '.';
        bar[width] = '\0';
        std::snprintf(text, sizeof text, "\r[%s] %3d%%  %lld lines", bar, int(done * 100), lines);
    } else {
        std::snprintf(text, sizeof text, "\r%lld lines", lines);
    }
    std::fputs(text, stderr);
    std::fflush(stderr);
    shown_ = true;
}

void Progress::clear()
{
    if (!shown_)
        return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    shown_ = false;
}

void Rejects::report(long long line, const char *cause, const std::string &reason)
{
    progress_.clear();
    std::fprintf(stderr, "%s:%lld: %s\n", input_.c_str(), line, reason.c_str());
    count(cause);
}

void Rejects::reportOffset(long long offset, const char *cause, const std::string &reason)
{
    progress_.clear();
    std::fprintf(stderr, "%s: byte %lld: %s\n", input_.c_str(), offset, reason.c_str());
    records_ = true;
    count(cause);
}

void Rejects::count(const char *cause)
{
    ++count_;
    ++byCause_[cause];
}

} // namespace vorlink
