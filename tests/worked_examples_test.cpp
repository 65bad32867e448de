// Worked examples of the message families as fixed vectors: wire bytes, a
// canary byte behind them that must be ignored, and the dump line expected.

#include "LogCapture.h"
#include "RecordOps.h"

#include "ZelkoMsgDefs.h"

#include <gtest/gtest.h>

using namespace testing_support;

namespace {

struct Example
{
    uint16_t id;
    const char *wire;
    const char *dump;
};

const Example kExamples[] = {
    {0x0700, "03000000 0000C03F 0000803E 0000003F 01000000 00000000 01 00 00 00 00 01",
     "TdAlarmInformationDataPayload: audioVolume=3, audioCurrHG=1.5, audioCurrLG=0.25, backupAudioCurr=0.5, "
     "safetyShutdown=1, acPowerLost=0, uiAlarmButtonBlocks1=1, uiAlarmButtonBlocks2=0, uiAlarmButtonBlocks3=0, "
     "uiAlarmButtonBlocks4=0, uiAlarmButtonBlocks5=0, uiAlarmButtonBlocks6=1"},
    {0x1080, "00000000 0000C03F", "TdAlarmAudioCurrentHgOverrideRequestPayload: reset=0, state=1.5"},
    {0x2BB0, "00000000 01000000 07000000", "FpAlarmStateOverrideRequestPayload: reset=0, state=1, index=7"},
    {0x7800, "03000000 02000000 0000003F", "UiDurationConfirmRequestPayload: duration=3, heparinDuration=2, ufRate=0.5"},
    {0x3D00, "03000000 0000C03F 00002040 01000000",
     "TdFluidBolusDataPayload: tgtFluidVolumeMl=3, bolFluidVolumeMl=1.5, cumFluidVolumeMl=2.5, bolusPermitted=1"},
    {0x9700, "00002040 0000003F 04000000 03000000",
     "TdBloodPrimeProgressDataPayload: targetBloodPrimeVolumeMl=2.5, deliveredBloodPrimeVolumeMl=0.5, "
     "bloodPrimeTimeoutSec=4, bloodPrimeCountdownSec=3"},
    {0x2B00, "02000000 01000000 03000000 88FF 8AFF 6400 9CFF 2C01 D4FE DC05",
     "TdValvesDataPayload: valveID=2, state=1, currentPosID=3, currentPos=-120, cmdPos=-118, posA=100, posB=-100, "
     "posC=300, posD=-300, maxHomingPos=1500"},
    {0x1880, "03000000 E7FF", "TdRotaryPinchValveSetPosRequestPayload: valve=3, stepChange=-25"},
    {0x0780, "00000000 00004841 01000000", "TdPressureOverrideRequestPayload: reset=0, state=12.5, index=1"},
    {0x0380, "00000000 00004841 01000000", "TdBubbleOverrideRequestPayload: reset=0, state=1095237632, index=1"},
    {0x1380, "00000000 F4010000", "TdPressurePublishIntervalOverrideRequestPayload: reset=0, state=500"},
    {0x6900, "01000000 00001642 B0040000", "DdRinsePumpDataPayload: d79State=1, d79PumpPWM=37.5, d79PumpRPM=1200"},
    {0x2F00, "04000000 01000000 00000000 00009643",
     "DdGenDialysateModeDataPayload: genDialysateExecState=4, isDialDelInProgress=1, isDialysateGoodtoDeliver=0, "
     "currentQd=300"},
    {0x06A0, "00000000 00204B44 02000000",
     "DdPressureSensorReadingsOverrideRequestPayload: reset=0, state=812.5, index=2"},
    {0x2DA0, "00000000 01000000 00003642 0080F042",
     "DdConcentratePumpsStartStopOverrideRequestPayload: pumpID=0, startStop=1, speed=45.5, volume=120.25"},
    {0x60A0, "00000000 0000003E", "DdBicarbMixVolKpGainCoeffOverrideRequestPayload: reset=0, state=0.125"},
    {0x36A0, "00000000 A5000000", "DdBcValveStatesOverrideRequestPayload: reset=0, valveStatesBits=165"},
    {0x73A0, "00000000 F4010000", "DdMixingControlDataPublishIntervalOverrideRequestPayload: reset=0, state=500"},
    {0x3FA0, "21 03000000 10 27 06 00 00",
     "DdSendBloodLeakEmbModeResponsePayload: command=33, responseLen=3, responseBuffer1=16, responseBuffer2=39, "
     "responseBuffer3=6, responseBuffer4=0, responseBuffer5=0"},
    {0x4AA0, "53 E803", "DdBloodLeakSetEmbeddedModeCmdRequestPayload: command=83, setPointPayload=1000"},
    {0x3100, "05 0A 01 00 01 00 00 01 01 00",
     "FpValvesStatesDataPayload: valvesIOState=5, valvesFPState=10, valvesSensedState1=1, valvesSensedState2=0, "
     "valvesSensedState3=1, valvesSensedState4=0, valvesSensedState5=0, valvesSensedState6=1, valvesSensedState7=1, "
     "valvesSensedState8=0"},
    {0x13B0, "00000000 0000C841 01000000", "FpFlowTempOverrideRequestPayload: reset=0, state=25, index=1"},
    {0x21B0, "00000000 2C010000", "FpRoPumpTargetFlowOverrideRequestPayload: reset=0, state=300"},
    {0x11B0, "01000000 00000000", "FpFlowsPublishIntervalOverrideRequestPayload: reset=1, state=0"},
    {0x5A00, "0102032C010A0B0C0D2A000000", "FpVersionResponsePayload: <none>"},
};

const char kCanary = char(0xA5);

} // namespace

