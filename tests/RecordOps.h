#pragma once

// Every record class of the dictionary behind plain function pointers, so that
// tests can range over all rows, or pick one by id, with their bodies compiled once.

#include <QByteArray>

#include <cstdint>
#include <vector>

namespace testing_support {

struct RecordOps
{
    uint16_t id;
    // fromQByteArray, then toQByteArray of the record into `wire`.
    bool (*decodeEncode)(const QByteArray &payload, QByteArray &wire);
    // deserializeProto, then toQByteArray of the record into `wire`.
    bool (*fromProto)(const QByteArray &proto, QByteArray &wire);
    // fromQByteArray, then dump.
    void (*decodeDump)(const QByteArray &payload);
    // fromQByteArray, then serializeProto with the row's id.
    bool (*decodeSerialize)(const QByteArray &payload, qint64 msecs, short sequence, QByteArray &proto);
};

const std::vector<RecordOps> &allRecords();
const RecordOps *findRecordOps(uint16_t id);

} // namespace testing_support
