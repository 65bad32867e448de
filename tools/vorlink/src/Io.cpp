#include "Io.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace vorlink {

bool Writer::flush()
{
    writeAll(buffer_.data(), buffer_.size());
    buffer_.clear();
    return !failed_;
}

bool Writer::writeAll(const char *p, std::size_t left)
{
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
    return !failed_;
}

Progress::Progress(bool wanted, long long totalBytes)
    : enabled_(wanted && ::isatty(STDERR_FILENO) == 1 && ::isatty(STDOUT_FILENO) != 1),
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

void showRejects(Rejects &rejects, const std::string &input, Progress &progress, Writer *out)
{
    rejects.setSink([&input, &progress, out](const Rejected &rejected) {
        progress.clear();
        if (out != nullptr)
            out->flush();
        if (rejected.line >= 0)
            std::fprintf(stderr, "%s:%lld: %s\n", input.c_str(), rejected.line, rejected.reason.c_str());
        else
            std::fprintf(stderr, "%s: byte %lld: %s\n", input.c_str(), rejected.offset, rejected.reason.c_str());
    });
}

} // namespace vorlink
