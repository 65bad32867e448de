// Wire values and payload records: getValue, decode, encode and dump, checked
// against bytes and lines worked out by hand.

#include "LogCapture.h"

#include "ZelkoMsgDefs.h"

#include "Bytra/Types.h"

#include <QLoggingCategory>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using namespace testing_support;
using namespace Bytra::Types;

namespace {

const char kCanary = char(0xA5);

template <class Record>
QByteArray encoded(const Record &record)
{
    QByteArray out;
    record.toQByteArray(out);
    return out;
}

std::string notEnough(int position, int width, const char *type, const QByteArray &buffer, const char *name)
{
    return "Not enough data from position " + std::to_string(position) + " to the length of " + std::to_string(width) +
           " to get data of type '" + type + "' in buffer " + buffer.toHex('.').toStdString() + " for value " + name;
}

} // namespace

TEST(WireValues, HoldTheirWidthStartAtZeroAndNameTheirType)
{
    EXPECT_EQ(U08{}.value, 0);
    EXPECT_EQ(S32{}.value, 0);
    EXPECT_EQ(F32{}.value, 0.0f);
    EXPECT_STREQ(typeid(U08).name(), "N5Bytra5Types3U08E");
    EXPECT_STREQ(typeid(U16).name(), "N5Bytra5Types3U16E");
    EXPECT_STREQ(typeid(U32).name(), "N5Bytra5Types3U32E");
    EXPECT_STREQ(typeid(S16).name(), "N5Bytra5Types3S16E");
    EXPECT_STREQ(typeid(S32).name(), "N5Bytra5Types3S32E");
    EXPECT_STREQ(typeid(F32).name(), "N5Bytra5Types3F32E");
}

TEST(GetValue, ReadsLeastSignificantByteFirstUpToTheLastByte)
{
    const QByteArray buffer = hex("02 00 00 00 01 00 00 00 3C 00 00 00 05 00");
    int position = 12;
    U16 flags;
    EXPECT_TRUE(getValue(buffer, position, flags, QStringLiteral("alarmsFlags")));
    EXPECT_EQ(flags.value, 5);
    EXPECT_EQ(position, 14);

    position = 1;
    U32 odd;
    EXPECT_TRUE(getValue(hex("FF 78 56 34 12"), position, odd, QString()));
    EXPECT_EQ(odd.value, 0x12345678u);
    EXPECT_EQ(position, 5);
}

TEST(GetValue, ValueThatDoesNotFitLeavesPositionAndValueAndWarnsOnce)
{
    LogCapture log;
    const QByteArray buffer = hex("01 02");
    U08 byte;
    byte.value = 9;
    int position = 2;
    EXPECT_FALSE(getValue(buffer, position, byte, QStringLiteral("userRequest")));
    EXPECT_EQ(position, 2);
    EXPECT_EQ(byte.value, 9);

    position = 7;
    S32 far;
    EXPECT_FALSE(getValue(buffer, position, far, QStringLiteral("rpm")));
    EXPECT_EQ(position, 7);

    EXPECT_EQ(log.lines(), (std::vector<LogLine>{
                               typesWarning(notEnough(2, 1, "N5Bytra5Types3U08E", buffer, "userRequest")),
                               typesWarning(notEnough(7, 4, "N5Bytra5Types3S32E", buffer, "rpm")),
                           }));
}

TEST(GetValue, WarningWithoutNameAndWithWarningsSwitchedOff)
{
    LogCapture log;
    int position = 0;
    F32 f;
    EXPECT_FALSE(getValue(QByteArray(), position, f, QString()));
    ASSERT_EQ(log.lines().size(), 1u);
    // An empty buffer and no name: both placeholders empty, their blanks stay.
    EXPECT_EQ(log.lines()[0].text,
              "Not enough data from position 0 to the length of 4 to get data of type 'N5Bytra5Types3F32E' in buffer  ");

    log.clear();
    QLoggingCategory::setFilterRules(QStringLiteral("bytra.types.warning=false"));
    EXPECT_FALSE(getValue(QByteArray(), position, f, QStringLiteral("x")));
    QLoggingCategory::setFilterRules(QString());
    EXPECT_TRUE(log.lines().empty());
}

