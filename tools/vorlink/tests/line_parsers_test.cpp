// The tool's readers of a bus-log line and of a time, and its writers of both.

#include "JsonReader.h"
#include "Dictionary.h"
#include "JsonCodec.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <tuple>
#include <vector>

using vorlink::BusLogEntry;
using vorlink::LineResult;

TEST(BusLogLine, ReadsEveryFieldInItsWrittenForms)
{
    struct Case { const char *line; qint64 msecs; quint16 sequence, id; const char *payload; };
    const Case cases[] = {
        {"1700000000.123 7 0x0100 02000000010000003C0000000500", 1700000000123LL, 7, 0x0100, "02000000010000003c0000000500"},
        {"\t12.5\t65535\tffff\tab # tabs, no 0x, one decimal, a comment and CRLF\r", 12500, 65535, 0xFFFF, "ab"},
        {"0.05 0 a0 -", 50, 0, 0x00A0, ""},
        {"1 1 0X0000", 1000, 1, 0, ""}, // no payload: empty, not the earlier line's
        {"253402300799.999 1 0x0000 -", vorlink::maxBusLogMsecs, 1, 0, ""},
        // Micro- and nanoseconds are read, the milliseconds here, the rest below.
        {"1700000000.123456 1 0x0000 -", 1700000000123LL, 1, 0, ""},
        {"1.999999999 1 0x0000 -", 1999, 1, 0, ""},
    };
    BusLogEntry e;
    e.payload = "earlier";
    for (const Case &c : cases) {
        ASSERT_TRUE(vorlink::parseBusLogLine(c.line, e).isMessage()) << c.line;
        EXPECT_EQ(e.msecs, c.msecs) << c.line;
        EXPECT_EQ(e.sequence, c.sequence) << c.line;
        EXPECT_EQ(e.msgId, c.id) << c.line;
        EXPECT_EQ(e.payload.toHex(), QByteArray(c.payload)) << c.line;
    }
    // The nanoseconds past the millisecond, and the line written back with
    // as many decimals as they need.
    const std::pair<const char *, qint32> past[] = {{"1700000000.123456 1 0x0000 -", 456000},
                                                    {"1.999999999 1 0x0000 -", 999999},
                                                    {"1.000000100 1 0x0000 -", 100},
                                                    {"1.500 1 0x0000 -", 0}};
    for (const auto &[line, nanos] : past) {
        ASSERT_TRUE(vorlink::parseBusLogLine(line, e).isMessage()) << line;
        EXPECT_EQ(e.nanos, nanos) << line;
        std::string text;
        vorlink::appendBusLogLine(e, text);
        EXPECT_EQ(text, line);
    }
    for (const char *line : {"", "   ", "\t\r", "# a comment", "   # 1 2 0x0100 00"})
        EXPECT_EQ(vorlink::parseBusLogLine(line, e).kind, LineResult::Skip) << '"' << line << '"';
}

TEST(BusLogLine, SaysWhatIsWrongWithABadLine)
{
    const std::string time = " is not seconds since 1970 (0 to 253402300799.999, up to 9 decimals)";
    const std::string sequence = " is not a decimal number from 0 to 65535";
    const std::string id = " is not a hexadecimal number from 0x0000 to 0xFFFF";
    const std::pair<std::string, std::string> cases[] = {
        {"yesterday 1 0x0100 00", "time 'yesterday'" + time},
        {"1.1234567890 1 0x0100 00", "time '1.1234567890'" + time},
        {"1.12345678x 1 0x0100 00", "time '1.12345678x'" + time},
        {"1. 1 0x0000 -", "time '1.'" + time},
        {"-1.5 1 0x0100 00", "time '-1.5'" + time},
        {"253402300800 1 0x0000 -", "time '253402300800'" + time},
        {"1", "line ends after the time; sequence, id and payload are missing"},
        {"1 65536 0x0100 00", "sequence '65536'" + sequence},
        {"1 -1 0x0100 00", "sequence '-1'" + sequence},
        {"1 7", "line ends after the sequence; id and payload are missing"},
        {"1 7 0x10000 00", "id '0x10000'" + id},
        {"1 7 0x 00", "id '0x'" + id},
        {"1 7 0x01g0 00", "id '0x01g0'" + id},
        {"1 7 0x0100 020", "payload has an odd number of hexadecimal digits (3)"},
        {"1 7 0x0100 02x0", "payload has 'x' at digit 3, which is not hexadecimal"},
        {"1 7 0x0100 00zy", "payload has 'z' at digit 3, which is not hexadecimal"},
        {"1 7 0x0100 02 00", "unexpected '00' after the payload"},
        // Quoted text stays short and printable whatever the line holds.
        {"\x01\x02" + std::string(500, 'x'), "time '??" + std::string(38, 'x') + "...'" + time},
    };
    for (const auto &[line, reason] : cases) {
        BusLogEntry e;
        const LineResult r = vorlink::parseBusLogLine(line, e);
        EXPECT_EQ(r.kind, LineResult::Error) << line;
        EXPECT_EQ(r.reason, reason);
    }
}

