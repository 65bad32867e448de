#pragma once

// Every row of the dictionary behind plain function pointers, and the checks
// that hold for any input to a row: shared by the unit tests, the concurrency
// test and the fuzz targets. A check returns what is wrong, or "" when right.

#include "ZelkoMsgDefs.pb.h"
#include "ZelkoMsgProtoUtils.h"
#include "ZelkoMsgRowList.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <QByteArray>
#include <QDateTime>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace rows {

struct Row
{
    quint16 id;
    int wireSize; // bytes the record reads and writes
    // fromQByteArray(payload) into a record first filled from `before`; its
    // toQByteArray appended to `wire`; dump() when asked.
    bool (*decode)(const QByteArray &before, const QByteArray &payload, QByteArray &wire, bool dump);
    // The same with deserializeProto(proto).
    bool (*fromProto)(const QByteArray &before, const QByteArray &proto, QByteArray &wire, bool dump);
};

template <class R, bool Proto>
bool apply(const QByteArray &before, const QByteArray &input, QByteArray &wire, bool dump)
{
    R record;
    if (!before.isEmpty())
        record.fromQByteArray(before);
    bool ok;
    if constexpr (Proto)
        ok = zelko::deserializeProto(input, record);
    else
        ok = record.fromQByteArray(input);
    record.toQByteArray(wire);
    if (dump)
        record.dump();
    return ok;
}

template <class R>
int wireSize()
{
    QByteArray wire;
    R().toQByteArray(wire);
    return wire.size();
}

template <class... Rs>
std::vector<Row> make(std::tuple<Rs...> *)
{
    return {{quint16(Rs::id), wireSize<typename Rs::Payload>(), &apply<typename Rs::Payload, false>,
             &apply<typename Rs::Payload, true>}...};
}

// A template so that only the programs that use the rows instantiate them.
template <class All = zelko::AllRows>
const std::vector<Row> &all()
{
    static const std::vector<Row> table = make(static_cast<All *>(nullptr));
    return table;
}

template <class All = zelko::AllRows>
const Row *find(unsigned id)
{
    for (const Row &row : all<All>())
        if (row.id == id)
            return &row;
    return nullptr;
}

// Bytes to fill a record with first, so that "kept" and "cleared" differ.
inline QByteArray before()
{
    QByteArray bytes(512, 0);
    for (int k = 0; k < bytes.size(); ++k)
        bytes[k] = char(0xA5 ^ (k * 13));
    return bytes;
}

// A decode of `payload` into a filled record: true with the record's bytes
// when the payload holds it, whatever follows; else false, the fields that
// fit read and the one that did not and all behind it kept.
inline std::string checkDecode(const Row &row, const QByteArray &payload)
{
    QByteArray kept, wire;
    row.decode(before(), before(), kept, false);
    const bool ok = row.decode(before(), payload, wire, false);
    if (ok != (payload.size() >= row.wireSize))
        return ok ? "decoded a short payload" : "refused a payload that holds the record";
    if (ok)
        return wire == payload.left(row.wireSize) ? "" : "bytes differ after a decode";
    for (int b = payload.size(); b >= 0 && b > payload.size() - 4; --b)
        if (wire.left(b) == payload.left(b) && wire.mid(b) == kept.mid(b))
            return "";
    return "a failed decode did not keep the fields from the one that failed";
}

inline std::unique_ptr<google::protobuf::Message> parseAs(const std::string &type, const QByteArray &bytes)
{
    const auto *descriptor = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(type);
    if (descriptor == nullptr)
        return nullptr;
    std::unique_ptr<google::protobuf::Message> m(
        google::protobuf::MessageFactory::generated_factory()->GetPrototype(descriptor)->New());
    return m->ParseFromArray(bytes.constData(), bytes.size()) ? std::move(m) : nullptr;
}

// canMessageToProtobufByteArray of any message: true exactly when the id has a
// row and the payload holds its record, and then the schema message of the
// id, nothing unknown in it, with the Header of the call; else `out` empty.
inline std::string checkConversion(const Bytra::Can::Message &message, const QDateTime &when, bool ok,
                                   const QByteArray &out)
{
    const Row *row = find(message.msgId);
    const std::string &name = zelko::msgIdToProtoName(message.msgId);
    if (row == nullptr || !ok) {
        if (ok || !out.isEmpty())
            return "unknown id converted or out not emptied";
        return (row == nullptr) == name.empty() && (row == nullptr || message.payload.size() < row->wireSize)
                   ? "" : "refused a message that converts";
    }
    if (message.payload.size() < row->wireSize)
        return "converted a short payload";
    zelko::messages::Envelope envelope;
    const auto typed = parseAs(name, out);
    if (!envelope.ParseFromArray(out.constData(), out.size()) || typed == nullptr ||
        !typed->GetReflection()->GetUnknownFields(*typed).empty())
        return "out is not the id's schema message";
    const qint64 ms = when.toMSecsSinceEpoch();
    const auto &header = envelope.header();
    return header.msgid() == message.msgId && header.sequence() == qint16(message.sequence) &&
                   header.has_timestamp() && header.timestamp().seconds() == ms / 1000 &&
                   header.timestamp().nanos() == int(ms % 1000) * 1000000
               ? "" : "wrong Header";
}

} // namespace rows