TEST(Records, AlarmStatusDataDecodesEncodesAndDumps)
{
    LogCapture log;
    const QByteArray wire = hex("02 00 00 00 01 00 00 00 3C 00 00 00 05 00");
    zelko::AlarmStatusDataPayload record;
    ASSERT_TRUE(record.fromQByteArray(wire + kCanary));
    EXPECT_EQ(record.alarmState.value, 2u);
    EXPECT_EQ(record.alarmTop.value, 1u);
    EXPECT_EQ(record.silenceExpiresIn.value, 60u);
    EXPECT_EQ(record.alarmsFlags.value, 5u);
    EXPECT_EQ(spaced(encoded(record)), spaced(wire));

    record.dump();
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{debugLine(
                               "AlarmStatusDataPayload: alarmState=2, alarmTop=1, silenceExpiresIn=60, alarmsFlags=5")}));
}

TEST(Records, OddWirePositionsOfTheVersionResponse)
{
    LogCapture log;
    const QByteArray wire = hex("01 02 03 2C 01 0A 0B 0C 0D 2A 00 00 00");
    zelko::TdVersionResponsePayload version;
    ASSERT_TRUE(version.fromQByteArray(wire));
    EXPECT_EQ(version.build.value, 300);
    EXPECT_EQ(version.compatibilityRev.value, 42u);
    EXPECT_EQ(spaced(encoded(version)), spaced(wire));
    version.dump();

    zelko::FpVersionResponsePayload none;
    EXPECT_TRUE(none.fromQByteArray(wire));
    EXPECT_TRUE(encoded(none).isEmpty());
    none.dump();

    EXPECT_EQ(log.texts(), (std::vector<std::string>{
                               "TdVersionResponsePayload: major=1, minor=2, micro=3, build=300, fpgaId=10, fpgaMajor=11, "
                               "fpgaMinor=12, fpgaLab=13, compatibilityRev=42",
                               "FpVersionResponsePayload: <none>",
                           }));
}

TEST(Records, ShortPayloadFillsTheFieldsBeforeTheGapAndKeepsTheRest)
{
    LogCapture log;
    const QByteArray wire = hex("02 00 00 00 01 00 00 00 3C 00 00 00 05");
    zelko::AlarmStatusDataPayload record;
    record.alarmsFlags.value = 0xBEEF;
    EXPECT_FALSE(record.fromQByteArray(wire));
    EXPECT_EQ(record.alarmState.value, 2u);
    EXPECT_EQ(record.silenceExpiresIn.value, 60u);
    EXPECT_EQ(record.alarmsFlags.value, 0xBEEF);
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{
                               typesWarning(notEnough(12, 2, "N5Bytra5Types3U16E", wire, "alarmsFlags"))}));

    // A decode always starts at the front: a second call overwrites field by field.
    zelko::FwVersionsRequestPayload fw;
    log.clear();
    EXPECT_FALSE(fw.fromQByteArray(hex("01 02 03 04")));
    EXPECT_EQ(fw.micro.value, 3);
    EXPECT_FALSE(fw.fromQByteArray(hex("07 08 09 00 01 02 03 04")));
    EXPECT_EQ(fw.major.value, 7);
    EXPECT_EQ(fw.build.value, 0x100);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{
                               notEnough(3, 2, "N5Bytra5Types3U16E", hex("01020304"), "build"),
                               notEnough(5, 4, "N5Bytra5Types3U32E", hex("0708090001020304"), "compatibility"),
                           }));
}

TEST(Records, EmptyPayloadFailsOnTheFirstFieldAndPassesRecordsWithoutFields)
{
    LogCapture log;
    zelko::AlarmStatusDataPayload status;
    EXPECT_FALSE(status.fromQByteArray(QByteArray()));
    zelko::UnusedPayload unused;
    EXPECT_TRUE(unused.fromQByteArray(QByteArray()));
    EXPECT_TRUE(unused.fromQByteArray(hex("DE AD")));
    unused.dump();
    EXPECT_EQ(log.texts(), (std::vector<std::string>{
                               notEnough(0, 4, "N5Bytra5Types3U32E", QByteArray(), "alarmState"),
                               "UnusedPayload: <none>",
                           }));
}

TEST(Records, EncodeAppendsBehindWhatTheArrayHeld)
{
    zelko::FpSetTestConfigurationPayload set;
    ASSERT_TRUE(set.fromQByteArray(hex("01 00 00 00 05 00 00 00")));
    zelko::OffButtonPressRequestPayload off;
    off.userRequest.value = 0x7F;
    QByteArray out(1, kCanary);
    set.toQByteArray(out);
    off.toQByteArray(out);
    zelko::UnusedPayload().toQByteArray(out);
    EXPECT_EQ(spaced(out), "A5 01 00 00 00 05 00 00 00 7F");
}

