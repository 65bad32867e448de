// The core at full grain: getValue's bounds and warning, a record's decode,
// encode and dump, the conversion and the bridge with their Header, bool and
// narrowing rules, union rows and failure paths, and the identity tables;
// against bytes and log lines worked out by hand.

#include "Support.h"

#include <QLoggingCategory>

#include <gtest/gtest.h>


using namespace Bytra::Types;
using Lines = std::vector<LogLine>;

namespace {

const char kCanary = char(0xA5);
const QByteArray kAlarm = hex("02000000 01000000 3C000000 0500");
const QDateTime kSeen = QDateTime::fromMSecsSinceEpoch(1700000000123LL, Qt::UTC);

std::string notEnough(int position, int width, const char *type, const QByteArray &buffer, const char *name)
{
    return "Not enough data from position " + std::to_string(position) + " to the length of " + std::to_string(width) +
           " to get data of type 'N5Bytra5Types3" + type + "E' in buffer " + buffer.toHex('.').toStdString() +
           " for value " + name;
}

std::string partial(const char *message, const char *direction)
{
    return std::string("WARNING: MsgId=") + message + " contains union/oneof field(s); protobuf " + direction +
           " is partial";
}

template <class Record>
std::string wireOf(const Record &record)
{
    QByteArray out;
    record.toQByteArray(out);
    return spaced(out);
}

template <class Message>
Message parsed(const QByteArray &bytes)
{
    Message m;
    EXPECT_TRUE(m.ParseFromArray(bytes.constData(), bytes.size()));
    return m;
}

template <class Message>
QByteArray bytesOf(const Message &m) { return QByteArray::fromStdString(m.SerializeAsString()); }

} // namespace

TEST(GetValue, ReadsUpToTheLastByteAndNotPastIt)
{
    LogCapture log;
    int position = 12;
    U16 flags;
    EXPECT_TRUE(getValue(kAlarm, position, flags, QStringLiteral("alarmsFlags")));
    EXPECT_EQ(flags.value, 5);
    EXPECT_EQ(position, 14);
    U32 odd;
    EXPECT_TRUE(getValue(hex("FF 78563412"), position = 1, odd, QString()));
    EXPECT_EQ(odd.value, 0x12345678u);
    const QByteArray two = hex("0102");
    U08 byte;
    byte.value = 9;
    EXPECT_FALSE(getValue(two, position = 2, byte, QStringLiteral("userRequest")));
    EXPECT_EQ(position, 2);
    EXPECT_EQ(byte.value, 9);
    S32 far;
    EXPECT_FALSE(getValue(two, position = 7, far, QStringLiteral("rpm")));
    EXPECT_EQ(position, 7);
    F32 f;
    EXPECT_FALSE(getValue(QByteArray(), position = 0, f, QString()));
    QLoggingCategory::setFilterRules(QStringLiteral("bytra.types.warning=false"));
    EXPECT_FALSE(getValue(QByteArray(), position, f, QStringLiteral("x")));
    QLoggingCategory::setFilterRules(QString());
    EXPECT_EQ(log.lines, (Lines{typesWarning(notEnough(2, 1, "U08", two, "userRequest")),
                                typesWarning(notEnough(7, 4, "S32", two, "rpm")),
                                // No name and an empty buffer: both placeholders empty, their blanks kept.
                                typesWarning("Not enough data from position 0 to the length of 4 to get data of "
                                             "type 'N5Bytra5Types3F32E' in buffer  ")}));
}

TEST(Records, DecodeEncodeAndDumpAlarmStatusData)
{
    LogCapture log;
    zelko::AlarmStatusDataPayload record;
    ASSERT_TRUE(record.fromQByteArray(kAlarm + kCanary));
    EXPECT_EQ(record.silenceExpiresIn.value, 60u);
    EXPECT_EQ(wireOf(record), spaced(kAlarm));
    record.dump();
    // Too short: the fields before the gap are read, the rest keep their values.
    record.alarmsFlags.value = 0xBEEF;
    EXPECT_FALSE(record.fromQByteArray(hex("03000000 04000000 05000000 06")));
    EXPECT_EQ(wireOf(record), "03 00 00 00 04 00 00 00 05 00 00 00 EF BE");

    zelko::UnusedPayload unused;
    EXPECT_TRUE(unused.fromQByteArray(QByteArray()));
    EXPECT_TRUE(unused.fromQByteArray(hex("DEAD")));
    unused.dump();
    EXPECT_EQ(log.lines,
              (Lines{debugLine("AlarmStatusDataPayload: alarmState=2, alarmTop=1, silenceExpiresIn=60, alarmsFlags=5"),
                     typesWarning(notEnough(12, 2, "U16", hex("03000000 04000000 05000000 06"), "alarmsFlags")),
                     debugLine("UnusedPayload: <none>")}));
}

