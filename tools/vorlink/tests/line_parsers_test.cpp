// The one-line parsers of the tool and its view of the dictionary.

#include "BusLog.h"
#include "Dictionary.h"

#include <QtGlobal>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using vorlink::BusLogEntry;
using vorlink::LineResult;
using vorlink::parseBusLogLine;
using vorlink::parseJsonLine;

namespace {

LineResult parse(const std::string &line, BusLogEntry &entry) { return parseBusLogLine(line, entry); }

std::string reasonOf(const std::string &line)
{
    BusLogEntry entry;
    const LineResult r = parseBusLogLine(line, entry);
    EXPECT_EQ(r.kind, LineResult::Error) << line;
    return r.reason;
}

} // namespace

TEST(BusLogLine, ReadsEveryFieldInItsWrittenForms)
{
    BusLogEntry e;
    ASSERT_TRUE(parse("1700000000.123 7 0x0100 02000000010000003C0000000500", e).isMessage());
    EXPECT_EQ(e.msecs, 1700000000123LL);
    EXPECT_EQ(e.sequence, 7);
    EXPECT_EQ(e.msgId, 0x0100);
    EXPECT_EQ(e.payload, QByteArray::fromHex("02000000010000003c0000000500"));

    // Tabs, no "0x", lower-case id, one or two decimals, CRLF, trailing comment.
    ASSERT_TRUE(parse("\t12.5\t65535\tffff\tab # note\r", e).isMessage());
    EXPECT_EQ(e.msecs, 12500);
    EXPECT_EQ(e.sequence, 65535);
    EXPECT_EQ(e.msgId, 0xFFFF);
    EXPECT_EQ(e.payload, QByteArray::fromHex("ab"));
    ASSERT_TRUE(parse("0.05 0 a0 -", e).isMessage());
    EXPECT_EQ(e.msecs, 50);
    EXPECT_EQ(e.msgId, 0x00A0);

    // An empty payload, written "-" or left out, replaces a longer one before it.
    ASSERT_TRUE(parse("1 1 0x0000 -", e).isMessage());
    EXPECT_TRUE(e.payload.isEmpty());
    ASSERT_TRUE(parse("1 1 0x0100 0102", e).isMessage());
    ASSERT_TRUE(parse("1 1 0x0000", e).isMessage());
    EXPECT_TRUE(e.payload.isEmpty());
    ASSERT_TRUE(parse("253402300799.999 1 0x0000 -", e).isMessage());
    EXPECT_EQ(e.msecs, vorlink::maxBusLogMsecs);
}

TEST(BusLogLine, BlankAndCommentLinesHoldNoMessage)
{
    BusLogEntry e;
    for (const char *line : {"", "   ", "\t\r", "# a comment", "   # 1 2 0x0100 00"})
        EXPECT_EQ(parse(line, e).kind, LineResult::Skip) << '"' << line << '"';
}

TEST(BusLogLine, NamesWhatIsWrongWithABadLine)
{
    EXPECT_NE(reasonOf("yesterday 1 0x0100 00").find("time 'yesterday'"), std::string::npos);
    EXPECT_NE(reasonOf("1.1234 1 0x0100 00").find("time '1.1234'"), std::string::npos);   // below a millisecond
    EXPECT_NE(reasonOf("-1.5 1 0x0100 00").find("time"), std::string::npos);
    EXPECT_NE(reasonOf("253402300800 1 0x0000 -").find("time"), std::string::npos);      // after 9999
    EXPECT_NE(reasonOf("1. 1 0x0000 -").find("time"), std::string::npos);
    EXPECT_NE(reasonOf("1").find("sequence, id and payload are missing"), std::string::npos);
    EXPECT_NE(reasonOf("1 65536 0x0100 00").find("sequence '65536'"), std::string::npos);
    EXPECT_NE(reasonOf("1 -1 0x0100 00").find("sequence '-1'"), std::string::npos);
    EXPECT_NE(reasonOf("1 7").find("id and payload are missing"), std::string::npos);
    EXPECT_NE(reasonOf("1 7 0x10000 00").find("id '0x10000'"), std::string::npos);
    EXPECT_NE(reasonOf("1 7 0x 00").find("id '0x'"), std::string::npos);
    EXPECT_NE(reasonOf("1 7 0x01g0 00").find("id '0x01g0'"), std::string::npos);
    EXPECT_NE(reasonOf("1 7 0x0100 020").find("odd number of hexadecimal digits (3)"), std::string::npos);
    EXPECT_NE(reasonOf("1 7 0x0100 02x0").find("'x' at digit 3"), std::string::npos);
    EXPECT_NE(reasonOf("1 7 0x0100 02 00").find("unexpected '00' after the payload"), std::string::npos);
    // Quoted text stays short and printable whatever the line holds.
    const std::string reason = reasonOf(std::string("\x01\x02") + std::string(500, 'x'));
    EXPECT_LT(reason.size(), 120u);
    EXPECT_EQ(reason.find('\x01'), std::string::npos);
}

