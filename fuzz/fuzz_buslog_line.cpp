// Any bytes as one line of a bus log, through the tool's reader. A line it
// takes as a message is written back out and read again, and handed to the
// library the way the tool hands it on.

#include "FuzzCommon.h"

#include "BusLog.h"
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
    // The reader gets one line at a time, without its newline.
    std::string_view line(reinterpret_cast<const char *>(data), size);
    line = line.substr(0, line.find('\n'));

    vorlink::BusLogEntry entry;
    entry.payload = QByteArray("bytes of an earlier line");
    const vorlink::LineResult result = vorlink::parseBusLogLine(line, entry);
    FUZZ_EXPECT(result.kind == vorlink::LineResult::Error ? !result.reason.empty() : result.reason.empty(), 0);
    if (!result.isMessage())
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

    Bytra::Can::Message message;
    message.msgId = entry.msgId;
    message.sequence = entry.sequence;
    message.payload = entry.payload;
    QByteArray out;
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(entry.msecs, Qt::UTC);
    if (zelko::canMessageToProtobufByteArray(when, message, out)) {
        zelko::messages::Envelope envelope;
        FUZZ_EXPECT(envelope.ParseFromArray(out.constData(), out.size()), id);
        FUZZ_EXPECT(envelope.header().msgid() == id, id);
        FUZZ_EXPECT(envelope.header().timestamp().seconds() == entry.msecs / 1000, id);
    } else {
        FUZZ_EXPECT(out.isEmpty(), id);
    }
    return 0;
}