TEST(Conversion, WorkedMessagesGiveTheirBytes)
{
    LogCapture log;
    QByteArray out = "stale";
    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(kSeen, Bytra::Can::Message{7, 0x0100, kAlarm}, out));
    EXPECT_EQ(spaced(out), "0A 12 0A 0B 08 80 E2 CF AA 06 10 C0 A9 D3 3A 10 07 18 80 02 10 02 18 01 20 3C 28 05");
    QByteArray longer = "stale";
    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(kSeen, Bytra::Can::Message{7, 0x0100, kAlarm + hex("0102030405") + kCanary}, longer));
    EXPECT_EQ(longer, out);
    EXPECT_TRUE(log.lines.empty());

    // `out` is replaced, not written through: a copy sharing its bytes keeps
    // them, and `out` may be the message's own payload.
    QByteArray reused(200, kCanary);
    const QByteArray copy = reused;
    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(kSeen, Bytra::Can::Message{7, 0x0100, kAlarm}, reused));
    zelko::AlarmStatusDataPayload record;
    ASSERT_TRUE(record.fromQByteArray(kAlarm));
    QByteArray serialized = copy;
    ASSERT_TRUE(zelko::serializeProto(record, kSeen, 7, 0x0100, serialized));
    EXPECT_EQ(reused, out);
    EXPECT_EQ(serialized, out);
    EXPECT_EQ(copy, QByteArray(200, kCanary));
    Bytra::Can::Message inPlace{7, 0x0100, kAlarm};
    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(kSeen, inPlace, inPlace.payload));
    EXPECT_EQ(inPlace.payload, out);

    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(kSeen, Bytra::Can::Message{0xFFFF, 0x1700, hex("09000000 01000000 02000000 2A000000 03000000")}, out));
    EXPECT_EQ(spaced(out), "0A 1B 0A 0B 08 80 E2 CF AA 06 10 C0 A9 D3 3A 10 FF FF FF FF FF FF FF FF FF 01 18 80 2E "
                           "10 09 18 01 40 02");
    EXPECT_EQ(log.lines, (Lines{debugLine(partial("TdEvent", "serialization"))}));

    // Messages without fields take any payload, at both ends of the numbering.
    for (const quint16 id : {0x0000, 0xFFFF}) {
        ASSERT_TRUE(zelko::canMessageToProtobufByteArray(kSeen, Bytra::Can::Message{3, id, hex("DEADBEEF")}, out));
        EXPECT_EQ(out, hex(id ? "0A 13 0A 0B 08 80 E2 CF AA 06 10 C0 A9 D3 3A 10 03 18 FF FF 03"
                              : "0A 0F 0A 0B 08 80 E2 CF AA 06 10 C0 A9 D3 3A 10 03"));
    }
}

TEST(Conversion, FailuresEmptyTheOutputAndSayWhy)
{
    LogCapture log;
    const std::pair<quint16, QByteArray> cases[] = {
        {0x0001, hex("00")}, {0x04A7, QByteArray()}, {0x0101, QByteArray(14, 0)}, // every bit of the id counts
        {0x0100, kAlarm.left(13)}, {0x0100, QByteArray()}};
    for (const auto &c : cases) {
        QByteArray out = "stale";
        EXPECT_FALSE(zelko::canMessageToProtobufByteArray(kSeen, Bytra::Can::Message{1, c.first, c.second}, out));
        EXPECT_TRUE(out.isNull());
    }
    EXPECT_EQ(log.lines, (Lines{debugLine("WARNING: MsgId=0x0001 not handled"),
                                debugLine("WARNING: MsgId=0x04a7 not handled"),
                                debugLine("WARNING: MsgId=0x0101 not handled"),
                                typesWarning(notEnough(12, 2, "U16", kAlarm.left(13), "alarmsFlags")),
                                typesWarning(notEnough(0, 4, "U32", QByteArray(), "alarmState"))}));
}

