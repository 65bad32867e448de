// Any id, sequence, time and payload through canMessageToProtobufByteArray,
// and the same payload through the chosen row's record.
//
// Input: id (2 bytes LE), sequence (2 bytes LE), milliseconds since the epoch
// (8 bytes LE, signed), then the payload.

#include "FuzzCommon.h"

#include "ZelkoMsgDefs.pb.h"
#include "ZelkoMsgProtoUtils.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <QDateTime>

#include <memory>

namespace {

// The record side of a row: decode the payload into a pre-filled record and
// check what it holds afterwards; re-serialize protobuf bytes of this row.
template <class Record>
struct RowOps
{
    static void run(const QByteArray &payload, int wireSize, const QDateTime &when, short sequence,
                    unsigned short id, const QByteArray &converted)
    {
        Record record;
        record.fromQByteArray(fuzz::prefillPattern());
        QByteArray before;
        record.toQByteArray(before);

        const bool decoded = record.fromQByteArray(payload);
        FUZZ_EXPECT(decoded == (payload.size() >= wireSize), id);
        QByteArray after;
        record.toQByteArray(after);
        FUZZ_EXPECT(after.size() == wireSize, id);
        if (decoded) {
            // Wire bytes back exactly, left-overs dropped.
            FUZZ_EXPECT(after == payload.left(wireSize), id);
        } else {
            // Fields that fit were read, the one that did not and all behind
            // it kept their values: one field boundary b, less than a field's
            // width before the end of the payload, splits the two.
            bool split = false;
            for (int b = payload.size(); b >= 0 && b > payload.size() - 4 && !split; --b)
                split = after.left(b) == payload.left(b) && after.mid(b) == before.mid(b);
            FUZZ_EXPECT(split, id);
        }
        record.dump();

        if (!converted.isEmpty()) {
            // The converted bytes, read back into this row's record and
            // written again under the same header, come out the same.
            Record back;
            FUZZ_EXPECT(zelko::deserializeProto(converted, back), id);
            QByteArray again;
            FUZZ_EXPECT(zelko::serializeProto(back, when, sequence, id, again), id);
            FUZZ_EXPECT(again == converted, id);
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::silenceLog();
    fuzz::rowIndexById<RowOps>();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Reader in(data, size);
    Bytra::Can::Message message;
    message.msgId = in.take<quint16>();
    message.sequence = in.take<quint16>();
    const qint64 ms = in.take<qint64>();
    message.payload = in.rest();
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
    const unsigned short id = message.msgId;

    QByteArray out("bytes from an earlier call");
    const bool ok = zelko::canMessageToProtobufByteArray(when, message, out);

    const int row = fuzz::rowIndexById<RowOps>()[id];
    const std::string &protoName = zelko::msgIdToProtoName(id);
    if (row < 0) {
        FUZZ_EXPECT(!ok, id);
        FUZZ_EXPECT(out.isEmpty(), id);
        FUZZ_EXPECT(protoName.empty(), id);
        return 0;
    }

    const auto &entry = fuzz::rowTable<RowOps>()[std::size_t(row)];
    FUZZ_EXPECT(!protoName.empty(), id);
    FUZZ_EXPECT(ok == (message.payload.size() >= entry.wireSize), id);
    if (!ok) {
        FUZZ_EXPECT(out.isEmpty(), id);
    } else {
        // Any schema message reads as an Envelope, with the header it was
        // given.
        zelko::messages::Envelope envelope;
        FUZZ_EXPECT(envelope.ParseFromArray(out.constData(), out.size()), id);
        FUZZ_EXPECT(envelope.has_header(), id);
        const zelko::messages::Header &header = envelope.header();
        FUZZ_EXPECT(header.msgid() == id, id);
        FUZZ_EXPECT(header.sequence() == qint16(message.sequence), id);
        const qint64 stamped = when.toMSecsSinceEpoch();
        FUZZ_EXPECT(header.has_timestamp(), id);
        FUZZ_EXPECT(header.timestamp().seconds() == stamped / 1000, id);
        FUZZ_EXPECT(header.timestamp().nanos() == int(stamped % 1000) * 1000000, id);

        // The bytes are the schema message msgIdToProtoName names for this id:
        // they parse as that type with nothing left unknown.
        const google::protobuf::Descriptor *descriptor =
            google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(protoName);
        FUZZ_EXPECT(descriptor != nullptr, id);
        std::unique_ptr<google::protobuf::Message> typed(
            google::protobuf::MessageFactory::generated_factory()->GetPrototype(descriptor)->New());
        FUZZ_EXPECT(typed->ParseFromArray(out.constData(), out.size()), id);
        FUZZ_EXPECT(typed->GetReflection()->GetUnknownFields(*typed).empty(), id);
    }
    entry.run(message.payload, entry.wireSize, when, short(message.sequence), id, ok ? out : QByteArray());
    return 0;
}