TEST(WorkedExamples, DecodeToTheirDumpLineAndEncodeBackToTheSameBytes)
{
    for (const Example &e : kExamples) {
        SCOPED_TRACE(zelko::msgIdString(zelko::MsgId(e.id)).toStdString());
        const RecordOps *ops = findRecordOps(e.id);
        ASSERT_NE(ops, nullptr);
        const QByteArray wire = hex(e.wire);
        QByteArray back;
        ASSERT_TRUE(ops->decodeEncode(wire + kCanary, back));
        if (zelko::payloadSize.value(zelko::MsgId(e.id)) > 0)
            EXPECT_EQ(spaced(back), spaced(wire));
        else
            EXPECT_TRUE(back.isEmpty());

        LogCapture log;
        ops->decodeDump(wire);
        EXPECT_EQ(log.lines(), (std::vector<LogLine>{debugLine(e.dump)}));
    }
}

TEST(WorkedExamples, DdGenDialysateModeDataSerializesToTheWorkedBytes)
{
    QByteArray proto;
    ASSERT_TRUE(findRecordOps(0x2F00)->decodeSerialize(hex("04000000 01000000 00000000 00009643"), 1700000000123LL,
                                                       7, proto));
    EXPECT_EQ(spaced(proto), "0A 12 0A 0B 08 80 E2 CF AA 06 10 C0 A9 D3 3A 10 07 18 80 5E 10 04 18 01 2D 00 00 96 43");
}

TEST(WorkedExamples, AnAcceptedThatIsAPlainNumberKeepsItsValueThroughTheSchema)
{
    // TdFluidBolusResponse holds `accepted` as a number; TdBolusVolumeChangeResponse as a bool.
    const QByteArray wire = hex("02000000 00000000 03000000");
    QByteArray proto, back;
    ASSERT_TRUE(findRecordOps(zelko::MSG_ID_TD_FLUID_BOLUS_RESPONSE)->decodeSerialize(wire, 0, 0, proto));
    ASSERT_TRUE(findRecordOps(zelko::MSG_ID_TD_FLUID_BOLUS_RESPONSE)->fromProto(proto, back));
    EXPECT_EQ(spaced(back), spaced(wire));

    const QByteArray verdict = wire.left(8);
    back.clear();
    ASSERT_TRUE(findRecordOps(zelko::MSG_ID_TD_BOLUS_VOLUME_CHANGE_RESPONSE)->decodeSerialize(verdict, 0, 0, proto));
    ASSERT_TRUE(findRecordOps(zelko::MSG_ID_TD_BOLUS_VOLUME_CHANGE_RESPONSE)->fromProto(proto, back));
    EXPECT_EQ(spaced(back), "01 00 00 00 00 00 00 00");
}