TEST(Bridge, HeaderTimeSequenceAndId)
{
    QByteArray out = "stale";
    ASSERT_TRUE(zelko::serializeProto(zelko::UnusedPayload(), QDateTime::fromMSecsSinceEpoch(0), 0, 0, out));
    EXPECT_EQ(spaced(out), "0A 02 0A 00"); // the Header and its time are there though empty
    ASSERT_TRUE(zelko::serializeProto(zelko::UnusedPayload(), QDateTime::fromMSecsSinceEpoch(-1500), -2, 0xFFFF, out));
    const auto header = parsed<zelko::messages::Unused>(out).header();
    EXPECT_EQ(header.timestamp().seconds(), -1);
    EXPECT_EQ(header.timestamp().nanos(), -500000000);
    EXPECT_EQ(header.sequence(), -2);
    EXPECT_EQ(header.msgid(), 0xFFFFu);
}

TEST(Bridge, BoolAndNarrowingRules)
{
    zelko::FpSetTestConfigurationPayload set; // reset is a bool in the schema, config a uint32
    QByteArray one, out;
    set.reset.value = 1;
    ASSERT_TRUE(zelko::serializeProto(set, kSeen, 1, 0x2DB0, one));
    for (const quint32 v : {2u, 5u}) {
        set.reset.value = v;
        ASSERT_TRUE(zelko::serializeProto(set, kSeen, 1, 0x2DB0, out));
        EXPECT_EQ(out, one);
    }
    set.config.value = 77;
    ASSERT_TRUE(zelko::deserializeProto(one, set));
    EXPECT_EQ(wireOf(set), "01 00 00 00 00 00 00 00"); // a field missing from the bytes becomes 0

    zelko::messages::FwVersionsRequest fw;
    fw.set_major(300);
    fw.set_build(70000);
    zelko::FwVersionsRequestPayload version;
    ASSERT_TRUE(zelko::deserializeProto(bytesOf(fw), version));
    EXPECT_EQ(wireOf(version), "2C 00 00 70 11 00 00 00 00"); // 300 and 70000 keep their low bits
    zelko::messages::TdRotaryPinchValveSetPosRequest pinch;
    zelko::TdRotaryPinchValveSetPosRequestPayload p;
    for (const int v : {70000, -1}) {
        pinch.set_stepchange(v);
        ASSERT_TRUE(zelko::deserializeProto(bytesOf(pinch), p));
        EXPECT_EQ(p.stepChange.value, qint16(v));
    }
}

TEST(Bridge, UnionRowsDropTheOneofAndWarnOnEveryCall)
{
    LogCapture log;
    zelko::messages::TdEvent event;
    event.set_event(9);
    event.set_datatype1(1);
    event.set_data1_uint32(42);
    event.set_datatype2(2);
    zelko::TdEventPayload record;
    ASSERT_TRUE(zelko::deserializeProto(bytesOf(event), record));
    EXPECT_EQ(wireOf(record), "09 00 00 00 01 00 00 00 02 00 00 00");
    zelko::FpEventPayload fp; // a parse that fails: warned all the same
    EXPECT_FALSE(zelko::deserializeProto(hex("FFFFFFFFFFFFFFFFFFFFFF"), fp));

    zelko::DdSafetyShutdownOverrideRequestPayload shutdown;
    shutdown.reset.value = 7;
    QByteArray out;
    ASSERT_TRUE(zelko::serializeProto(shutdown, kSeen, 0, 0x42A0, out));
    const auto schema = parsed<zelko::messages::DdSafetyShutdownOverrideRequest>(out);
    EXPECT_TRUE(schema.reset());
    EXPECT_EQ(schema.data1_case(), schema.DATA1_NOT_SET);
    ASSERT_TRUE(zelko::deserializeProto(out, shutdown));
    EXPECT_EQ(shutdown.reset.value, 1u);
    zelko::TdSetTreatmentParameterPayload param;
    ASSERT_TRUE(zelko::serializeProto(param, kSeen, 0, 0x2F80, out));
    zelko::DdEventPayload dd; // an empty buffer parses: every field becomes 0
    dd.event.value = 5;
    EXPECT_TRUE(zelko::deserializeProto(QByteArray(), dd));
    EXPECT_EQ(dd.event.value, 0u);
    EXPECT_EQ(log.lines, (Lines{debugLine(partial("TdEvent", "deserialization")),
                                debugLine(partial("FpEvent", "deserialization")),
                                debugLine(partial("DdSafetyShutdownOverrideRequest", "serialization")),
                                debugLine(partial("DdSafetyShutdownOverrideRequest", "deserialization")),
                                debugLine(partial("TdSetTreatmentParameter", "serialization")),
                                debugLine(partial("DdEvent", "deserialization"))}));
}

