#pragma once

// JSON and CSV of the schema messages, written. The writer walks a message's
// serialized bytes with the schema's descriptors (SchemaMessage.h) and writes
// through RapidJSON's writer, without protobuf's JSON utilities on the common
// path; whatever it does not know for certain (a field type the schema does
// not use today, bytes out of their canonical order) goes to protobuf's own
// writer, so the result is always theirs. Reading JSON is JsonReader.h's.

#include "SchemaMessage.h"

#include <QtGlobal>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

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
