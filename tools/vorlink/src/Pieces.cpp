#include "Pieces.h"

#include "LogScan.h"

#include <algorithm>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace vorlink {
namespace {

constexpr long long smallestSplit = 256 << 10;   // below this a second job gains nothing
constexpr std::size_t smallestPiece = 64 << 10;
constexpr std::size_t largestPiece = 256 << 10;   // a piece and its reader stay in a core's cache

// The lines of a piece are counted on the reading thread, which every worker
// waits for: sixteen bytes at a time where the machine can, each lane
// counting to at most 255 before the lanes are summed.
long long countNewlines(std::string_view bytes)
{
    std::size_t at = 0;
    long long count = 0;
#ifdef __SSE2__
    const __m128i newline = _mm_set1_epi8('\n');
    while (at + 16 <= bytes.size()) {
        __m128i lanes = _mm_setzero_si128();
        for (int k = 0; k < 255 && at + 16 <= bytes.size(); ++k, at += 16) {
            const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes.data() + at));
            lanes = _mm_sub_epi8(lanes, _mm_cmpeq_epi8(block, newline));   // a match is -1
        }
        const __m128i sums = _mm_sad_epu8(lanes, _mm_setzero_si128());
        count += _mm_cvtsi128_si32(sums) + _mm_extract_epi16(sums, 4);
    }
#endif
    return count + std::count(bytes.begin() + long(at), bytes.end(), '\n');
}

} // namespace

int jobsFor(LineReader &input, bool follow, int jobs)
{
    if (jobs <= 1 || !input.byName() || follow || input.following() || input.totalBytes() < smallestSplit)
        return 1;
    input.peek();
    if (input.compression() != Compression::None)
        return 1;
    return jobs;
}

std::size_t pieceSize(long long totalBytes, int jobs)
{
    const long long each = totalBytes / (8LL * std::max(jobs, 1));
    return std::size_t(std::clamp<long long>(each, smallestPiece, largestPiece));
}

bool PieceReader::next(Piece &piece)
{
    piece.bytes.clear();
    piece.bytes.reserve(size_ + 4096);
    piece.firstLine = lines_;
    piece.tail = 0;
    bool dropping = false;   // inside a line too long to hold
    for (;;) {
        if (rest_.empty() && !input_.nextChunk(rest_)) {
            rest_ = {};
            if (input_.stopped()) {
                // Only whole lines are converted once the input was stopped.
                const std::size_t end = piece.bytes.rfind('\n');
                piece.bytes.resize(end == std::string::npos ? 0 : end + 1);
                piece.tail = 0;
            }
            break;
        }
        if (dropping) {   // counted to its end, not kept
            const void *newline = std::memchr(rest_.data(), '\n', rest_.size());
            const std::size_t part =
                newline == nullptr ? rest_.size() : std::size_t(static_cast<const char *>(newline) - rest_.data());
            piece.tail += part;
            rest_.remove_prefix(part);
            if (newline == nullptr)
                continue;
            piece.bytes.push_back('\n');
            rest_.remove_prefix(1);
            break;
        }
        // Take what the piece still wants, then on to the end of that line.
        const std::size_t wanted = piece.bytes.size() < size_ ? size_ - piece.bytes.size() : 1;
        const std::size_t from = std::min(wanted, rest_.size()) - 1;
        const void *newline = std::memchr(rest_.data() + from, '\n', rest_.size() - from);
        const std::size_t take =
            newline == nullptr ? rest_.size() : std::size_t(static_cast<const char *>(newline) - rest_.data()) + 1;
        piece.bytes.append(rest_.data(), take);
        rest_.remove_prefix(take);
        if (newline != nullptr)
            break;
        // Only the piece's last line can pass maxLineBytes, and only once the
        // piece is that much beyond its size.
        if (piece.bytes.size() > size_ + LineReader::maxLineBytes) {
            const std::size_t end = piece.bytes.rfind('\n');
            piece.cut = (end == std::string::npos ? 0 : end + 1) + LineReader::maxLineBytes + 1;
            if (piece.bytes.size() > piece.cut) {
                piece.tail = piece.bytes.size() - piece.cut;
                piece.bytes.resize(piece.cut);
                dropping = true;
            }
        }
    }
    if (piece.tail == 0)
        piece.cut = piece.bytes.size();
    lines_ += countNewlines(piece.bytes);
    return !piece.bytes.empty();
}

PieceScan::PieceScan(const Selection &selection, bool strict, bool convert)
    : scan_(std::make_unique<LogScan>(selection, strict))
{
    scan_->setConvert(convert);
}

PieceScan::~PieceScan() = default;

LogScan &PieceScan::open(const Piece &piece, const std::string &name, PieceOutput &output)
{
    messages_ = scan_->messages();
    leftOut_ = scan_->leftOut();
    rejects_ = scan_->rejects().count();
    // The piece's bytes with its tail standing at the cut, as bytes a reader
    // skips anyway (no newline).
    unsigned long long offset = 0;
    scan_->input().open(
        [&piece, offset](char *data, std::size_t size) mutable {
            std::size_t n = 0;
            if (offset < piece.cut) {
                n = std::min<std::size_t>(size, piece.cut - offset);
                std::memcpy(data, piece.bytes.data() + offset, n);
            } else if (offset < piece.cut + piece.tail) {
                n = std::size_t(std::min<unsigned long long>(size, piece.cut + piece.tail - offset));
                std::memset(data, 'x', n);
            } else {
                const std::size_t at = std::size_t(offset - piece.tail);
                n = std::min(size, piece.bytes.size() - at);
                std::memcpy(data, piece.bytes.data() + at, n);
            }
            offset += n;
            return long(n);
        },
        name, true);
    scan_->input().startAtLine(piece.firstLine);
    scan_->rejects().setSink([&output](const Rejected &rejected) { output.rejects.push_back({output.text.size(), rejected}); });
    return *scan_;
}

long long PieceScan::messages() const { return scan_->messages() - messages_; }
long long PieceScan::leftOut() const { return scan_->leftOut() - leftOut_; }
// A strict scan ends at its first rejected line; the run ends with that piece.
bool PieceScan::stopped() const { return scan_->strict() && scan_->rejects().count() > rejects_; }

} // namespace vorlink
