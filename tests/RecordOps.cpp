#include "RecordOps.h"

#include "ZelkoMsgProtoUtils.h"
#include "ZelkoMsgRowList.h"

namespace testing_support {

namespace {

template <class Record>
bool decodeEncode(const QByteArray &payload, QByteArray &wire)
{
    Record record;
    const bool decoded = record.fromQByteArray(payload);
    record.toQByteArray(wire);
    return decoded;
}

template <class Record>
bool fromProto(const QByteArray &proto, QByteArray &wire)
{
    Record record;
    const bool parsed = zelko::deserializeProto(proto, record);
    record.toQByteArray(wire);
    return parsed;
}

template <class Record>
void decodeDump(const QByteArray &payload)
{
    Record record;
    record.fromQByteArray(payload);
    record.dump();
}

template <class Record, zelko::MsgId Id>
bool decodeSerialize(const QByteArray &payload, qint64 msecs, short sequence, QByteArray &proto)
{
    Record record;
    record.fromQByteArray(payload);
    return zelko::serializeProto(record, QDateTime::fromMSecsSinceEpoch(msecs), sequence, Id, proto);
}

// Takes the row list as a pointer type only: making a tuple of 474 types is
// far slower to compile than unpacking its parameter pack.
template <class... Rows>
std::vector<RecordOps> makeOps(std::tuple<Rows...> *)
{
    return {{Rows::id, &decodeEncode<typename Rows::Payload>, &fromProto<typename Rows::Payload>,
             &decodeDump<typename Rows::Payload>, &decodeSerialize<typename Rows::Payload, Rows::id>}...};
}

} // namespace

const std::vector<RecordOps> &allRecords()
{
    static const std::vector<RecordOps> ops = makeOps(static_cast<zelko::AllRows *>(nullptr));
    return ops;
}

const RecordOps *findRecordOps(uint16_t id)
{
    for (const RecordOps &ops : allRecords())
        if (ops.id == id)
            return &ops;
    return nullptr;
}

} // namespace testing_support