TEST(Identity, NamesOfKnownAndUnknownIds)
{
    EXPECT_EQ(zelko::msgIdString(zelko::MsgId(0x0000)), "MSG_ID_UNUSED");
    EXPECT_EQ(zelko::msgIdString(zelko::MsgId(0x0100)), "MSG_ID_ALARM_STATUS_DATA");
    EXPECT_EQ(zelko::msgIdString(zelko::MsgId(0xFFFF)), "MSG_ID_ACK_MESSAGE_THAT_REQUIRES_ACK");
    EXPECT_EQ(zelko::msgIdString(zelko::MsgId(0x0001)), "0x0001");
    EXPECT_EQ(zelko::msgIdString(zelko::MsgId(0xABCD)), "0xabcd");
    EXPECT_EQ(zelko::msgIdToProtoName(0x0000), "zelko.messages.Unused");
    EXPECT_EQ(zelko::msgIdToProtoName(0xFFFF), "zelko.messages.AckMessageThatRequiresAck");
    EXPECT_EQ(zelko::msgIdToProtoName(0x0001), "");
    EXPECT_EQ(&zelko::msgIdToProtoName(0x1700), &zelko::msgIdToProtoName(0x1700));
    EXPECT_FALSE(zelko::payloadSize.contains(zelko::MsgId(0x0001)));
    EXPECT_EQ(zelko::payloadSize.value(zelko::MSG_ID_TD_EVENT), 20);
}

