#pragma once

// protobuf's text format of the schema message that the library makes of a
// bus-log message, written straight from the message's wire bytes with the
// schema's descriptors, as the JSON writer is: byte for byte what
// google::protobuf::TextFormat::Printer prints with its default options of
// what canMessageToProtobufByteArray gives, without building the message.

#include <string>

namespace vorlink {

struct BusLogEntry;
struct RowInfo;

// Appends the text of `entry`'s schema message: the header as a nested
// block, then one "name: value" line for each field that is not zero (the
// oneof members of the union messages, which the library leaves unset, never).
// `entry.payload` holds at least row.wireSize bytes.
void appendProtoText(const RowInfo &row, const BusLogEntry &entry, std::string &out);

} // namespace vorlink
