#include "Compressed.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <lzma.h>
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

namespace vorlink {
namespace {

constexpr std::string_view gzipMagic("\x1F\x8B", 2);
constexpr std::string_view xzMagic("\xFD" "7zXZ\0", 6);
constexpr std::string_view zstdMagic("\x28\xB5\x2F\xFD", 4);

const char *lzmaReason(lzma_ret ret)
{
    switch (ret) {
    case LZMA_FORMAT_ERROR: return "is not xz data";
    case LZMA_OPTIONS_ERROR: return "uses options this reader does not support";
    case LZMA_DATA_ERROR: return "is corrupt";
    case LZMA_BUF_ERROR: return "ends early (the file is truncated)";
    case LZMA_MEM_ERROR: return "needs more memory than there is";
    default: return "cannot be decompressed";
    }
}

} // namespace

Compression compressionOf(std::string_view head)
{
    if (head.substr(0, 2) == gzipMagic)
        return Compression::Gzip;
    if (head.substr(0, 6) == xzMagic)
        return Compression::Xz;
    if (head.substr(0, 4) == zstdMagic)
        return Compression::Zstd;
    return Compression::None;
}

const char *compressionName(Compression format)
{
    switch (format) {
    case Compression::Gzip: return "gzip";
    case Compression::Xz: return "xz";
    case Compression::Zstd: return "zstd";
    case Compression::None: break;
    }
    return "plain";
}

struct Inflater::State
{
    Compression format;
    z_stream gzip{};
    bool memberEnded = false;   // between two gzip members
    lzma_stream xz = LZMA_STREAM_INIT;
    ZSTD_DCtx *zstd = nullptr;
    bool frameOpen = false;     // a zstd frame begun and not yet ended
};

Inflater::Inflater(Compression format) : state_(new State)
{
    state_->format = format;
    if (format == Compression::Gzip && inflateInit2(&state_->gzip, 16 + MAX_WBITS) != Z_OK)
        error_ = "cannot start the gzip decoder";
    if (format == Compression::Xz && lzma_stream_decoder(&state_->xz, UINT64_MAX, LZMA_CONCATENATED) != LZMA_OK)
        error_ = "cannot start the xz decoder";
    if (format == Compression::Zstd && (state_->zstd = ZSTD_createDCtx()) == nullptr)
        error_ = "cannot start the zstd decoder";
}

Inflater::~Inflater()
{
    if (state_->format == Compression::Gzip)
        inflateEnd(&state_->gzip);
    lzma_end(&state_->xz);
    ZSTD_freeDCtx(state_->zstd);
}

Inflater::Status Inflater::run(const char *&in, const char *inEnd, char *&out, char *outEnd, bool last)
{
    State &s = *state_;
    if (!error_.empty())
        return Broken;
    const std::string name = compressionName(s.format);
    if (s.format == Compression::Gzip) {
        z_stream &z = s.gzip;
        while (out < outEnd) {
            if (s.memberEnded) {   // another member may follow, as `cat a.gz b.gz` makes
                if (in == inEnd)
                    return last ? Ended : Going;
                if (inEnd - in < 2 && !last)
                    return Going;
                if (std::string_view(in, std::size_t(inEnd - in)).substr(0, 2) != gzipMagic) {
                    error_ = "gzip data is followed by bytes that are not gzip data";
                    return Broken;
                }
                inflateReset(&z);
                s.memberEnded = false;
            }
            z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(in));
            z.avail_in = uInt(inEnd - in);
            z.next_out = reinterpret_cast<Bytef *>(out);
            z.avail_out = uInt(outEnd - out);
            const int ret = inflate(&z, Z_NO_FLUSH);
            in = reinterpret_cast<const char *>(z.next_in);
            out = reinterpret_cast<char *>(z.next_out);
            if (ret == Z_STREAM_END) {
                s.memberEnded = true;
                continue;
            }
            if (ret == Z_OK)
                continue;
            if (ret == Z_BUF_ERROR && in == inEnd) {
                if (!last)
                    return Going;
                error_ = "gzip data ends early (the file is truncated)";
                return Broken;
            }
            if (ret == Z_BUF_ERROR)
                return Going;   // no room left for output
            error_ = "gzip data is corrupt (" + std::string(z.msg != nullptr ? z.msg : "no reason given") + ")";
            return Broken;
        }
        return Going;
    }
    if (s.format == Compression::Xz) {
        lzma_stream &x = s.xz;
        x.next_in = reinterpret_cast<const uint8_t *>(in);
        x.avail_in = std::size_t(inEnd - in);
        x.next_out = reinterpret_cast<uint8_t *>(out);
        x.avail_out = std::size_t(outEnd - out);
        const lzma_ret ret = lzma_code(&x, last ? LZMA_FINISH : LZMA_RUN);
        in = reinterpret_cast<const char *>(x.next_in);
        out = reinterpret_cast<char *>(x.next_out);
        if (ret == LZMA_STREAM_END)
            return Ended;
        if (ret == LZMA_OK || (ret == LZMA_BUF_ERROR && !last))
            return Going;
        if (ret == LZMA_BUF_ERROR && x.avail_out == 0)
            return Going;
        error_ = "xz data " + std::string(lzmaReason(ret));
        return Broken;
    }
    ZSTD_inBuffer zin{in, std::size_t(inEnd - in), 0};
    ZSTD_outBuffer zout{out, std::size_t(outEnd - out), 0};
    while (zout.pos < zout.size && (zin.pos < zin.size || s.frameOpen)) {
        const std::size_t before = zout.pos + zin.pos;
        const std::size_t ret = ZSTD_decompressStream(s.zstd, &zout, &zin);
        if (ZSTD_isError(ret)) {
            in += zin.pos;
            out += zout.pos;
            error_ = "zstd data is corrupt (" + std::string(ZSTD_getErrorName(ret)) + ")";
            return Broken;
        }
        s.frameOpen = ret != 0;
        if (zout.pos + zin.pos == before)
            break;   // it needs more input
    }
    in += zin.pos;
    out += zout.pos;
    if (in != inEnd || out == outEnd || !last)
        return Going;
    if (s.frameOpen) {
        error_ = "zstd data ends early (the file is truncated)";
        return Broken;
    }
    return Ended;
}

