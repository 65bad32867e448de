#pragma once

// The typed operations of every row's record, reached by the row's index in
// vorlink::wireRows (RowInfo::record holds the row's). A record is held in plain storage of its own size
// (recordStorage); its fields sit at the places recordOffset gives, which
// follow from the wire table and the wire types' sizes (checked against every
// record class when this is compiled).

#include "ZelkoMsgWireTable.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>

namespace vorlink {

struct RecordOps
{
    // A fresh record, all fields 0.
    void (*make)(void *record);
    // A fresh record (all fields 0) filled by fromQByteArray: its result.
    bool (*fromWire)(const QByteArray &payload, void *record);
    // toQByteArray: appends the record's wire bytes to `out`.
    void (*toWire)(const void *record, QByteArray &out);
    // dump: the record's line to the Qt logger.
    void (*dump)(const void *record);
    // A fresh record filled by deserializeProto: its result.
    bool (*fromProto)(const QByteArray &bytes, void *record);
};

constexpr std::size_t fieldTotal = sizeof wireFields / sizeof wireFields[0];

const RecordOps &recordOps(std::size_t row);
// Byte position of wireFields[field] inside its record.
std::size_t recordOffset(std::size_t field);

// Enough for any record of the dictionary, aligned for any wire value.
struct alignas(8) RecordStorage
{
    unsigned char bytes[256];
};

// The index in wireRows of the row with this id, or -1.
int rowOfId(std::uint16_t id);

} // namespace vorlink
