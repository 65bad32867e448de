// Any bytes through deserializeProto of the row chosen by the input, then
// toQByteArray, dump and serializeProto of the record it gives.
//
// Input: row selector (2 bytes LE, taken modulo the number of rows), then the
// bytes offered as a serialized schema message.

#include "FuzzCommon.h"

#include "ZelkoMsgDefs.pb.h"
#include "ZelkoMsgProtoUtils.h"

#include <QDateTime>

namespace {

const QDateTime &stamp()
{
    static const QDateTime when = QDateTime::fromMSecsSinceEpoch(1700000000123LL, Qt::UTC);
    return when;
}

template <class Record>
struct RowOps
{
    static void run(const QByteArray &buffer, int wireSize, unsigned short id)
    {
        Record record;
        record.fromQByteArray(fuzz::prefillPattern());
        QByteArray before;
        record.toQByteArray(before);

        const bool parsed = zelko::deserializeProto(buffer, record);
        QByteArray wire;
        record.toQByteArray(wire);
        FUZZ_EXPECT(wire.size() == wireSize, id);
        if (!parsed) {
            // A failed parse leaves the record as it was.
            FUZZ_EXPECT(wire == before, id);
            return;
        }
        record.dump();

        QByteArray out("bytes from an earlier call");
        FUZZ_EXPECT(zelko::serializeProto(record, stamp(), short(-2), id, out), id);
        zelko::messages::Envelope envelope;
        FUZZ_EXPECT(envelope.ParseFromArray(out.constData(), out.size()), id);
        FUZZ_EXPECT(envelope.header().msgid() == id, id);
        FUZZ_EXPECT(envelope.header().sequence() == -2, id);

        // Once through the bridge, a record is what the schema can hold:
        // another trip changes nothing, and its wire bytes convert to the
        // same protobuf bytes.
        Record back;
        back.fromQByteArray(fuzz::prefillPattern());
        FUZZ_EXPECT(zelko::deserializeProto(out, back), id);
        QByteArray backWire;
        back.toQByteArray(backWire);
        FUZZ_EXPECT(backWire == wire, id);

        Bytra::Can::Message message;
        message.msgId = id;
        message.sequence = quint16(-2);
        message.payload = wire;
        QByteArray converted;
        FUZZ_EXPECT(zelko::canMessageToProtobufByteArray(stamp(), message, converted), id);
        FUZZ_EXPECT(converted == out, id);
    }
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::silenceLog();
    fuzz::rowTable<RowOps>();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz::Reader in(data, size);
    const auto &table = fuzz::rowTable<RowOps>();
    const auto &entry = table[in.take<quint16>() % table.size()];
    entry.run(in.rest(), entry.wireSize, entry.id);
    return 0;
}
