// Any bytes through deserializeProto of the row chosen by the input: a failed
// parse leaves the record as it was; a record once through the bridge is what
// the schema holds, and its wire bytes convert and come back unchanged.
//
// Input: row selector (2 bytes LE, taken modulo the number of rows), then the
// bytes offered as a serialized schema message.

#include "FuzzCommon.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    rows::all();
    return fuzz::silenceLog();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const rows::Row &row = rows::all()[fuzz::take(data, size, 0, 2) % rows::all().size()];
    QByteArray kept, wire;
    row.decode(rows::before(), rows::before(), kept, false);
    const bool parsed = row.fromProto(rows::before(), fuzz::rest(data, size, 2), wire, true);
    FUZZ_EXPECT(wire.size() == row.wireSize, row.id);
    if (!parsed) {
        FUZZ_EXPECT(wire == kept, row.id);
        return 0;
    }
    static const QDateTime when = QDateTime::fromMSecsSinceEpoch(1700000000123LL, Qt::UTC);
    const Bytra::Can::Message message{quint16(-2), row.id, wire};
    QByteArray out("bytes from an earlier call"), back;
    const bool ok = zelko::canMessageToProtobufByteArray(when, message, out);
    FUZZ_EXPECT(ok, row.id);
    FUZZ_CHECK(rows::checkConversion(message, when, ok, out), row.id);
    FUZZ_EXPECT(row.fromProto(rows::before(), out, back, false) && back == wire, row.id);
    return 0;
}
