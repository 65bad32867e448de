// Converts one alarm status message with the installed library and prints the
// schema message bytes, the record's dump line and the message's names.
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
    std::printf("%s %s %s %d\n", proto.toHex().constData(), wire.toHex().constData(),
                zelko::msgIdToProtoName(message.msgId).c_str(),
                int(zelko::payloadSize.value(zelko::MSG_ID_ALARM_STATUS_DATA)));
    return 0;
}
