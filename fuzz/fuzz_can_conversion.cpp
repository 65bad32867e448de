// Any id, sequence, time and payload through canMessageToProtobufByteArray and
// through the chosen row's record; what converts comes back unchanged.
//
// Input: id (2 bytes LE), sequence (2 bytes LE), milliseconds since the epoch
// (8 bytes LE, signed), then the payload.

#include "FuzzCommon.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    rows::all();
    return fuzz::silenceLog();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const Bytra::Can::Message message{quint16(fuzz::take(data, size, 2, 2)), quint16(fuzz::take(data, size, 0, 2)),
                                      fuzz::rest(data, size, 12)};
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(qint64(fuzz::take(data, size, 4, 8)), Qt::UTC);
    const unsigned id = message.msgId;

    QByteArray out("bytes from an earlier call");
    const bool ok = zelko::canMessageToProtobufByteArray(when, message, out);
    FUZZ_CHECK(rows::checkConversion(message, when, ok, out), id);
    const rows::Row *row = rows::find(id);
    if (row == nullptr)
        return 0;
    FUZZ_CHECK(rows::checkDecode(*row, message.payload), id);
    if (ok) {
        // The record read back from the bytes converts to the same bytes.
        QByteArray wire, again;
        FUZZ_EXPECT(row->fromProto(QByteArray(), out, wire, true), id);
        FUZZ_EXPECT(zelko::canMessageToProtobufByteArray(when, {message.sequence, message.msgId, wire}, again), id);
        FUZZ_EXPECT(again == out, id);
    }
    return 0;
}