Decompressor::Decompressor(Compression format, std::string_view head, bool whole)
    : format_(format), inflater_(format), raw_(head.begin(), head.end()), rawEnd_(head.size()), rawEnded_(whole)
{
    raw_.resize(std::max<std::size_t>(raw_.size(), 1 << 18));
}

long Decompressor::produce(char *out, std::size_t size, const Read &read)
{
    if (!error_.empty() || ended_)
        return error_.empty() ? 0 : -1;
    char *o = out;
    char *const oEnd = out + size;
    int stalled = 0;
    for (;;) {
        if (rawBegin_ == rawEnd_ || stalled > 0) {
            if (rawEnded_) {
                if (stalled > 1) {   // the decoder wants bytes that will never come
                    error_ = std::string(compressionName(format_)) + " data ends early (the file is truncated), at byte " +
                            std::to_string(taken_.load());
                    break;
                }
            } else {
                std::memmove(raw_.data(), raw_.data() + rawBegin_, rawEnd_ - rawBegin_);
                rawEnd_ -= rawBegin_;
                rawBegin_ = 0;
                if (rawEnd_ == raw_.size())
                    raw_.resize(raw_.size() * 2);
                const long n = read(raw_.data() + rawEnd_, raw_.size() - rawEnd_);
                if (n < 0)
                    return o > out ? o - out : -1;
                if (n == 0)
                    rawEnded_ = true;
                rawEnd_ += std::size_t(n > 0 ? n : 0);
            }
        }
        const char *in = raw_.data() + rawBegin_;
        const char *const was = in;
        char *const made = o;
        const Inflater::Status status = inflater_.run(in, raw_.data() + rawEnd_, o, oEnd, rawEnded_);
        rawBegin_ += std::size_t(in - was);
        taken_ += in - was;
        if (status == Inflater::Broken) {
            error_ = inflater_.error() + ", at byte " + std::to_string(taken_.load());
            break;
        }
        if (status == Inflater::Ended) {
            ended_ = true;
            break;
        }
        if (o > out && (o == oEnd || rawBegin_ == rawEnd_))
            break;
        stalled = (in == was && o == made) ? stalled + 1 : 0;
    }
    return o > out ? o - out : (error_.empty() ? 0 : -1);
}

void Decompressor::start(int fd)
{
    thread_ = std::thread([this, fd] {
        const auto readFd = [this, fd](char *data, std::size_t size) -> long {
            for (;;) {
                const long n = long(::read(fd, data, size));
                if (n >= 0 || errno != EINTR) {
                    if (n < 0)
                        readError_ = errno;
                    return n;
                }
            }
        };
        for (;;) {
            std::vector<char> block;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                if (!spare_.empty()) {
                    block = std::move(spare_.back());
                    spare_.pop_back();
                }
            }
            block.resize(std::size_t(1) << 20);
            const long n = produce(block.data(), block.size(), readFd);
            std::unique_lock<std::mutex> lock(mutex_);
            if (n <= 0) {
                done_ = true;
                changed_.notify_all();
                return;
            }
            block.resize(std::size_t(n));
            changed_.wait(lock, [this] { return ready_.size() < 4 || quit_; });
            if (quit_)
                return;
            ready_.push_back(std::move(block));
            changed_.notify_all();
        }
    });
}

// The next decompressed bytes from the thread: the count, 0 at the end, -1
// where the data broke off or the source failed, or when `stop` was set.
long Decompressor::take(char *data, std::size_t size, const volatile std::sig_atomic_t *stop)
{
    if (currentAt_ == current_.size()) {
        std::unique_lock<std::mutex> lock(mutex_);
        while (ready_.empty() && !done_) {
            if (stop != nullptr && *stop != 0)
                return -1;
            changed_.wait_for(lock, std::chrono::milliseconds(20));
        }
        if (ready_.empty())
            return error_.empty() && readError_ == 0 ? 0 : -1;
        if (spare_.size() < 2)
            spare_.push_back(std::move(current_));
        current_ = std::move(ready_.front());
        ready_.pop_front();
        currentAt_ = 0;
        changed_.notify_all();
    }
    const std::size_t n = std::min(size, current_.size() - currentAt_);
    std::memcpy(data, current_.data() + currentAt_, n);
    currentAt_ += n;
    return long(n);
}

void Decompressor::stop()
{
    if (!thread_.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        quit_ = true;
        changed_.notify_all();
    }
    thread_.join();
}

} // namespace vorlink
