#pragma once

// Which lines of a log a command looks at: --message (repeatable) and
// --from/--to. A line left out is neither converted nor counted as rejected.

#include "BusLog.h"

#include <CLI/CLI.hpp>

#include <QtGlobal>

#include <bitset>
#include <limits>
#include <string>
#include <vector>

namespace vorlink {

struct RowInfo;

class Selection
{
public:
    void addOptions(CLI::App &command);
    // Reads what the options hold against the dictionary; on misuse, false
    // and the reason.
    bool resolve(std::string &error);

    // Narrows the selection further to these ids, for a command that only
    // needs some messages; call after resolve().
    void keepOnly(const std::bitset<65536> &ids)
    {
        ids_ = all_ ? ids : ids_ & ids;
        all_ = false;
    }

    bool wantsId(quint16 id) const { return all_ || ids_[id]; }
    bool wantsTime(qint64 msecs) const { return msecs >= from_ && msecs <= to_; }
    bool wants(const BusLogEntry &entry) const { return wantsId(entry.msgId) && wantsTime(entry.msecs); }

    // The rows --message named, in id order; empty when it was not given.
    std::vector<const RowInfo *> rows() const;

private:
    bool addMessage(const std::string &text, std::string &error);

    std::vector<std::string> messages_;
    std::string fromText_, toText_;
    bool all_ = true;
    std::bitset<65536> ids_;
    qint64 from_ = std::numeric_limits<qint64>::min();
    qint64 to_ = std::numeric_limits<qint64>::max();
};

// Up to `count` of `candidates` that are nearest to `wanted` (case-insensitive
// edit distance), for "did you mean" in a misuse message.
std::string nearestNames(const std::string &wanted, const std::vector<std::string> &candidates, std::size_t count = 3);

} // namespace vorlink
