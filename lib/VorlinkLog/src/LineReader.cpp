#include "LineReader.h"

#include <cerrno>
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
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ == buffer_.size())
        buffer_.resize(buffer_.size() * 2);   // a line longer than the buffer
    for (;;) {
        const long n = read_ ? read_(buffer_.data() + end_, buffer_.size() - end_)
                             : long(::read(fd_, buffer_.data() + end_, buffer_.size() - end_));
        if (n > 0) {
            end_ += std::size_t(n);
            return true;
        }
        if (n < 0 && !read_ && errno == EINTR)
            continue;
        if (n < 0)
            readError_ = read_ ? int(-n) : errno;
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
