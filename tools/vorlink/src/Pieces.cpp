#include "Pieces.h"

#include "LogScan.h"

#include <algorithm>
#include <cstring>

namespace vorlink {
namespace {

constexpr long long smallestSplit = 256 << 10;   // below this a second job gains nothing
constexpr std::size_t smallestPiece = 64 << 10;
constexpr std::size_t largestPiece = 1 << 20;

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
    piece.firstLine = lines_;
    for (;;) {
        if (rest_.empty() && !input_.nextChunk(rest_)) {
            rest_ = {};
            if (input_.stopped()) {
                // Only whole lines are converted once the input was stopped.
                const std::size_t end = piece.bytes.rfind('\n');
                piece.bytes.resize(end == std::string::npos ? 0 : end + 1);
            }
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
    }
    lines_ += std::count(piece.bytes.begin(), piece.bytes.end(), '\n');
    return !piece.bytes.empty();
}

void openPiece(LogScan &scan, const Piece &piece, const std::string &name, PieceOutput &output)
{
    std::size_t offset = 0;
    scan.open(
        [&piece, offset](char *data, std::size_t size) mutable {
            const std::size_t n = std::min(size, piece.bytes.size() - offset);
            std::memcpy(data, piece.bytes.data() + offset, n);
            offset += n;
            return long(n);
        },
        name);
    scan.input().startAtLine(piece.firstLine);
    scan.rejects().setSink([&output](const Rejected &rejected) { output.rejects.push_back({output.text.size(), rejected}); });
}

} // namespace vorlink
