// Any bytes as one JSON line for `vorlink encode`. A line the reader takes is a
// message of the dictionary whose payload converts; the JSON that decode
// writes for that conversion reads back to the same message.

#include "FuzzCommon.h"

#include "JsonReader.h"
#include "Dictionary.h"
#include "JsonCodec.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) { return fuzz::silenceLog(); }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    vorlink::BusLogEntry entry, again;
    const vorlink::LineResult result = vorlink::parseJsonLine(fuzz::firstLine(data, size), entry);
    FUZZ_EXPECT((result.kind == vorlink::LineResult::Error) != result.reason.empty(), 0);
    if (!result.isMessage())
        return 0;
    const unsigned id = entry.msgId;
    const vorlink::RowInfo *row = vorlink::Dictionary::instance().find(entry.msgId);
    FUZZ_EXPECT(row != nullptr && entry.msecs >= 0 && entry.msecs <= vorlink::maxBusLogMsecs, id);
    FUZZ_EXPECT(entry.payload.size() == row->wireSize, id);

    const Bytra::Can::Message message{entry.sequence, entry.msgId, entry.payload};
    QByteArray proto;
    FUZZ_EXPECT(zelko::canMessageToProtobufByteArray(QDateTime::fromMSecsSinceEpoch(entry.msecs, Qt::UTC), message,
                                                     proto),
                id);
    std::string json, error;
    FUZZ_EXPECT(vorlink::appendJsonMessage(*row, proto.constData(), std::size_t(proto.size()), json, error), id);
    FUZZ_EXPECT(vorlink::parseJsonLine(json, again).isMessage(), id);
    FUZZ_EXPECT(again.msecs == entry.msecs && again.sequence == entry.sequence && again.msgId == entry.msgId &&
                    again.payload == entry.payload,
                id);
    return 0;
}