TEST(BusLogLine, WrittenLinesReadBackUnchanged)
{
    BusLogEntry e;
    e.msecs = 1700000000005LL;
    e.sequence = 65535;
    e.msgId = 0x00A0;
    e.payload = QByteArray::fromHex("00ff7f80");
    std::string text = "kept ";
    vorlink::appendBusLogLine(e, text);
    EXPECT_EQ(text, "kept 1700000000.005 65535 0x00A0 00ff7f80");

    BusLogEntry back;
    ASSERT_TRUE(parseBusLogLine(std::string_view(text).substr(5), back).isMessage());
    EXPECT_EQ(back.msecs, e.msecs);
    EXPECT_EQ(back.sequence, e.sequence);
    EXPECT_EQ(back.msgId, e.msgId);
    EXPECT_EQ(back.payload, e.payload);

    e.payload.clear();
    e.msecs = 0;
    text.clear();
    vorlink::appendBusLogLine(e, text);
    EXPECT_EQ(text, "0.000 65535 0x00A0 -");
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

    // Fields left out are 0; a bool comes back as 1; a U08 keeps its low bits.
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
    EXPECT_NE(reason("not json").find("not a JSON object"), std::string::npos);
    EXPECT_NE(reason("[1,2]").find("not a JSON object"), std::string::npos);
    EXPECT_NE(reason(R"({"alarmState":2})").find("no \"header\""), std::string::npos);
    EXPECT_NE(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":1}})").find("unknown message id 0x0001"), std::string::npos);
    EXPECT_NE(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":65536}})").find("larger than 0xFFFF"), std::string::npos);
    EXPECT_NE(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256,"sequence":70000}})").find("16 bits"), std::string::npos);
    EXPECT_NE(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256,"timestamp":"1969-12-31T23:59:59Z"}})").find("before 1970"),
              std::string::npos);
    EXPECT_NE(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmStat":2})").find("zelko.messages.AlarmStatusData"),
              std::string::npos);
    EXPECT_NE(reason(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmState":"two"})").find("AlarmStatusData"), std::string::npos);
    // JSON that RapidJSON reads but protobuf's mapping does not allow.
    for (const std::string &line : std::vector<std::string>{
             R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmState":2} x)", R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmState":4294967296})",
          R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmState":-1})", R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256},"alarmState":1.5})",
          R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":5888},"data1_float":1e39})", R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":5888},"data1_float":"inf"})",
          R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":5888},"data1_bool":true,"data1_float":1})",
          std::string(R"({"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":256}})") + '\0' + "x"})
        EXPECT_EQ(parseJsonLine(line, e).kind, LineResult::Error) << line;
}

TEST(Dictionary, EveryRowHasItsSchemaTypeAndAConsistentLayout)
{
    const auto &dictionary = vorlink::Dictionary::instance();
    ASSERT_EQ(dictionary.rows().size(), 474u);
    int unionRows = 0;
    for (const vorlink::RowInfo &row : dictionary.rows()) {
        SCOPED_TRACE(row.enumerator);
        ASSERT_NE(row.prototype, nullptr);
        EXPECT_EQ(dictionary.find(row.id), &row);
        EXPECT_EQ(dictionary.findByName(row.enumerator), &row);
        int expected = 0;   // the probed fields tile the record's bytes with no gap
        bool schemaOnly = false;
        for (const vorlink::WireField &f : row.fields) {
            if (f.position < 0) {
                schemaOnly = true;
                continue;
            }
            EXPECT_FALSE(schemaOnly) << f.name << " lies behind a schema-only field";
            EXPECT_EQ(f.position, expected) << f.name;
            EXPECT_NE(f.wireType, "?") << f.name;
            expected += f.width;
        }
        EXPECT_EQ(expected, row.wireSize);
        if (schemaOnly) {
            ++unionRows;
            EXPECT_GT(row.payloadSize, row.wireSize);
        } else {
            EXPECT_EQ(row.payloadSize, row.wireSize);
        }
    }
    EXPECT_EQ(unionRows, 5);
    EXPECT_EQ(dictionary.find(0x0001), nullptr);
    EXPECT_EQ(dictionary.findByName("zelko.messages.alarmstatusdata")->id, 0x0100);
}
