// Converts a few bus messages the way a host would, and prints what it gets:
// the record's dump line and the protobuf bytes with their Header.
#include "ZelkoMsgDefs.pb.h"
#include "ZelkoMsgProtoUtils.h"

#include <QDateTime>

#include <cstdio>

int main()
{
    const QDateTime seen = QDateTime::fromMSecsSinceEpoch(1700000000123LL, Qt::UTC);
    const struct {
        quint16 msgId;
        const char *hexPayload;
    } received[] = {
        {zelko::MSG_ID_ALARM_STATUS_DATA, "02000000010000003c0000000500"},
        {zelko::MSG_ID_TD_VERSION_RESPONSE, "0102032c010a0b0c0d2a000000"},
        {zelko::MSG_ID_FP_SET_TEST_CONFIGURATION, "0100000005000000"},
        {zelko::MSG_ID_TD_EVENT, "090000000100000002000000"
         "2a00000003000000"},
        {0x0001, ""},
    };
    quint16 sequence = 0;
    for (const auto &r : received) {
        Bytra::Can::Message message;
        message.msgId = r.msgId;
        message.sequence = sequence++;
        message.payload = QByteArray::fromHex(r.hexPayload);
        QByteArray proto;
        const bool ok = zelko::canMessageToProtobufByteArray(seen, message, proto);
        std::printf("%s (%s): %s\n", qPrintable(zelko::msgIdString(zelko::MsgId(r.msgId))),
                    zelko::msgIdToProtoName(r.msgId).c_str(), ok ? proto.toHex(' ').constData() : "not converted");
    }
    return 0;
}
