#pragma once

// The JSON Lines that `vorlink decode --format json` writes, and the header of
// any schema message, read back into bus-log entries.

#include "BusLog.h"

#include <string_view>

namespace google {
namespace protobuf {
class Message;
} // namespace protobuf
} // namespace google

namespace vorlink {

struct RowInfo;

// Parses one JSON Lines object as `decode --format json` writes it (protobuf
// JSON of a schema message with its `header`) into the message's bus-log
// entry: time, sequence and id from the header, the payload as the record's
// wire bytes. Blank lines are Skip. Rejects an unknown id, a field the schema
// message does not have, a value its wire field cannot hold, JSON that is not
// well-formed (a trailing comma, a member given twice), and anything that is
// not such an object. `line` may span several lines.
LineResult parseJsonLine(std::string_view line, BusLogEntry &entry);

// The record's wire bytes of a row's serialized schema message, after every
// field was checked against its wire type: a value that does not fit is
// refused ("value out of range"), never narrowed.
LineResult wireFromProto(const RowInfo &row, const std::string &proto, QByteArray &wire);

// Reads the header of any schema message (a parsed Envelope will do) into
// `entry`'s time, sequence and id, and finds the row the id names. Rejects a
// missing header or timestamp, an id of no row, and what a bus log cannot hold.
LineResult readSchemaHeader(const google::protobuf::Message &message, BusLogEntry &entry, const RowInfo *&row);

} // namespace vorlink
