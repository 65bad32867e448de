#pragma once

// What each wire type can carry, and the check of a value against it. A
// schema message holds a field as uint32, int32, bool or float, wider than
// most wire types; a value that its wire field cannot hold is refused here,
// never narrowed on its way to the bus.

#include "ZelkoMsgWireTable.h"

#include <QtGlobal>

#include <cstddef>
#include <string>

namespace vorlink {

struct RowInfo;

// "U08" ... "F32".
const char *wireTypeName(WireType type);

// The smallest and largest whole value of an integer wire type (F32: every
// whole number that qint64 holds; a float's own range is the reader's).
struct WireRange
{
    qint64 min, max;
};
WireRange wireRange(WireType type);

// True when `value` fits the integer wire type.
bool fitsWire(WireType type, qint64 value);

// The one wording of a value that does not fit its field:
// "command: 300 does not fit U08 (0 to 255)".
std::string doesNotFit(const std::string &field, WireType type, const std::string &value);

// The one wording of a fraction given to an integer field:
// "alarmName: 1e-5000 is not a whole number, which U32 needs (0 to 4294967295)".
std::string notWhole(const std::string &field, WireType type, const std::string &value);

// Walks a row's schema message in protobuf's wire format and checks every
// field that goes on the bus against its wire type, as protobuf's parser
// would read it (the last of repeated occurrences counts). False with the
// first fault, in doesNotFit's words; bytes that do not parse are left to
// protobuf's parser and pass here.
bool checkWireRanges(const RowInfo &row, const char *proto, std::size_t size, std::string &error);

} // namespace vorlink
