// The protobuf bridge and the CAN message conversion: bytes worked out by
// hand, the Header, the bool and narrowing rules, the union rows, and every
// failure path with its log line.

#include "LogCapture.h"

#include "ZelkoMsgDefs.pb.h"
#include "ZelkoMsgProtoUtils.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using namespace testing_support;

namespace {

const qint64 kSeenMs = 1700000000123LL;
const char kCanary = char(0xA5);

Bytra::Can::Message canMessage(quint16 msgId, quint16 sequence, const QByteArray &payload)
{
    Bytra::Can::Message m;
    m.msgId = msgId;
    m.sequence = sequence;
    m.payload = payload;
    return m;
}

template <class Message>
Message parsed(const QByteArray &bytes)
{
    Message m;
    EXPECT_TRUE(m.ParseFromArray(bytes.constData(), bytes.size()));
    return m;
}

template <class Message>
QByteArray serialized(const Message &m)
{
    std::string s;
    EXPECT_TRUE(m.SerializeToString(&s));
    return QByteArray(s.data(), int(s.size()));
}

std::string unionWarning(const char *message, const char *direction)
{
    return std::string("WARNING: MsgId=") + message + " contains union/oneof field(s); protobuf " + direction +
           " is partial";
}

} // namespace

TEST(Conversion, AlarmStatusDataGivesTheWorkedBytes)
{
    LogCapture log;
    QByteArray out = "stale";
    const QByteArray payload = hex("02 00 00 00 01 00 00 00 3C 00 00 00 05 00");
    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs), canMessage(0x0100, 7, payload), out));
    EXPECT_EQ(spaced(out), "0A 12 0A 0B 08 80 E2 CF AA 06 10 C0 A9 D3 3A 10 07 18 80 02 10 02 18 01 20 3C 28 05");
    EXPECT_TRUE(log.lines().empty());

    // Left-over bytes change nothing.
    QByteArray longer;
    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs),
                                                     canMessage(0x0100, 7, payload + hex("01 02 03 04 05") + kCanary),
                                                     longer));
    EXPECT_EQ(longer, out);
}

// The bytes are written into `out`'s own buffer where it can take them: what
// it held before, a copy sharing it, or the payload itself must not show.
TEST(Conversion, OutputReplacesALongerOutLeavesItsCopiesAndMayBeThePayload)
{
    const QByteArray payload = hex("02 00 00 00 01 00 00 00 3C 00 00 00 05 00");
    QByteArray expected;
    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs), canMessage(0x0100, 7, payload), expected));

    QByteArray out(200, kCanary);
    const QByteArray copy = out;
    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs), canMessage(0x0100, 7, payload), out));
    EXPECT_EQ(out, expected);
    EXPECT_EQ(copy, QByteArray(200, kCanary));
    zelko::AlarmStatusDataPayload record;
    ASSERT_TRUE(record.fromQByteArray(payload));
    QByteArray serialized = copy;
    ASSERT_TRUE(zelko::serializeProto(record, atMs(kSeenMs), 7, 0x0100, serialized));
    EXPECT_EQ(serialized, expected);
    EXPECT_EQ(copy, QByteArray(200, kCanary));

    Bytra::Can::Message inPlace = canMessage(0x0100, 7, payload);
    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs), inPlace, inPlace.payload));
    EXPECT_EQ(inPlace.payload, expected);
}

TEST(Conversion, TdEventKeepsItsThreeFieldsAndWarns)
{
    LogCapture log;
    QByteArray out;
    const QByteArray payload = hex("09 00 00 00 01 00 00 00 02 00 00 00 2A 00 00 00 03 00 00 00");
    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs), canMessage(0x1700, 0xFFFF, payload), out));
    EXPECT_EQ(spaced(out), "0A 1B 0A 0B 08 80 E2 CF AA 06 10 C0 A9 D3 3A 10 FF FF FF FF FF FF FF FF FF 01 18 80 2E "
                           "10 09 18 01 40 02");
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{debugLine(unionWarning("TdEvent", "serialization"))}));
    const auto event = parsed<zelko::messages::TdEvent>(out);
    EXPECT_EQ(event.header().sequence(), -1);
    EXPECT_EQ(event.data1_case(), zelko::messages::TdEvent::DATA1_NOT_SET);
    EXPECT_EQ(event.data2_case(), zelko::messages::TdEvent::DATA2_NOT_SET);
}

