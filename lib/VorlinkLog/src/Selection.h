#pragma once

// Which lines of a log are looked at: messages by key, and a span of time.
// A line left out is neither converted nor counted as rejected.

#include "BusLog.h"

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
    // Adds the messages a key names (see resolveMessageKey).
    bool addMessage(const std::string &key, std::string &error);
    // Only messages at or after `from` and at or before `to`, to the
    // nanosecond; false when `from` is later than `to`.
    bool setSpan(LogTime from, LogTime to);

    // Narrows the selection further to these ids, for a command that only
    // needs some messages.
    void keepOnly(const std::bitset<65536> &ids)
    {
        ids_ = all_ ? ids : ids_ & ids;
        all_ = false;
    }

    bool wantsId(quint16 id) const { return all_ || ids_[id]; }
    bool wantsTime(const LogTime &time) const { return from_ <= time && time <= to_; }
    bool wants(const BusLogEntry &entry) const
    {
        return wantsId(entry.msgId) && wantsTime(LogTime{entry.msecs, entry.nanos});
    }

    // The rows --message named, in id order; empty when it was not given.
    std::vector<const RowInfo *> rows() const;

private:
    bool all_ = true;
    std::bitset<65536> ids_;
    LogTime from_{std::numeric_limits<qint64>::min(), 0};
    LogTime to_{std::numeric_limits<qint64>::max(), 0};
};

// The messages a key names, in id order: an id in hexadecimal (0x2600, or
// 2a00 with a letter in it) or decimal (9728); a MSG_ID_ enumerator, a
// message name, a schema name (zelko.messages.<Message>) or a record class
// name (<Message>Payload), any case; or a node prefix (Td, Dd, Fp, Ui) for
// every message whose name starts with that node's word, digits after it
// included (Td3WayValveSetStateRequest). A key that names nothing is false,
// with the reason and the three nearest names. The one reading of a message
// key for every command and for the Python module.
bool resolveMessageKey(const std::string &key, std::vector<const RowInfo *> &rows, std::string &error);

// Up to `count` of `candidates` that are nearest to `wanted` (case-insensitive
// edit distance), for "did you mean" in a misuse message.
std::string nearestNames(const std::string &wanted, const std::vector<std::string> &candidates, std::size_t count = 3);

} // namespace vorlink
