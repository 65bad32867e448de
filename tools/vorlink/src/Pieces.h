#pragma once

// One log on several cores. The main thread reads a regular file in order and
// cuts it into pieces of whole lines; worker threads convert the pieces, each
// as one job would convert those lines; the main thread takes the results in
// input order, so that what it writes is byte for byte what one job writes.
// Each piece keeps the file's line numbers, so rejected lines are reported
// with their true numbers, and a strict run stops where one job would.

#include "LineReader.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vorlink {

class LogScan;
class Selection;

// Whole lines of the input (the input's last line may lack its newline).
// A line too long for any reader to hold is held only as far as a reader
// reads it before refusing it: the rest of it is `tail` bytes, counted and
// not kept, that stand at `cut` (the end of `bytes`, or before its newline).
struct Piece
{
    std::string bytes;
    long long firstLine = 0;   // lines of the input ahead of it
    std::size_t cut = 0;
    unsigned long long tail = 0;
};

// What a worker made of a piece: its output, and each rejected line with the
// length of the output ahead of it, so that both streams keep the input's order.
struct PieceOutput
{
    struct Reject
    {
        std::size_t at;
        Rejected rejected;
    };
    std::string text;
    std::vector<Reject> rejects;
    bool stopped = false;   // a strict scan stopped at its rejected line

    // Empty again, its memory kept for the next piece.
    void clear()
    {
        text.clear();
        rejects.clear();
        stopped = false;
    }
};

// The number of jobs a run of `jobs` over `input`, just opened, gets: 1 unless
// the input is a plain regular file named on the command line (not compressed:
// its first bytes are read to tell), not followed, and large enough for the threads to gain.
int jobsFor(LineReader &input, bool follow, int jobs);

// Cuts the input into pieces of about `size` bytes that end at a line's end,
// each at most `size` bytes and one line longer, that line held to
// LineReader::maxLineBytes and one byte more.
class PieceReader
{
public:
    PieceReader(LineReader &input, std::size_t size) : input_(input), size_(size) {}
    // The next piece; false at the end of the input, or when it was stopped
    // (a partial last line is then dropped, as one job drops it).
    bool next(Piece &piece);
    long long lines() const { return lines_; }

private:
    LineReader &input_;
    std::size_t size_;
    std::string_view rest_;   // read from the input, not yet in a piece
    long long lines_ = 0;
};

// The piece size for a run of `jobs` over `totalBytes`: enough pieces to keep
// every job busy to the end, none so large that a stop waits for it.
std::size_t pieceSize(long long totalBytes, int jobs);

// A worker's scan of its pieces, one after another: made once, so that its
// buffers are too.
class PieceScan
{
public:
    PieceScan(const Selection &selection, bool strict, bool convert);
    ~PieceScan();
    // The scan, open on the piece: numbered as in the input, its rejected
    // lines kept in `output` and not shown.
    LogScan &open(const Piece &piece, const std::string &name, PieceOutput &output);
    // What the scan made of the piece it was last opened on.
    long long messages() const;
    long long leftOut() const;
    bool stopped() const;

private:
    std::unique_ptr<LogScan> scan_;
    long long messages_ = 0, leftOut_ = 0, rejects_ = 0;   // the scan's counts before the piece
};

// Runs `convert` over every piece of `reader` on `jobs` threads, and `take`
// on the calling thread over their results in input order, with `progress`
// called after each piece is read. Stops early when `take` returns false.
// A taken result is cleared (Result::clear) and its slot used again, so that
// pieces and results are allocated once, not once a piece.
template <class Result>
void runPieces(PieceReader &reader, int jobs, const std::function<void(const Piece &, Result &)> &convert,
               const std::function<bool(Result &)> &take, const std::function<void()> &progress)
{
    struct Slot
    {
        Piece piece;
        Result result;
        bool done = false;
    };
    std::mutex mutex;
    std::condition_variable workReady, resultReady;
    std::deque<std::unique_ptr<Slot>> window;   // in input order; the front is the next to take
    std::vector<std::unique_ptr<Slot>> spare;   // taken, to be filled again
    std::size_t handedOut = 0;                  // slots of the window given to a worker
    bool over = false;

    auto work = [&] {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            workReady.wait(lock, [&] { return over || handedOut < window.size(); });
            if (over)
                return;
            Slot &slot = *window[handedOut++];
            lock.unlock();
            convert(slot.piece, slot.result);
            lock.lock();
            slot.done = true;
            resultReady.notify_all();
        }
    };
    std::vector<std::thread> threads;
    for (int k = 0; k < jobs; ++k)
        threads.emplace_back(work);

    bool more = true;
    for (;;) {
        while (more && window.size() < std::size_t(2 * jobs)) {
            std::unique_ptr<Slot> slot;
            if (spare.empty()) {
                slot = std::make_unique<Slot>();
            } else {
                slot = std::move(spare.back());
                spare.pop_back();
            }
            more = reader.next(slot->piece);
            if (!more)
                break;
            progress();
            std::lock_guard<std::mutex> lock(mutex);
            window.push_back(std::move(slot));
            workReady.notify_one();
        }
        std::unique_lock<std::mutex> lock(mutex);
        if (window.empty())
            break;
        resultReady.wait(lock, [&] { return window.front()->done; });
        std::unique_ptr<Slot> slot = std::move(window.front());
        window.pop_front();
        --handedOut;
        lock.unlock();
        if (!take(slot->result))
            break;
        slot->result.clear();
        slot->done = false;
        spare.push_back(std::move(slot));
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        over = true;
    }
    workReady.notify_all();
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace vorlink