TEST(Conversion, FailuresEmptyTheOutputAndSayWhy)
{
    LogCapture log;
    QByteArray out = "stale";
    EXPECT_FALSE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs), canMessage(0x0001, 1, hex("00")), out));
    EXPECT_TRUE(out.isNull());

    out = "stale";
    EXPECT_FALSE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs), canMessage(0x04A7, 1, QByteArray()), out));
    EXPECT_TRUE(out.isEmpty());

    // Every bit of the id counts: AlarmStatusData's id with another class byte is unknown.
    EXPECT_FALSE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs), canMessage(0x0101, 1, QByteArray(14, 0)), out));

    out = "stale";
    const QByteArray thirteen = hex("02 00 00 00 01 00 00 00 3C 00 00 00 05");
    EXPECT_FALSE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs), canMessage(0x0100, 1, thirteen), out));
    EXPECT_TRUE(out.isNull());

    EXPECT_FALSE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs), canMessage(0x0100, 1, QByteArray()), out));

    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{
                  debugLine("WARNING: MsgId=0x0001 not handled"),
                  debugLine("WARNING: MsgId=0x04a7 not handled"),
                  debugLine("WARNING: MsgId=0x0101 not handled"),
                  typesWarning("Not enough data from position 12 to the length of 2 to get data of type "
                               "'N5Bytra5Types3U16E' in buffer 02.00.00.00.01.00.00.00.3c.00.00.00.05 for value alarmsFlags"),
                  typesWarning("Not enough data from position 0 to the length of 4 to get data of type "
                               "'N5Bytra5Types3U32E' in buffer  for value alarmState"),
              }));
}

