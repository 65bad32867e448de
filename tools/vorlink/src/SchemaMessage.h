#pragma once

// A row's schema message as the tool's fast paths see it: the header at
// number 1 and scalar fields, each found by its number; its values read from
// serialized bytes; and the one way from a schema message to the bus, through
// every check of what the record can carry.

#include "BusLog.h"

#include <QtGlobal>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace google {
namespace protobuf {
class FieldDescriptor;
class Message;
} // namespace protobuf
} // namespace google

namespace vorlink {

struct RowInfo;

enum class Kind : std::uint8_t { UInt32, Int32, Bool, Float };

// A piece of a layout's text, kept together with the others for the cache.
struct Span
{
    std::uint32_t at = 0, size = 0;
};

struct Slot
{
    const google::protobuf::FieldDescriptor *field;
    Kind kind;
    int oneof;                 // index of its oneof in the message, or -1
    Span key;                  // the name as a JSON string, quoted and escaped
    Span name, jsonName;
};

struct Layout
{
    bool fast = false;         // only a header and scalar fields the fast paths know
    std::vector<Slot> slots;   // scalar fields in declaration order
    std::vector<int> byNumber; // field number -> slot; -1 none
    int headerNumber = 0;
    Span headerKey;
    std::string text;          // what the spans point into

    Span add(std::string_view piece)
    {
        const Span span{std::uint32_t(text.size()), std::uint32_t(piece.size())};
        text.append(piece.data(), piece.size());
        return span;
    }
    std::string_view operator[](Span span) const { return std::string_view(text.data() + span.at, span.size); }
    bool names(const Slot &slot, std::string_view name) const
    {
        const auto is = [&](Span span) {
            return span.size == name.size() && std::memcmp(text.data() + span.at, name.data(), name.size()) == 0;
        };
        return is(slot.name) || is(slot.jsonName);
    }
};

// The header's fields, checked once against the schema.
struct HeaderShape
{
    bool ok = false;
    std::string timestamp, sequence, msgId;   // their names (both forms are the same)
    std::string timestampKey, sequenceKey, msgIdKey;
};

const HeaderShape &headerShape();
const Layout &layoutOf(const RowInfo &row);

inline float floatOf(std::uint32_t bits)
{
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

// One scalar field of a schema message as its bytes hold it.
struct FieldValue
{
    const google::protobuf::FieldDescriptor *field = nullptr;
    std::uint32_t bits = 0;     // uint32, int32 as two's complement, bool 0/1, float as its bits
    bool present = false;       // set in the bytes; a oneof member that is absent has no value at all
};

// The values of one schema message: its header and its scalar fields in the
// order the schema declares them, oneof members included.
struct MessageValues
{
    bool hasHeader = false;
    bool hasTimestamp = false;
    qint64 seconds = 0;
    qint32 nanos = 0;
    qint32 sequence = 0;
    quint32 msgId = 0;
    std::vector<FieldValue> fields;
};

// Reads the row's schema message from its serialized bytes, as protobuf's
// parser would. False when the row has a field of a type other than uint32,
// int32, bool or float, or the bytes are not in protobuf's canonical order
// (each field at most once, in field-number order); protobuf then has the
// last word.
bool readMessageValues(const RowInfo &row, const char *proto, std::size_t size, MessageValues &values);

// A number as JSON or protobuf text writes it ("-12", "1.5e3", "0x1F"), read
// exactly: Whole with its value; NotWhole for any fraction, however small
// ("1e-5000"); TooWide for a whole number past 64 bits; NotNumber for the rest.
enum class Decimal { NotNumber, NotWhole, Whole, TooWide };
Decimal readDecimal(std::string_view text, qint64 &value);

struct WireField;

// A value of a wire field as written (a number's own text, or the text of a
// string that holds one), checked against the wire type before any parser
// narrows it: empty when it fits, else the refusal, naming field, value, wire
// type and range. Words (true, NaN, Infinity, inf) are left to the parser.
std::string checkLiteral(const WireField &field, std::string_view text);

// The refusal of a oneof member, which the record has no field for:
// "data1_float: TdSetTreatmentParameter carries no such field in its record ...".
std::string notInRecord(const RowInfo &row, const std::string &member);

// Everything a row's serialized schema message must pass before it reaches
// the bus: every field fits its wire type (WireRange), and no oneof member is
// set, since the record would drop it. False with the first fault, which
// names the field.
bool checkRecordFields(const RowInfo &row, const char *proto, std::size_t size, std::string &error);

// The record's wire bytes of a row's serialized schema message, after
// checkRecordFields: a value that does not fit is refused ("value out of
// range"), a oneof member too ("not in the record"), never narrowed or dropped.
LineResult wireFromProto(const RowInfo &row, const std::string &proto, QByteArray &wire);

// Reads the header of any schema message (a parsed Envelope will do) into
// `entry`'s time, sequence and id, and finds the row the id names. Rejects a
// missing header or timestamp, nanos outside 0 to 999,999,999, an id of no
// row, and what a bus log cannot hold.
LineResult readSchemaHeader(const google::protobuf::Message &message, BusLogEntry &entry, const RowInfo *&row);

// The same checks on a header's values as they were read: Message with the
// entry's time, sequence and id filled, or the refusal in the tool's words.
LineResult checkHeaderValues(qint64 seconds, qint64 nanos, qint64 sequence, qint64 msgId, BusLogEntry &entry,
                             const RowInfo *&row);

} // namespace vorlink
