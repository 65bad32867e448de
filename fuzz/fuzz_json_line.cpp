// Any bytes as one JSON line of `vorlink decode --format json`, through the
// tool's reader. What it accepts must be a message the library converts, with
// the header the line gave.

#include "LineFuzz.h"

#include "ZelkoMsgDefs.pb.h"
#include "ZelkoMsgProtoUtils.h"

#include <QDateTime>

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
    if (!fuzz::readFirstLine(data, size, vorlink::parseJsonLine, line, entry))
        return 0;

    // Only ids of the dictionary are accepted, and the payload is a whole
    // record: the conversion cannot fail.
    const unsigned id = entry.msgId;
    FUZZ_EXPECT(!zelko::msgIdToProtoName(entry.msgId).empty(), id);
    QByteArray out;
    const QDateTime when = QDateTime::fromMSecsSinceEpoch(entry.msecs, Qt::UTC);
    FUZZ_EXPECT(zelko::canMessageToProtobufByteArray(when, fuzz::canMessageOf(entry), out), id);
    zelko::messages::Envelope envelope;
    FUZZ_EXPECT(envelope.ParseFromArray(out.constData(), out.size()), id);
    FUZZ_EXPECT(envelope.header().msgid() == id, id);
    FUZZ_EXPECT(envelope.header().sequence() == qint16(entry.sequence), id);

    // Reading the same line twice gives the same message.
    vorlink::BusLogEntry again;
    FUZZ_EXPECT(vorlink::parseJsonLine(line, again).isMessage(), id);
    FUZZ_EXPECT(again.msecs == entry.msecs && again.sequence == entry.sequence && again.msgId == entry.msgId
                    && again.payload == entry.payload,
                id);
    return 0;
}