TEST(Records, EveryWireTypeRoundTripsItsBytesExactly)
{
    // S16 negative, S32, U16 at an odd position and F32 NaN and signalling-NaN patterns.
    const QByteArray pinch = hex("04 00 00 00 FE FF");
    const QByteArray speed = hex("9C FF FF FF");
    const QByteArray embedded = hex("05 34 12");
    const QByteArray quietNan = hex("03 00 00 00 01 00 C0 7F");
    const QByteArray signallingNan = hex("03 00 00 00 01 00 A0 7F");

    zelko::TdRotaryPinchValveSetPosRequestPayload p;
    ASSERT_TRUE(p.fromQByteArray(pinch + kCanary));
    EXPECT_EQ(p.stepChange.value, -2);
    EXPECT_EQ(spaced(encoded(p)), spaced(pinch));

    zelko::TdBloodPumpSetSpeedRequestPayload s;
    ASSERT_TRUE(s.fromQByteArray(speed));
    EXPECT_EQ(s.rpm.value, -100);
    EXPECT_EQ(spaced(encoded(s)), spaced(speed));

    zelko::DdBloodLeakSetEmbeddedModeCmdRequestPayload e;
    ASSERT_TRUE(e.fromQByteArray(embedded));
    EXPECT_EQ(e.setPointPayload.value, 0x1234);
    EXPECT_EQ(spaced(encoded(e)), spaced(embedded));

    for (const QByteArray &wire : {quietNan, signallingNan}) {
        zelko::TdAirPumpSetStateRequestPayload a;
        ASSERT_TRUE(a.fromQByteArray(wire));
        EXPECT_TRUE(std::isnan(a.h12Power.value));
        EXPECT_EQ(spaced(encoded(a)), spaced(wire));
    }
}

TEST(Records, DumpPrintsEachWireTypeAsANumber)
{
    LogCapture log;
    zelko::OffButtonPressRequestPayload off;
    off.userRequest.value = 200;
    off.dump();
    zelko::TdRotaryPinchValveSetPosRequestPayload pinch;
    ASSERT_TRUE(pinch.fromQByteArray(hex("FF FF FF FF FE FF")));
    pinch.dump();
    zelko::TdSendTestConfigurationPayload bools;
    bools.payloadPtr.value = 2;
    bools.dump();
    zelko::TdAirPumpSetStateRequestPayload air;
    for (float f : {37.5f, 0.1f, 1234567.0f, INFINITY}) {
        air.h12Power.value = f;
        air.dump();
    }
    zelko::TdBloodPumpSetSpeedRequestPayload speed;
    speed.rpm.value = INT32_MIN;
    speed.dump();
    EXPECT_EQ(log.texts(), (std::vector<std::string>{
                               "OffButtonPressRequestPayload: userRequest=200",
                               "TdRotaryPinchValveSetPosRequestPayload: valve=4294967295, stepChange=-2",
                               "TdSendTestConfigurationPayload: payloadPtr=2",
                               "TdAirPumpSetStateRequestPayload: h12State=0, h12Power=37.5",
                               "TdAirPumpSetStateRequestPayload: h12State=0, h12Power=0.1",
                               "TdAirPumpSetStateRequestPayload: h12State=0, h12Power=1.23457e+06",
                               "TdAirPumpSetStateRequestPayload: h12State=0, h12Power=inf",
                               "TdBloodPumpSetSpeedRequestPayload: rpm=-2147483648",
                           }));
}

TEST(Records, UnionRecordsReadAndWriteOnlyTheirOwnFields)
{
    LogCapture log;
    const QByteArray wire = hex("09 00 00 00 01 00 00 00 02 00 00 00 2A 00 00 00 03 00 00 00");
    zelko::DdEventPayload event;
    ASSERT_TRUE(event.fromQByteArray(wire));
    EXPECT_EQ(spaced(encoded(event)), spaced(wire.left(12)));
    EXPECT_TRUE(event.fromQByteArray(wire.left(12)));
    event.dump();
    EXPECT_FALSE(event.fromQByteArray(wire.left(11)));
    EXPECT_EQ(zelko::payloadSize.value(zelko::MSG_ID_DD_EVENT), 20);
    EXPECT_EQ(log.texts(), (std::vector<std::string>{
                               "DdEventPayload: event=9, dataType1=1, dataType2=2",
                               notEnough(8, 4, "N5Bytra5Types3U32E", wire.left(11), "dataType2"),
                           }));
}
