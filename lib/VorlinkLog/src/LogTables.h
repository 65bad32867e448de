#pragma once

// A bus log read into columns: one table per message type, with each
// message's time and sequence and one column per wire field, each value in
// its field's own type and byte order, as the wire and the record hold it.
// Columns grow by a quarter at a time, so a table holds at most about 1.25
// times the bytes of its values.

#include "BusLog.h"

#include <QtGlobal>

#include <cstddef>
#include <memory>
#include <vector>

namespace vorlink {

class LogScan;
struct RowInfo;

// What a run over a log counts of one message type.
struct MessageTally
{
    long long count = 0;
    qint64 first = 0, last = 0;   // milliseconds since 1970
    qint32 firstNanos = 0, lastNanos = 0;   // and the nanoseconds past them
    long long bytes = 0;          // payload bytes in all
    long long unread = 0;         // messages with payload bytes behind their record

    void add(const BusLogEntry &entry, int wireSize)
    {
        if (count++ == 0) {
            first = entry.msecs;
            firstNanos = entry.nanos;
        }
        last = entry.msecs;
        lastNanos = entry.nanos;
        bytes += entry.payload.size();
        unread += entry.payload.size() > wireSize ? 1 : 0;
    }
    // Mean rate over the span between the first and the last message; none
    // for fewer than two messages or no span.
    bool rateHz(double &rate) const
    {
        if (count < 2 || last <= first)
            return false;
        rate = double(count - 1) * 1000.0 / double(last - first);
        return true;
    }
};

// Values of one width, packed.
class Column
{
public:
    explicit Column(int width) : width_(std::size_t(width)) {}
    Column(Column &&other) noexcept;
    Column &operator=(Column &&) = delete;
    Column(const Column &) = delete;
    ~Column();

    void append(const void *value);
    void append(const void *values, std::size_t count);
    const void *data() const { return data_; }
    std::size_t size() const { return size_; }      // values
    std::size_t width() const { return width_; }
    std::size_t capacityBytes() const { return capacity_ * width_; }

private:
    void grow(std::size_t atLeast);
    std::size_t width_;
    char *data_ = nullptr;
    std::size_t size_ = 0, capacity_ = 0;
};

struct LogTable
{
    explicit LogTable(const RowInfo &row);
    void add(const BusLogEntry &entry);

    const RowInfo *row;
    MessageTally tally;
    Column timeNs{8};      // nanoseconds since 1970, as a signed 64-bit number
    Column sequence{2};    // as the log writes it, 0 to 65535
    std::vector<Column> fields;   // the record's wire fields in wire order
    // For a message whose payload is longer than its record (the union
    // messages): the bytes behind the record, message after message, and
    // where each message's bytes end in them.
    bool keepsUnread = false;
    Column unreadEnd{8};
    Column unreadBytes{1};
};

// Every selected message of a scan, one table per message type in the order
// the types first appear. The scan's rejected lines stay in the scan.
class LogTables
{
public:
    LogTables();
    void read(LogScan &scan);

    // In ascending id.
    std::vector<const LogTable *> tables() const;
    const LogTable *find(quint16 id) const { return index_[id] < 0 ? nullptr : tables_[std::size_t(index_[id])].get(); }
    // Bytes the columns hold, and the bytes their buffers take.
    std::size_t valueBytes() const;
    std::size_t heldBytes() const;

private:
    std::vector<std::unique_ptr<LogTable>> tables_;
    std::vector<int> index_;
};

} // namespace vorlink
