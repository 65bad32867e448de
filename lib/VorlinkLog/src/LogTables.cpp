#include "LogTables.h"
#include "Dictionary.h"
#include "LogScan.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace vorlink {

Column::Column(Column &&other) noexcept
    : width_(other.width_), data_(other.data_), size_(other.size_), capacity_(other.capacity_)
{
    other.data_ = nullptr;
    other.size_ = other.capacity_ = 0;
}

Column::~Column() { std::free(data_); }

// realloc moves a large block by remapping its pages, not by copying them.
void Column::grow(std::size_t atLeast)
{
    const std::size_t capacity = std::max<std::size_t>({64, capacity_ + capacity_ / 4, atLeast});
    void *data = std::realloc(data_, capacity * width_);
    if (data == nullptr)
        throw std::bad_alloc();
    data_ = static_cast<char *>(data);
    capacity_ = capacity;
}

void Column::append(const void *value)
{
    if (size_ == capacity_)
        grow(size_ + 1);
    std::memcpy(data_ + size_ * width_, value, width_);
    ++size_;
}

void Column::append(const void *values, std::size_t count)
{
    if (size_ + count > capacity_)
        grow(size_ + count);
    if (count > 0)
        std::memcpy(data_ + size_ * width_, values, count * width_);
    size_ += count;
}

LogTable::LogTable(const RowInfo &row) : row(&row), keepsUnread(row.payloadSize > row.wireSize)
{
    for (const WireField &field : row.fields)
        if (field.position >= 0)
            fields.emplace_back(field.width);
}

void LogTable::add(const BusLogEntry &entry)
{
    tally.add(entry, row->wireSize);
    const qint64 ns = entry.msecs * 1000000 + entry.nanos;
    timeNs.append(&ns);
    sequence.append(&entry.sequence);
    const char *payload = entry.payload.constData();
    std::size_t k = 0;
    for (Column &column : fields)
        column.append(payload + row->fields[k++].position);
    if (keepsUnread) {
        unreadBytes.append(payload + row->wireSize, std::size_t(entry.payload.size() - row->wireSize));
        const qint64 end = qint64(unreadBytes.size());
        unreadEnd.append(&end);
    }
}

LogTables::LogTables() : index_(65536, -1) {}

void LogTables::read(LogScan &scan)
{
    scan.setConvert(false);
    while (scan.next()) {
        const BusLogEntry &entry = scan.entry();
        int &i = index_[entry.msgId];
        if (i < 0) {
            i = int(tables_.size());
            tables_.push_back(std::make_unique<LogTable>(scan.row()));
        }
        tables_[std::size_t(i)]->add(entry);
    }
}

std::vector<const LogTable *> LogTables::tables() const
{
    std::vector<const LogTable *> sorted;
    for (const auto &table : tables_)
        sorted.push_back(table.get());
    std::sort(sorted.begin(), sorted.end(), [](const LogTable *a, const LogTable *b) { return a->row->id < b->row->id; });
    return sorted;
}

std::size_t LogTables::valueBytes() const
{
    std::size_t bytes = 0;
    for (const auto &table : tables_) {
        bytes += table->timeNs.size() * 8 + table->sequence.size() * 2 + table->unreadEnd.size() * 8 +
                 table->unreadBytes.size();
        for (const Column &column : table->fields)
            bytes += column.size() * column.width();
    }
    return bytes;
}

std::size_t LogTables::heldBytes() const
{
    std::size_t bytes = 0;
    for (const auto &table : tables_) {
        bytes += table->timeNs.capacityBytes() + table->sequence.capacityBytes() +
                 table->unreadEnd.capacityBytes() + table->unreadBytes.capacityBytes();
        for (const Column &column : table->fields)
            bytes += column.capacityBytes();
    }
    return bytes;
}

} // namespace vorlink