// One message of each family: wire bytes (a canary byte behind them must be
// ignored) and the dump line they give.
TEST(WorkedExamples, DecodeToTheirDumpLineAndEncodeBackToTheSameBytes)
{
    const std::pair<quint16, std::pair<const char *, const char *>> examples[] = {
        {0x0700, {"03000000 0000C03F 0000803E 0000003F 01000000 00000000 01 00 00 00 00 01", "TdAlarmInformationDataPayload: audioVolume=3, audioCurrHG=1.5, audioCurrLG=0.25, backupAudioCurr=0.5, safetyShutdown=1, acPowerLost=0, uiAlarmButtonBlocks1=1, uiAlarmButtonBlocks2=0, uiAlarmButtonBlocks3=0, uiAlarmButtonBlocks4=0, uiAlarmButtonBlocks5=0, uiAlarmButtonBlocks6=1"}},
        {0x1080, {"00000000 0000C03F", "TdAlarmAudioCurrentHgOverrideRequestPayload: reset=0, state=1.5"}},
        {0x2BB0, {"00000000 01000000 07000000", "FpAlarmStateOverrideRequestPayload: reset=0, state=1, index=7"}},
        {0x7800, {"03000000 02000000 0000003F", "UiDurationConfirmRequestPayload: duration=3, heparinDuration=2, ufRate=0.5"}},
        {0x3D00, {"03000000 0000C03F 00002040 01000000", "TdFluidBolusDataPayload: tgtFluidVolumeMl=3, bolFluidVolumeMl=1.5, cumFluidVolumeMl=2.5, bolusPermitted=1"}},
        {0x9700, {"00002040 0000003F 04000000 03000000", "TdBloodPrimeProgressDataPayload: targetBloodPrimeVolumeMl=2.5, deliveredBloodPrimeVolumeMl=0.5, bloodPrimeTimeoutSec=4, bloodPrimeCountdownSec=3"}},
        {0x2B00, {"02000000 01000000 03000000 88FF 8AFF 6400 9CFF 2C01 D4FE DC05", "TdValvesDataPayload: valveID=2, state=1, currentPosID=3, currentPos=-120, cmdPos=-118, posA=100, posB=-100, posC=300, posD=-300, maxHomingPos=1500"}},
        {0x1880, {"03000000 E7FF", "TdRotaryPinchValveSetPosRequestPayload: valve=3, stepChange=-25"}},
        {0x1880, {"FFFFFFFF FEFF", "TdRotaryPinchValveSetPosRequestPayload: valve=4294967295, stepChange=-2"}},
        {0x0780, {"00000000 00004841 01000000", "TdPressureOverrideRequestPayload: reset=0, state=12.5, index=1"}},
        {0x0380, {"00000000 00004841 01000000", "TdBubbleOverrideRequestPayload: reset=0, state=1095237632, index=1"}},
        {0x1380, {"00000000 F4010000", "TdPressurePublishIntervalOverrideRequestPayload: reset=0, state=500"}},
        {0x6900, {"01000000 00001642 B0040000", "DdRinsePumpDataPayload: d79State=1, d79PumpPWM=37.5, d79PumpRPM=1200"}},
        {0x2F00, {"04000000 01000000 00000000 00009643", "DdGenDialysateModeDataPayload: genDialysateExecState=4, isDialDelInProgress=1, isDialysateGoodtoDeliver=0, currentQd=300"}},
        {0x06A0, {"00000000 00204B44 02000000", "DdPressureSensorReadingsOverrideRequestPayload: reset=0, state=812.5, index=2"}},
        {0x2DA0, {"00000000 01000000 00003642 0080F042", "DdConcentratePumpsStartStopOverrideRequestPayload: pumpID=0, startStop=1, speed=45.5, volume=120.25"}},
        {0x60A0, {"00000000 0000003E", "DdBicarbMixVolKpGainCoeffOverrideRequestPayload: reset=0, state=0.125"}},
        {0x36A0, {"00000000 A5000000", "DdBcValveStatesOverrideRequestPayload: reset=0, valveStatesBits=165"}},
        {0x73A0, {"00000000 F4010000", "DdMixingControlDataPublishIntervalOverrideRequestPayload: reset=0, state=500"}},
        {0x3FA0, {"21 03000000 10 27 06 00 00", "DdSendBloodLeakEmbModeResponsePayload: command=33, responseLen=3, responseBuffer1=16, responseBuffer2=39, responseBuffer3=6, responseBuffer4=0, responseBuffer5=0"}},
        {0x4AA0, {"53 E803", "DdBloodLeakSetEmbeddedModeCmdRequestPayload: command=83, setPointPayload=1000"}},
        {0x3100, {"05 0A 01 00 01 00 00 01 01 00", "FpValvesStatesDataPayload: valvesIOState=5, valvesFPState=10, valvesSensedState1=1, valvesSensedState2=0, valvesSensedState3=1, valvesSensedState4=0, valvesSensedState5=0, valvesSensedState6=1, valvesSensedState7=1, valvesSensedState8=0"}},
        {0x13B0, {"00000000 0000C841 01000000", "FpFlowTempOverrideRequestPayload: reset=0, state=25, index=1"}},
        {0x21B0, {"00000000 2C010000", "FpRoPumpTargetFlowOverrideRequestPayload: reset=0, state=300"}},
        {0x11B0, {"01000000 00000000", "FpFlowsPublishIntervalOverrideRequestPayload: reset=1, state=0"}},
        {0x5A00, {"", "FpVersionResponsePayload: <none>"}},
        // Each wire type prints as a number: a U08 never as a character, a U32 held as a bool in full.
        {0x2300, {"C8", "OffButtonPressRequestPayload: userRequest=200"}},
        {0x0280, {"02000000", "TdSendTestConfigurationPayload: payloadPtr=2"}},
        {0x2780, {"00000080", "TdBloodPumpSetSpeedRequestPayload: rpm=-2147483648"}},
        {0x0880, {"00000000 CDCCCC3D", "TdAirPumpSetStateRequestPayload: h12State=0, h12Power=0.1"}},
        {0x0880, {"00000000 38B49649", "TdAirPumpSetStateRequestPayload: h12State=0, h12Power=1.23457e+06"}},
        {0x0880, {"00000000 0000807F", "TdAirPumpSetStateRequestPayload: h12State=0, h12Power=inf"}},
    };
    for (const auto &[id, example] : examples) {
        SCOPED_TRACE(zelko::msgIdString(zelko::MsgId(id)).toStdString());
        const QByteArray wire = hex(example.first);
        QByteArray back;
        LogCapture log;
        ASSERT_TRUE(rows::find(id)->decode(QByteArray(), wire + kCanary, back, true));
        EXPECT_EQ(spaced(back), spaced(wire));
        EXPECT_EQ(log.lines, (Lines{debugLine(example.second)}));
    }
    QByteArray proto;
    ASSERT_TRUE(zelko::canMessageToProtobufByteArray(kSeen, Bytra::Can::Message{7, 0x2F00, hex(examples[13].second.first)}, proto));
    EXPECT_EQ(spaced(proto), "0A 12 0A 0B 08 80 E2 CF AA 06 10 C0 A9 D3 3A 10 07 18 80 5E 10 04 18 01 2D 00 00 96 43");
}
