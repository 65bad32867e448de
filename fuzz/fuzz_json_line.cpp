// Any bytes as one JSON line of `vorlink decode --format json`, through the
// tool's reader. What it accepts is a message of the dictionary that converts,
// with the header the line gave, and reads the same a second time.

#include "FuzzCommon.h"

#include "BusLog.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return fuzz::silenceLog(); }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view line = fuzz::firstLine(data, size);
    vorlink::BusLogEntry entry, again;
    const vorlink::LineResult result = vorlink::parseJsonLine(line, entry);
    FUZZ_EXPECT((result.kind == vorlink::LineResult::Error) != result.reason.empty(), 0);
    if (!result.isMessage())
        return 0;
    const unsigned id = entry.msgId;
    const Bytra::Can::Message message{entry.sequence, entry.msgId, entry.payload};
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(entry.msecs, Qt::UTC);
    QByteArray out;
    const bool ok = zelko::canMessageToProtobufByteArray(when, message, out);
    FUZZ_EXPECT(ok, id);
    FUZZ_CHECK(rows::checkConversion(message, when, ok, out), id);
    FUZZ_EXPECT(vorlink::parseJsonLine(line, again).isMessage(), id);
    FUZZ_EXPECT(again.msecs == entry.msecs && again.sequence == entry.sequence && again.msgId == entry.msgId &&
                    again.payload == entry.payload, id);
    return 0;
}
