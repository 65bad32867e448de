// Converts one alarm status message with the installed library and prints the
// schema message bytes, the record's wire bytes, the message's names and size,
// and the version of the headers it was compiled against.
#include "ZelkoMsgDefs.h"
#include "ZelkoMsgProtoUtils.h"

#include <QDateTime>

#include <cstdio>

int main()
{
    Bytra::Can::Message message;
    message.sequence = 7;
    message.msgId = zelko::MSG_ID_ALARM_STATUS_DATA;
    message.payload = QByteArray::fromHex("02000000010000003c0000000500");
    QByteArray proto;
    const QDateTime seen = QDateTime::fromMSecsSinceEpoch(1700000000123LL, Qt::UTC);
    if (!zelko::canMessageToProtobufByteArray(seen, message, proto))
        return 1;
    zelko::AlarmStatusDataPayload record;
    if (!zelko::deserializeProto(proto, record))
        return 1;
    QByteArray wire;
    record.toQByteArray(wire);
    static_assert(VORLINK_VERSION == VORLINK_VERSION_CHECK(VORLINK_VERSION_MAJOR, VORLINK_VERSION_MINOR,
                                                           VORLINK_VERSION_PATCH),
                  "the version number and its parts");
    std::printf("%s %s %s %d %d.%d.%d %s %06x\n", proto.toHex().constData(), wire.toHex().constData(),
                zelko::msgIdToProtoName(message.msgId).c_str(),
                int(zelko::payloadSize.value(zelko::MSG_ID_ALARM_STATUS_DATA)), VORLINK_VERSION_MAJOR,
                VORLINK_VERSION_MINOR, VORLINK_VERSION_PATCH, VORLINK_VERSION_STRING, unsigned(VORLINK_VERSION));
    return 0;
}