TEST(Conversion, MessagesWithoutFieldsTakeAnyPayloadAtBothEndsOfTheNumbering)
{
    LogCapture log;
    for (const quint16 id : {quint16(0x0000), quint16(0xFFFF), quint16(0xF2FF)}) {
        QByteArray out = "stale";
        ASSERT_TRUE(zelko::canMessageToProtobufByteArray(atMs(kSeenMs), canMessage(id, 3, hex("DE AD BE EF")), out))
            << id;
        const auto envelope = parsed<zelko::messages::Envelope>(out);
        EXPECT_EQ(envelope.header().msgid(), id);
        EXPECT_EQ(envelope.header().sequence(), 3);
        // Nothing but the header: tag, length, then the header itself.
        EXPECT_EQ(out.size(), 2 + int(envelope.header().ByteSizeLong()));
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(Bridge, HeaderOfUnusedAtTimeZeroIsPresentThoughEmpty)
{
    QByteArray out = "stale";
    ASSERT_TRUE(zelko::serializeProto(zelko::UnusedPayload(), atMs(0), 0, 0, out));
    EXPECT_EQ(spaced(out), "0A 02 0A 00");
}

TEST(Bridge, HeaderTimeBeforeTheEpochAndSequenceSignExtended)
{
    QByteArray out;
    ASSERT_TRUE(zelko::serializeProto(zelko::UnusedPayload(), atMs(-1500), short(-2), 0xFFFF, out));
    const auto header = parsed<zelko::messages::Unused>(out).header();
    EXPECT_EQ(header.timestamp().seconds(), -1);
    EXPECT_EQ(header.timestamp().nanos(), -500000000);
    EXPECT_EQ(header.sequence(), -2);
    EXPECT_EQ(header.msgid(), 0xFFFFu);

    // The caller's id goes into the Header unchecked.
    ASSERT_TRUE(zelko::serializeProto(zelko::AlarmStatusDataPayload(), atMs(kSeenMs), 1, 0x1234, out));
    EXPECT_EQ(parsed<zelko::messages::Envelope>(out).header().msgid(), 0x1234u);
}

TEST(Bridge, BoolFieldsCarryZeroOrNotZeroAndComeBackAsOne)
{
    zelko::FpSetTestConfigurationPayload set;
    set.reset.value = 5;
    set.config.value = 5;
    QByteArray five, one;
    ASSERT_TRUE(zelko::serializeProto(set, atMs(kSeenMs), 1, 0x2DB0, five));
    set.reset.value = 1;
    ASSERT_TRUE(zelko::serializeProto(set, atMs(kSeenMs), 1, 0x2DB0, one));
    EXPECT_EQ(five, one);
    EXPECT_TRUE(parsed<zelko::messages::FpSetTestConfiguration>(five).reset());

    zelko::FpSetTestConfigurationPayload back;
    back.reset.value = 77;
    ASSERT_TRUE(zelko::deserializeProto(five, back));
    EXPECT_EQ(back.reset.value, 1u);
    EXPECT_EQ(back.config.value, 5u);

    // Zero in every field leaves the header alone in the bytes.
    QByteArray zero;
    ASSERT_TRUE(zelko::serializeProto(zelko::TdSetTestConfigurationPayload(), atMs(kSeenMs), 1, 0x3A80, zero));
    EXPECT_EQ(zero.size(), 2 + int(parsed<zelko::messages::Envelope>(zero).header().ByteSizeLong()));
}

TEST(Bridge, SchemaValuesNarrowToTheWireWidth)
{
    zelko::messages::FwVersionsRequest fw;
    fw.set_major(300);
    fw.set_build(70000);
    fw.set_compatibility(0xFFFFFFFFu);
    zelko::FwVersionsRequestPayload version;
    ASSERT_TRUE(zelko::deserializeProto(serialized(fw), version));
    EXPECT_EQ(version.major.value, 44);
    EXPECT_EQ(version.build.value, 4464);
    EXPECT_EQ(version.compatibility.value, 0xFFFFFFFFu);

    zelko::messages::TdRotaryPinchValveSetPosRequest pinch;
    pinch.set_stepchange(70000);
    zelko::TdRotaryPinchValveSetPosRequestPayload p;
    ASSERT_TRUE(zelko::deserializeProto(serialized(pinch), p));
    EXPECT_EQ(p.stepChange.value, 4464);
    pinch.set_stepchange(-1);
    ASSERT_TRUE(zelko::deserializeProto(serialized(pinch), p));
    EXPECT_EQ(p.stepChange.value, -1);

    // Record to schema: zero- and sign-extended.
    p.stepChange.value = -2;
    QByteArray out;
    ASSERT_TRUE(zelko::serializeProto(p, atMs(0), 0, 0x1880, out));
    EXPECT_EQ(parsed<zelko::messages::TdRotaryPinchValveSetPosRequest>(out).stepchange(), -2);
    zelko::OffButtonPressRequestPayload off;
    off.userRequest.value = 255;
    ASSERT_TRUE(zelko::serializeProto(off, atMs(0), 0, 0x2300, out));
    EXPECT_EQ(parsed<zelko::messages::OffButtonPressRequest>(out).userrequest(), 255u);
}

TEST(Bridge, FloatBitsSurviveBothWays)
{
    const quint32 patterns[] = {0x7FC00001u, 0x7FA00000u, 0xFF800000u, 0x80000000u, 0x3DCCCCCDu};
    for (const quint32 bits : patterns) {
        zelko::TdAirPumpSetStateRequestPayload air;
        std::memcpy(&air.h12Power.value, &bits, 4);
        QByteArray out;
        ASSERT_TRUE(zelko::serializeProto(air, atMs(0), 0, 0x0880, out));
        zelko::TdAirPumpSetStateRequestPayload back;
        ASSERT_TRUE(zelko::deserializeProto(out, back));
        quint32 backBits;
        std::memcpy(&backBits, &back.h12Power.value, 4);
        EXPECT_EQ(backBits, bits);
    }
}

TEST(Bridge, ParseFailureLeavesTheRecordAndMissingFieldsBecomeZero)
{
    zelko::AlarmStatusDataPayload record;
    record.alarmState.value = 11;
    record.alarmsFlags.value = 12;
    EXPECT_FALSE(zelko::deserializeProto(hex("0A FF"), record));
    EXPECT_FALSE(zelko::deserializeProto(hex("FF FF FF FF FF FF FF FF FF FF FF"), record));
    EXPECT_EQ(record.alarmState.value, 11u);
    EXPECT_EQ(record.alarmsFlags.value, 12);

    zelko::messages::AlarmStatusData partial;
    partial.set_alarmtop(3);
    ASSERT_TRUE(zelko::deserializeProto(serialized(partial), record));
    EXPECT_EQ(record.alarmState.value, 0u);
    EXPECT_EQ(record.alarmTop.value, 3u);
    EXPECT_EQ(record.alarmsFlags.value, 0);

    record.alarmTop.value = 9;
    EXPECT_TRUE(zelko::deserializeProto(QByteArray(), record));
    EXPECT_EQ(record.alarmTop.value, 0u);
}

TEST(Bridge, UnionRowsDropTheOneofAndWarnOnEveryCall)
{
    LogCapture log;
    zelko::messages::TdEvent event;
    event.set_event(9);
    event.set_datatype1(1);
    event.set_data1_uint32(42);
    event.set_datatype2(2);
    event.set_data2_float(1.5f);
    zelko::TdEventPayload record;
    ASSERT_TRUE(zelko::deserializeProto(serialized(event), record));
    EXPECT_EQ(record.event.value, 9u);
    EXPECT_EQ(record.dataType1.value, 1u);
    EXPECT_EQ(record.dataType2.value, 2u);

    zelko::FpEventPayload fp;
    EXPECT_FALSE(zelko::deserializeProto(hex("0A FF"), fp));

    zelko::DdSafetyShutdownOverrideRequestPayload shutdown;
    shutdown.reset.value = 7;
    QByteArray out;
    ASSERT_TRUE(zelko::serializeProto(shutdown, atMs(0), 0, 0x42A0, out));
    const auto schema = parsed<zelko::messages::DdSafetyShutdownOverrideRequest>(out);
    EXPECT_TRUE(schema.reset());
    EXPECT_EQ(schema.data1_case(), zelko::messages::DdSafetyShutdownOverrideRequest::DATA1_NOT_SET);
    ASSERT_TRUE(zelko::deserializeProto(out, shutdown));
    EXPECT_EQ(shutdown.reset.value, 1u);

    zelko::TdSetTreatmentParameterPayload param;
    param.paramID.value = 4;
    ASSERT_TRUE(zelko::serializeProto(param, atMs(0), 0, 0x2F80, out));
    EXPECT_EQ(parsed<zelko::messages::TdSetTreatmentParameter>(out).paramid(), 4u);

    EXPECT_EQ(log.texts(), (std::vector<std::string>{
                               unionWarning("TdEvent", "deserialization"),
                               unionWarning("FpEvent", "deserialization"),
                               unionWarning("DdSafetyShutdownOverrideRequest", "serialization"),
                               unionWarning("DdSafetyShutdownOverrideRequest", "deserialization"),
                               unionWarning("TdSetTreatmentParameter", "serialization"),
                           }));
    for (const LogLine &line : log.lines())
        EXPECT_EQ(line.type, QtDebugMsg);
}

TEST(Identity, NamesOfKnownAndUnknownIds)
{
    EXPECT_EQ(zelko::msgIdString(zelko::MSG_ID_UNUSED), QStringLiteral("MSG_ID_UNUSED"));
    EXPECT_EQ(zelko::msgIdString(zelko::MsgId(0x0100)), QStringLiteral("MSG_ID_ALARM_STATUS_DATA"));
    EXPECT_EQ(zelko::msgIdString(zelko::MsgId(0xFFFF)), QStringLiteral("MSG_ID_ACK_MESSAGE_THAT_REQUIRES_ACK"));
    EXPECT_EQ(zelko::msgIdString(zelko::MsgId(0x0001)), QStringLiteral("0x0001"));
    EXPECT_EQ(zelko::msgIdString(zelko::MsgId(0xABCD)), QStringLiteral("0xabcd"));

    EXPECT_EQ(zelko::msgIdToProtoName(0), "zelko.messages.Unused");
    EXPECT_EQ(zelko::msgIdToProtoName(0xFFFF), "zelko.messages.AckMessageThatRequiresAck");
    EXPECT_EQ(zelko::msgIdToProtoName(0x0001), "");
    EXPECT_EQ(&zelko::msgIdToProtoName(0x1700), &zelko::msgIdToProtoName(0x1700));
    EXPECT_EQ(&zelko::msgIdToProtoName(0x0001), &zelko::msgIdToProtoName(0x0002));

    EXPECT_FALSE(zelko::payloadSize.contains(zelko::MsgId(0x0001)));
    EXPECT_EQ(zelko::payloadSize.value(zelko::MSG_ID_TD_EVENT), 20);
    EXPECT_EQ(zelko::payloadSize.value(zelko::MSG_ID_UNUSED), 0);
}