TEST(BusLogLine, WrittenAsItIsRead)
{
    BusLogEntry e{1700000000005LL, 65535, 0x00A0, QByteArray::fromHex("00ff7f80")};
    std::string text = "kept ";
    vorlink::appendBusLogLine(e, text);
    EXPECT_EQ(text, "kept 1700000000.005 65535 0x00A0 00ff7f80");
    text.clear();
    vorlink::appendBusLogLine({40, 7, 0xABCD, QByteArray()}, text);
    EXPECT_EQ(text, "0.040 7 0xABCD -");
}

TEST(Time, IsoTextBothWaysInUtcWhateverTheLocalZone)
{
    setenv("TZ", "XYZ-3", 1); // three hours east of UTC
    tzset();
    const std::pair<qint64, const char *> times[] = {{0, "1970-01-01T00:00:00.000Z"},
                                                     {1700000000123LL, "2023-11-14T22:13:20.123Z"},
                                                     {951782400000LL, "2000-02-29T00:00:00.000Z"},
                                                     {vorlink::maxBusLogMsecs, "9999-12-31T23:59:59.999Z"}};
    for (const auto &[msecs, iso] : times) {
        std::string text;
        vorlink::appendIsoTime(msecs, text);
        EXPECT_EQ(text, iso);
    }
    // No offset: UTC. The forms a bus log writes are read too.
    const std::pair<const char *, qint64> arguments[] = {
        {"2023-11-14T22:13:20.5", 1700000000500LL}, {"2023-11-14T23:13:20+01:00", 1700000000000LL},
        {"1700000000.5", 1700000000500LL}, {"9999-12-31T23:59:59.999Z", vorlink::maxBusLogMsecs},
        {"1970-01-01T00:00:00Z", 0}, {"1969-12-31T23:59:59Z", -1}, {"soon", -1}};
    for (const auto &[text, msecs] : arguments) {
        qint64 got = -1;
        EXPECT_EQ(vorlink::parseTimeArgument(text, got), msecs >= 0) << text;
        EXPECT_EQ(msecs >= 0 ? got : -1, msecs) << text;
    }
    // To the nanosecond, both ways.
    const std::tuple<const char *, qint64, qint32, const char *> fine[] = {
        {"2023-11-14T22:13:20.123456789Z", 1700000000123LL, 456789, "2023-11-14T22:13:20.123456789Z"},
        {"2023-11-14T23:13:20.1234+01:00", 1700000000123LL, 400000, "2023-11-14T22:13:20.123400Z"},
        {"1700000000.000001", 1700000000000LL, 1000, "2023-11-14T22:13:20.000001Z"},
        {"2023-11-14T22:13:20.1234567891Z", -1, 0, ""}};
    for (const auto &[text, msecs, nanos, iso] : fine) {
        vorlink::LogTime got{-1, 0};
        EXPECT_EQ(vorlink::parseTimeArgument(text, got), msecs >= 0) << text;
        if (msecs < 0)
            continue;
        EXPECT_EQ(got.msecs, msecs) << text;
        EXPECT_EQ(got.nanos, nanos) << text;
        std::string written;
        vorlink::appendIsoTime(got.msecs, got.nanos, written);
        EXPECT_EQ(written, iso);
    }
}

TEST(JsonLine, GivesTheWireBytesOfTheSchemaMessage)
{
    BusLogEntry e;
    const LineResult r = parseJsonLine(
        R"({"header":{"timestamp":"2023-11-14T22:13:20.123Z","sequence":-1,"msgId":256},)"
        R"("alarmState":2,"alarmTop":1,"silenceExpiresIn":60,"alarmsFlags":5})",
        e);
    ASSERT_TRUE(r.isMessage()) << r.reason;
    EXPECT_EQ(e.msecs, 1700000000123LL);
    EXPECT_EQ(e.sequence, 0xFFFF);
    EXPECT_EQ(e.msgId, 0x0100);
    EXPECT_EQ(e.payload, QByteArray::fromHex("02000000010000003c0000000500"));

    // protobuf's other spellings: numbers as strings or with a fraction or
    // exponent, the header last, a time with an offset, blanks around.
    BusLogEntry same;
    ASSERT_TRUE(parseJsonLine(R"( {"alarmState":"2","alarmTop":1.0,"silenceExpiresIn":6e1,"alarmsFlags":5,)"
                              R"("header":{"timestamp":"2023-11-14T23:13:20.123+01:00","sequence":"-1","msgId":256}} )",
                              same)
                    .isMessage());
    EXPECT_EQ(same.payload, e.payload);
    EXPECT_EQ(same.msecs, e.msecs);
    EXPECT_EQ(same.sequence, e.sequence);

    // Fields left out are 0; a bool comes back as 1.
    ASSERT_TRUE(parseJsonLine(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":512},"almClrTopOnly":true,"alarm":3})", e).isMessage());
    EXPECT_EQ(e.payload, QByteArray::fromHex("03000000" + QByteArray(48, '0') + "01000000"));
    EXPECT_EQ(e.msecs, 0);
    EXPECT_EQ(parseJsonLine("  \t", e).kind, LineResult::Skip);
}

