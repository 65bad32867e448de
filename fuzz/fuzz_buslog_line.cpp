// Any bytes as one line of a bus log, through the tool's reader. A line it
// takes as a message is written back out and read again, and handed to the
// library the way the tool hands it on.

#include "LineFuzz.h"

#include "ZelkoMsgDefs.pb.h"
#include "ZelkoMsgProtoUtils.h"

#include <QDateTime>

#include <string>
#include <string_view>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string_view line;
    vorlink::BusLogEntry entry;
    if (!fuzz::readFirstLine(data, size, vorlink::parseBusLogLine, line, entry))
        return 0;

    const unsigned id = entry.msgId;
    FUZZ_EXPECT(entry.msecs >= 0 && entry.msecs <= vorlink::maxBusLogMsecs, id);

    // Written back and read again, the line gives the same message.
    std::string written;
    vorlink::appendBusLogLine(entry, written);
    vorlink::BusLogEntry again;
    const vorlink::LineResult reread = vorlink::parseBusLogLine(written, again);
    FUZZ_EXPECT(reread.isMessage(), id);
    FUZZ_EXPECT(again.msecs == entry.msecs, id);
    FUZZ_EXPECT(again.sequence == entry.sequence, id);
    FUZZ_EXPECT(again.msgId == entry.msgId, id);
    FUZZ_EXPECT(again.payload == entry.payload, id);

    QByteArray out;
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(entry.msecs, Qt::UTC);
    if (zelko::canMessageToProtobufByteArray(when, fuzz::canMessageOf(entry), out)) {
        zelko::messages::Envelope envelope;
        FUZZ_EXPECT(envelope.ParseFromArray(out.constData(), out.size()), id);
        FUZZ_EXPECT(envelope.header().msgid() == id, id);
        FUZZ_EXPECT(envelope.header().timestamp().seconds() == entry.msecs / 1000, id);
    } else {
        FUZZ_EXPECT(out.isEmpty(), id);
    }
    return 0;
}
