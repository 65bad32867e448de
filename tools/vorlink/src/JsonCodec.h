#pragma once

// JSON of the schema messages, both ways, without protobuf's JSON utilities
// on the common path. The writer walks a message's serialized bytes with the
// schema's descriptors and writes through RapidJSON's writer; the reader is
// RapidJSON's SAX reader driven by the same descriptors. Whatever either does
// not know for certain (a field type the schema does not use today, bytes out
// of their canonical order, a number written as a string, a time with an
// offset) goes to protobuf's own JSON utilities, so the result is always
// theirs.

#include <QtGlobal>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace google {
namespace protobuf {
class FieldDescriptor;
} // namespace protobuf
} // namespace google

namespace vorlink {

struct BusLogEntry;
struct RowInfo;

// Appends the JSON of the row's schema message, given as its serialized bytes
// (what canMessageToProtobufByteArray gives), to `out`, without a newline:
// byte for byte what protobuf's MessageToJsonString writes with
// preserve_proto_field_names and always_print_primitive_fields, except that a
// float -0 is "-0.0" (see appendFloatJson). False when the
// bytes do not make such a message; then `error` says why and `out` is as it
// was.
bool appendJsonMessage(const RowInfo &row, const char *proto, std::size_t size, std::string &out,
                       std::string &error);

// The fast half of parseJsonLine: true with `entry` filled when the line is a
// message of the dictionary in the shapes protobuf writes (either field-name
// form, numbers as JSON numbers, NaN and the infinities as strings, a UTC
// time), false when it leaves the line to protobuf's parser. Never rejects.
bool readJsonLineFast(std::string_view line, BusLogEntry &entry);

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

// Number spelling, appended to `out`.
// A float as protobuf's JSON writes it: six significant digits when they read
// back to the same float, nine otherwise ("%.6g" / "%.9g"); "NaN",
// "Infinity", "-Infinity" for the others (without quotes). Except -0: "-0.0",
// which protobuf's reader keeps negative, where it reads its own "-0" as 0.
void appendFloatJson(std::string &out, float value);
// A float in the shortest form that reads back to the same float
// (std::to_chars); "nan", "inf", "-inf" for the others.
void appendFloatShortest(std::string &out, float value);
// A field's value: unsigned or signed decimal, "true"/"false", or a float by
// `appendFloatShortest`. An absent oneof member appends nothing.
void appendFieldValue(std::string &out, const FieldValue &value);

} // namespace vorlink
