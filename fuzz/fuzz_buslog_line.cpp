// Any bytes as one line of a bus log, through the tool's reader. A line it
// takes as a message is written back out and read again to the same message,
// and converts as the tool converts it.

#include "FuzzCommon.h"

#include "BusLog.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return fuzz::silenceLog(); }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    vorlink::BusLogEntry entry, again;
    entry.payload = "bytes of an earlier line";
    const vorlink::LineResult result = vorlink::parseBusLogLine(fuzz::firstLine(data, size), entry);
    FUZZ_EXPECT((result.kind == vorlink::LineResult::Error) != result.reason.empty(), 0);
    if (!result.isMessage())
        return 0;
    const unsigned id = entry.msgId;
    FUZZ_EXPECT(entry.msecs >= 0 && entry.msecs <= vorlink::maxBusLogMsecs && entry.nanos >= 0 && entry.nanos < 1000000, id);
    std::string written;
    vorlink::appendBusLogLine(entry, written);
    FUZZ_EXPECT(vorlink::parseBusLogLine(written, again).isMessage(), id);
    FUZZ_EXPECT(again.msecs == entry.msecs && again.nanos == entry.nanos && again.sequence == entry.sequence &&
                    again.msgId == entry.msgId && again.payload == entry.payload, id);

    const Bytra::Can::Message message{entry.sequence, entry.msgId, entry.payload};
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(entry.msecs, Qt::UTC);
    QByteArray out;
    FUZZ_CHECK(rows::checkConversion(message, when, zelko::canMessageToProtobufByteArray(when, message, out), out), id);
    return 0;
}