TEST(JsonLine, RejectsWhatIsNotAMessageOfTheDictionary)
{
    BusLogEntry e;
    const auto reason = [&](const char *line) {
        const LineResult r = parseJsonLine(line, e);
        EXPECT_EQ(r.kind, LineResult::Error) << line;
        EXPECT_EQ(r.reason.find('\n'), std::string::npos);
        return r.reason;
    };
    EXPECT_EQ(reason("not json"), "not JSON: Invalid value. (at byte 2)");
    // Well-formed JSON only, where protobuf's parser takes a trailing comma
    // and the last of two members.
    EXPECT_EQ(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmState":2,})"),
              "not JSON: Missing a name for object member. (at byte 75)");
    EXPECT_EQ(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256,"msgId":256}})"),
              "not JSON: the member \"msgId\" is given twice in one object");
    EXPECT_NE(reason("[1,2]").find("not a JSON object"), std::string::npos);
    EXPECT_NE(reason(R"({"alarmState":2})").find("no \"header\""), std::string::npos);
    EXPECT_NE(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":1}})").find("unknown message id 0x0001"), std::string::npos);
    EXPECT_NE(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":65536}})").find("larger than 0xFFFF"), std::string::npos);
    EXPECT_NE(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256,"sequence":70000}})").find("16 bits"), std::string::npos);
    EXPECT_NE(reason(R"({"header":{"msgId":256,"timestamp":"1969-12-31T23:59:59Z"}})").find("before 1970"),
              std::string::npos);
    EXPECT_EQ(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmStat":2})"),
              "AlarmStatusData has no field \"alarmStat\"; nearest: alarmState, alarmTop, alarmsFlags");
    EXPECT_EQ(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmState":"two"})"), "alarmState: 'two' is not a number");
    // JSON that RapidJSON reads but protobuf's mapping does not allow.
    for (const std::string &line : std::vector<std::string>{
             R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmState":2} x)", R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmState":4294967296})",
          R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmState":-1})", R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmState":1.5})",
          R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":5888},"data1_float":1e39})", R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":5888},"data1_float":"inf"})",
          R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":5888},"data1_bool":true,"data1_float":1})",
          std::string(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256}})") + '\0' + "x"})
        EXPECT_EQ(parseJsonLine(line, e).kind, LineResult::Error) << line;
}

// A value goes to the bus only whole: one its wire field cannot hold is
// refused, naming the field and the range, on the fast path's shapes and on
// protobuf's (a number as a string) alike.
TEST(JsonLine, RefusesWhatTheWireFieldCannotHold)
{
    struct Case { unsigned id; const char *field, *fits, *tooBig; const char *range; };
    const Case cases[] = {
        {0x4BA0, "command", "255", "256", "U08 (0 to 255)"},
        {0x0100, "alarmsFlags", "65535", "65536", "U16 (0 to 65535)"},
        {0x2B00, "currentPos", "32767", "32768", "S16 (-32768 to 32767)"},
        {0x2B00, "currentPos", "-32768", "-32769", "S16 (-32768 to 32767)"},
        {0x0100, "alarmState", "4294967295", nullptr, nullptr},
        {0x1100, "h4SetFlowRate", "-2147483648", nullptr, nullptr},
    };
    const auto line = [](unsigned id, const std::string &member) {
        return R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":)" + std::to_string(id) + "}," + member + "}";
    };
    for (const Case &c : cases) {
        const std::string name = std::string("\"") + c.field + "\":";
        for (const std::string &quote : {"", "\""}) {
            BusLogEntry e;
            EXPECT_TRUE(parseJsonLine(line(c.id, name + quote + c.fits + quote), e).isMessage()) << c.field << c.fits;
            if (c.tooBig == nullptr)
                continue;
            const LineResult r = parseJsonLine(line(c.id, name + quote + c.tooBig + quote), e);
            EXPECT_EQ(r.reason, std::string(c.field) + ": " + c.tooBig + " does not fit " + c.range);
            EXPECT_STREQ(r.cause, "value out of range");
        }
    }
    // Past 64 bits: the fast reader leaves the line to protobuf, which refuses it.
    BusLogEntry e;
    const std::string huge = line(0x0300, R"("alarmName":99999999999999999999)");
    EXPECT_FALSE(vorlink::readJsonLineFast(huge, e));
    EXPECT_EQ(parseJsonLine(huge, e).kind, LineResult::Error);
}
