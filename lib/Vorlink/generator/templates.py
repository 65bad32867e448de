"""Output snippets of the Vorlink code generator, one named template each.

Placeholders are string.Template's $name. Per-row templates are joined by the
generator; file templates take the joined text.
"""
from string import Template as T

BANNER = "// Generated from ZelkoMsgRows.txt by vorlink_codegen.py. Do not edit.\n"

# --- ZelkoMsgDefs.h: MsgId, the payload records, payloadSize --------------------
# The header explains itself: every enumerator, record, field and member carries
# a doc comment made from its row (Doxygen reads them into the reference).

DEFS_H = T(BANNER + """#pragma once

/// \\file
/// The message ids, one payload record per message, msgIdString and payloadSize.
/// Every record, its fields and its three members are documented from the
/// message list: id, enumerator, schema message, payload size, and each wire
/// field's byte offset, wire type and schema type. The contract the records
/// share is on the page \\ref records.

#include "VorlinkExport.h"
#include "VorlinkVersion.h"

#include "Bytra/Types.h"

#include <QByteArray>
#include <QMap>
#include <QString>

/// The library's own code: records, the protobuf bridge, the conversion and the identity tables.
namespace zelko {

/// The id of every message on the bus, one enumerator per message, in ascending id.
/// The low byte is the id class (0x00 operational, 0x80 TD service, 0xA0 DD
/// service, 0xB0 FP service, 0xFF debug and acknowledge); the high byte runs
/// inside a class.
enum MsgId : quint16 {
$enumerators
};

/// \\brief The enumerator's own name, for example "MSG_ID_ALARM_STATUS_DATA" for 0x0100.
///
/// For a number that no message has, "0x" and four lower-case hexadecimal
/// digits ("0x0001", "0xabcd"). Never fails and logs nothing; a known id
/// allocates nothing. Safe on any thread.
VORLINK_EXPORT QString msgIdString(MsgId msgId);

$records
/// \\brief Payload size in bytes of each message, as it travels on the bus.
///
/// 474 keys, one per message; a number that no message has is not a key
/// (`payloadSize.value(id)` gives 0, `payloadSize.contains(id)` false). It
/// equals the record's wire size except for the five union messages, whose
/// records read fewer bytes than the payload holds. Every translation unit that
/// includes this header holds its own copy, filled when the program is loaded
/// and never changed, so it may be read from any thread; it is not exported.
static const QMap<MsgId, long long> payloadSize = {
$payload_sizes
};

} // namespace zelko
""")

ENUMERATOR = T("    $enumerator = $id, ///< $message: record ${message}Payload, $bytes bytes.")

RECORD = T("""$doc
struct VORLINK_EXPORT ${message}Payload
{
$members    /// Reads $read; see \\ref records.
    /// \\return $result
    bool fromQByteArray(const QByteArray &buffer);
    /// Appends $written to \\p out, which is not cleared first; see \\ref records.
    void toQByteArray(QByteArray &out) const;
    /// Writes the line "${message}Payload: $dump" with qDebug(); see \\ref records.
    void dump() const;
};
""")

RECORD_READ_RESULT = T("""false, with a warning in "bytra.types", when \\p buffer holds fewer than
    ///         $wire_size bytes: the fields before the one that did not fit are read, the rest keep
    ///         their values. Bytes behind the record are accepted and not looked at.""")

RECORD_READ_ANY = "true, whatever \\p buffer holds."

RECORD_DOC = T("""/**
 * \\brief $message, id $id: the payload record.
 *
 * - Id: $id, enumerator #$enumerator
 * - Schema message: \\c zelko.messages.$message (C++ \\c zelko::messages::$message)
 * - Payload size: $bytes bytes; the record reads and writes $wire_size
 *
$layout$notes */""")

RECORD_DOC_TABLE = T(""" * | Byte | Field | Wire type | Schema type | Schema field |
 * |-----:|-------|-----------|-------------|-------------:|
$lines""")

RECORD_DOC_LINE = T(" * | $offset | #$name | $wire | $schema | $number |\n")

RECORD_DOC_EMPTY = """ * No fields: any payload is accepted and none of it is read, nothing is
 * written, and the schema message holds its header alone.
"""

RECORD_DOC_UNION = T(""" *
 * A union message: the schema holds the oneof $groups, for which the record
 * has no fields. Unread bytes: $first to $last ($unread bytes) of the $bytes-byte
 * payload are not read by fromQByteArray and not written by toQByteArray.
 * serializeProto leaves the oneof unset, deserializeProto drops it, and both
 * write a debug line in the default category (see \\ref bridge).
""")

RECORD_MEMBER = T("    Bytra::Types::$type $name; ///< Byte $offset, $type on the wire, $schema in the schema (field $number).\n")

PAYLOAD_SIZE = T("    {$enumerator, $bytes},")

# --- ZelkoMsgLayouts.h: the field list of every record (library-internal) -------

LAYOUTS_H = T(BANNER + """#pragma once

#include "RecordCore.h"
#include "ZelkoMsgDefs.h"

namespace zelko {
namespace detail {

$layouts
} // namespace detail
} // namespace zelko
""")

LAYOUT = T("""template <>
struct Layout<${message}Payload>
{
    static constexpr char name[] = "${message}Payload";
    static constexpr auto fields = std::make_tuple($fields);
};
""")

LAYOUT_FIELD = T("\n        field(&${message}Payload::$name, \"$name\")")

# --- ZelkoMsgDefs.cpp: record members and msgIdString ---------------------------

DEFS_CPP = T(BANNER + """#include "ZelkoMsgDefs.h"

#include "ZelkoMsgLayouts.h"

namespace zelko {

QString msgIdString(MsgId msgId)
{
    switch (msgId) {
$name_cases
    }
    return QStringLiteral("0x%1").arg(qulonglong(msgId), 4, 16, QLatin1Char('0'));
}

$members
} // namespace zelko
""")

NAME_CASE = T("    case $enumerator: return QStringLiteral(\"$enumerator\");")

RECORD_MEMBERS = T("""bool ${message}Payload::fromQByteArray(const QByteArray &buffer) { return detail::decodeRecord(*this, buffer); }
void ${message}Payload::toQByteArray(QByteArray &out) const { detail::encodeRecord(*this, out); }
void ${message}Payload::dump() const { detail::dumpRecord(*this); }
""")

# --- ZelkoMsgProtoUtils.h: the bridge, the conversion, msgIdToProtoName --------

PROTO_UTILS_H = T(BANNER + """#pragma once

/// \\file
/// The conversion of a received message, the protobuf bridge (one serializeProto
/// and one deserializeProto per record) and msgIdToProtoName. Including this
/// header includes ZelkoMsgDefs.h and Bytra/Can.h as well. The contract of the
/// bridge is on the page \\ref bridge.

#include "VorlinkExport.h"
#include "ZelkoMsgDefs.h"

#include "Bytra/Can.h"

#include <QByteArray>
#include <QDateTime>

#include <string>

namespace zelko {

/**
 * \\brief Converts a received message into its serialized schema message, in one call.
 *
 * The message's id selects its record by exact match of all 16 bits; the record
 * (all fields 0) reads \\p message's payload with fromQByteArray, and the record's
 * serializeProto writes the schema message `zelko.messages.<Message>`, its Header
 * stamped with \\p timestamp, \\p message.sequence and \\p message.msgId, into \\p out.
 * The payload's length is not compared with payloadSize: bytes behind the
 * record are ignored, and a message without fields accepts any payload.
 *
 * \\param timestamp goes into Header.timestamp (seconds and nanoseconds since 1970;
 *        a time before 1970 gives negative nanoseconds).
 * \\param message the received message; only its sequence, msgId and payload are read.
 *        The sequence goes into Header.sequence through a \\c short (0xFFFF is -1).
 * \\param[out] out replaced on success by the schema message's bytes, never appended
 *        to; left empty (and null) on every failure. Whatever it held is gone.
 * \\return true when the id is a message's, its payload holds the record and the
 *        schema message was serialized; false otherwise.
 *
 * | Case | Logged | \\p out | Result |
 * |------|--------|---------|--------|
 * | id of no message | debug line "WARNING: MsgId=0x%1 not handled" (four lower-case hex digits) in the default category | empty | false |
 * | payload too short for the record | the warning of the field that did not fit, in "bytra.types", if that category lets warnings through | empty | false |
 * | serialization fails | nothing | empty | false |
 * | success | for the five union messages only, the debug line of serializeProto | the schema message | true |
 *
 * Throws nothing of its own. Holds no state and takes no lock: it may run on
 * several threads at once, each with its own \\p out.
 */
VORLINK_EXPORT bool canMessageToProtobufByteArray(const QDateTime &timestamp, const Bytra::Can::Message &message,
                                                  QByteArray &out);

/**
 * \\brief The full name of the schema message of \\p msgId, `"zelko.messages.<Message>"`.
 *
 * \\return a reference to the name, or to an empty string for a number that no
 *         message has. The reference stays valid while the library is loaded;
 *         two calls for one number return the same string.
 *
 * Never fails and logs nothing. The table is built at the first call, from any
 * thread (others wait for it), and only read afterwards: safe on any thread.
 */
VORLINK_EXPORT const std::string &msgIdToProtoName(unsigned short msgId);

$overloads
} // namespace zelko
""")

OVERLOAD_DECLS = T("""/// \\brief $message: writes \\p record as \\c zelko.messages.$message, stamped with a Header, into \\p out.
///
/// \\p out is replaced on success and left empty on failure; \\p msgId goes into the
/// Header unchecked.${serialize_note} See \\ref bridge.
VORLINK_EXPORT bool serializeProto(const ${message}Payload &record, const QDateTime &timestamp, short sequence, unsigned short msgId, QByteArray &out);
/// \\brief $message: reads the bytes of a \\c zelko.messages.$message into \\p record.
///
/// Every field of \\p record is written on success (a field missing from the bytes
/// becomes 0); a failed parse leaves \\p record unchanged. The Header is not
/// read.${deserialize_note} See \\ref bridge.
VORLINK_EXPORT bool deserializeProto(const QByteArray &buffer, ${message}Payload &record);
""")

OVERLOAD_UNION_NOTE = T(""" A union message: its oneof fields are $which
/// and every call writes the debug line in the default category
/// "WARNING: MsgId=$message contains union/oneof field(s); protobuf $direction is partial".""")

# --- ZelkoMsgProtoUtils.cpp -----------------------------------------------------

PROTO_UTILS_CPP = T(BANNER + """#include "ZelkoMsgProtoUtils.h"

#include "ZelkoMsgDefs.pb.h"

#include "ProtoBridge.h"
#include "ZelkoMsgLayouts.h"

namespace zelko {
namespace detail {

$schemas
} // namespace detail

$overloads
bool canMessageToProtobufByteArray(const QDateTime &timestamp, const Bytra::Can::Message &message, QByteArray &out)
{
    switch (message.msgId) {
$dispatch_cases
    }
    return detail::rejectUnknownId(message, out);
}

const std::string &msgIdToProtoName(unsigned short msgId)
{
    static const detail::ProtoNameTable table({
$proto_names
    });
    return table.find(msgId);
}

} // namespace zelko
""")

SCHEMA = T("""template <>
struct Schema<${message}Payload>
{
    using Message = messages::$message;
    static constexpr const char *unionName = $union_name;
    static constexpr auto fields = std::make_tuple($fields);
};
""")

SCHEMA_FIELD = T("\n        bridge<&${message}Payload::$name, &Message::$accessor, &Message::set_$accessor>()")

OVERLOAD_DEFS = T("""bool serializeProto(const ${message}Payload &record, const QDateTime &timestamp, short sequence, unsigned short msgId, QByteArray &out)
{
    return detail::serializeRecord(record, timestamp, sequence, msgId, out);
}
bool deserializeProto(const QByteArray &buffer, ${message}Payload &record) { return detail::deserializeRecord(buffer, record); }
""")

DISPATCH_CASE = T("    case $enumerator: return detail::convertMessage<${message}Payload>(timestamp, message, out);")

PROTO_NAME = T("        {$id, \"zelko.messages.$message\"},")

# --- ZelkoMsgRowList.h: every row as a type, for code that ranges over all ------

ROW_LIST_H = T(BANNER + """#pragma once

/// \\file
/// Every message of the dictionary as a type, for host code that ranges over
/// all of them at compile time (std::apply over a std::tuple of Rows).

#include "ZelkoMsgDefs.h"

#include <tuple>

namespace zelko {

/// A message of the dictionary as a type: its record and its id.
template <class Record, MsgId Id>
struct Row
{
    using Payload = Record;            ///< The message's payload record.
    static constexpr MsgId id = Id;    ///< The message's id.
};

/// All 474 messages as Rows, in ascending id.
using AllRows = std::tuple<
$rows>;

} // namespace zelko
""")

ROW_ENTRY = T("    Row<${message}Payload, $enumerator>")

# --- ZelkoMsgWireTable.h: every row's names and wire layout as plain data -------

WIRE_TABLE_H = T(BANNER + """#pragma once

// Each message's names, sizes and wire layout as constant data, for programs
// that range over the dictionary by id (the log reader, the Python module)
// without instantiating a record per row.

#include <cstddef>
#include <cstdint>

namespace vorlink {

enum class WireType : std::uint8_t { U08, U16, U32, S16, S32, F32 };
enum class SchemaType : std::uint8_t { Uint32, Int32, Float, Bool };

struct WireFieldEntry
{
    const char *name;
    WireType wire;
    SchemaType schema;
    std::uint16_t offset;   // byte position on the wire
    std::uint8_t width;     // bytes on the wire
    const char *oneofAfter; // union rows: the oneof group the schema puts behind this field; else nullptr
};

struct WireRowEntry
{
    std::uint16_t id;
    const char *enumerator;     // MSG_ID_...
    const char *message;        // the schema message's and the record's base name
    std::uint16_t payloadSize;  // bytes a message of this id carries on the bus
    std::uint16_t wireSize;     // bytes the record reads and writes
    std::uint16_t firstField;   // index into wireFields
    std::uint16_t fieldCount;
};

inline constexpr WireFieldEntry wireFields[] = {
$fields
};

// In ascending id.
inline constexpr WireRowEntry wireRows[] = {
$rows
};

inline constexpr std::size_t wireRowCount = sizeof wireRows / sizeof wireRows[0];

} // namespace vorlink
""")

WIRE_FIELD = T("    {\"$name\", WireType::$wire, SchemaType::$schema, $offset, $width, $oneof},")

WIRE_ROW = T("    {$id, \"$enumerator\", \"$message\", $bytes, $wire_size, $first, $count},")

# --- ZelkoMsgDefs.proto -----------------------------------------------------------

PROTO = T("""// Generated from ZelkoMsgRows.txt by vorlink_codegen.py. Do not edit.
syntax = "proto3";

package zelko.messages;

import "google/protobuf/timestamp.proto";

message Header {
  google.protobuf.Timestamp timestamp = 1;
  int32 sequence = 2;
  uint32 msgId = 3;
}

message Envelope {
  Header header = 1;
}
$messages""")

PROTO_MESSAGE = T("""
message $message {
  Header header = 1;
$fields}
""")

PROTO_FIELD = T("  $type $name = $number;\n")

PROTO_ONEOF = T("""  oneof $group {
    bool ${group}_bool = $n0;
    uint32 ${group}_uint32 = $n1;
    int32 ${group}_int32 = $n2;
    float ${group}_float = $n3;
  }
""")

# --- vorlink/__init__.pyi and vorlink/records.pyi: the Python module's types -----

PY_BANNER = "# Generated from ZelkoMsgRows.txt by vorlink_codegen.py. Do not edit.\n"

PYI_INIT = T(PY_BANNER + '''import datetime
import logging
from typing import Any, Literal, Mapping, NamedTuple, Sequence, SupportsIndex, overload

import numpy

from . import records as records
from .logs import Log as Log, LogError as LogError, read_log as read_log
from .records import Record as Record

_Buffer = bytes | bytearray | memoryview
_Key = SupportsIndex | str | MessageType | type[Record]
_Value = int | float

__version__: str
logger: logging.Logger

class PayloadTooShort(ValueError): ...

class Field(NamedTuple):
    name: str
    wire_type: str
    offset: int
    size: int
    schema_type: str

class MessageType:
    @property
    def id(self) -> int: ...
    @property
    def name(self) -> str: ...
    @property
    def enumerator(self) -> str: ...
    @property
    def proto_name(self) -> str: ...
    @property
    def payload_size(self) -> int: ...
    @property
    def wire_size(self) -> int: ...
    @property
    def fields(self) -> tuple[Field, ...]: ...
    @property
    def record(self) -> type[Record]: ...
    @property
    def dtype(self) -> numpy.dtype[numpy.void]: ...

class Envelope(NamedTuple):
    time: datetime.datetime | None
    sequence: int
    msg_id: int

def messages() -> list[MessageType]: ...
def message(key: _Key) -> MessageType: ...
$decode_overloads
@overload
def decode(__key: _Key, __payload: _Buffer) -> Record: ...
def encode(key: _Key, values: Mapping[str, _Value] | Sequence[_Value] | None = None, /, *,
           fill: _Value | None = None, **fields: _Value) -> bytes: ...
def to_protobuf(key: _Key, payload: _Buffer, *, time: datetime.datetime | numpy.datetime64 | float,
                sequence: int) -> bytes: ...
$from_protobuf_overloads
@overload
def from_protobuf(key: _Key, data: _Buffer) -> Record: ...
def read_header(data: _Buffer) -> Envelope: ...
''')

PYI_DECODE = T('''@overload
def decode(__key: $keys, __payload: _Buffer) -> records.$message: ...''')

PYI_FROM_PROTOBUF = T('''@overload
def from_protobuf(key: $keys, data: _Buffer) -> records.$message: ...''')

PYI_KEYS = T('Literal[$id, "$message", "$enumerator", "zelko.messages.$message"]')

PYI_RECORDS = T(PY_BANNER + '''from typing import Any, ClassVar, Iterator, SupportsIndex, TypeVar, overload

import vorlink

_R = TypeVar("_R", bound="Record")

class Record(tuple[Any, ...]):
    message_type: ClassVar[vorlink.MessageType | None]   # None on Record itself
    unread: bytes
    def __new__(cls: type[_R], *values: int | float, **fields: int | float) -> _R: ...
    def keys(self) -> tuple[str, ...]: ...
    def items(self) -> Iterator[tuple[str, Any]]: ...
    @overload
    def __getitem__(self, key: SupportsIndex, /) -> Any: ...
    @overload
    def __getitem__(self, key: slice, /) -> tuple[Any, ...]: ...
    @overload
    def __getitem__(self, key: str, /) -> Any: ...
    def dump(self) -> str: ...
$classes''')

PYI_CLASS = T('''
class $message(Record):
$members''')

PYI_MEMBER = T("    $name: $type$ignore\n")

# --- vorlink_messages.h: the same rows for the nodes' firmware, in C99 -----------

FIRMWARE_H = T(BANNER + """#ifndef VORLINK_MESSAGES_H
#define VORLINK_MESSAGES_H

/*
 * The messages of the bus for a node's own firmware: per message its id, its
 * payload size, and for a message with fields a struct with them in wire
 * order and functions that move it to and from its wire bytes.
 *
 * C99 (and C++), freestanding apart from <stdint.h>, <stddef.h> and
 * <string.h> (memcpy): no allocation, no I/O. Every function is static
 * inline, so a node pays in flash only for the messages it packs or unpacks.
 *
 * On the wire a message is its fields back to back, no tag, no gap, each
 * least significant byte first; a float is its IEEE 754 bits in that order.
 * The functions move bytes with shifts, so they are right on a big-endian
 * controller too, and need no alignment of the buffer.
 */

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A float on the wire is IEEE 754 binary32; the controller's must be 32 bits. */
typedef char vorlink_float_is_32_bits[sizeof(float) == 4 ? 1 : -1];

/* Number of messages in vorlink_message_table(). */
#define VORLINK_MESSAGE_COUNT $count

static inline void vorlink_put_u08(uint8_t *p, uint8_t v) { p[0] = v; }

static inline void vorlink_put_u16(uint8_t *p, uint16_t v)
{
    p[0] = (uint8_t)(v & 0xFFu);
    p[1] = (uint8_t)(v >> 8);
}

static inline void vorlink_put_u32(uint8_t *p, uint32_t v)
{
    p[0] = (uint8_t)(v & 0xFFu);
    p[1] = (uint8_t)((v >> 8) & 0xFFu);
    p[2] = (uint8_t)((v >> 16) & 0xFFu);
    p[3] = (uint8_t)(v >> 24);
}

static inline void vorlink_put_s16(uint8_t *p, int16_t v) { vorlink_put_u16(p, (uint16_t)v); }

static inline void vorlink_put_s32(uint8_t *p, int32_t v) { vorlink_put_u32(p, (uint32_t)v); }

static inline void vorlink_put_f32(uint8_t *p, float v)
{
    uint32_t bits;
    memcpy(&bits, &v, sizeof bits);
    vorlink_put_u32(p, bits);
}

static inline uint8_t vorlink_get_u08(const uint8_t *p) { return p[0]; }

static inline uint16_t vorlink_get_u16(const uint8_t *p)
{
    return (uint16_t)((unsigned)p[0] | ((unsigned)p[1] << 8));
}

static inline uint32_t vorlink_get_u32(const uint8_t *p)
{
    return (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
}

/* Exact-width signed types are two's complement: the bits carry over as they are. */
static inline int16_t vorlink_get_s16(const uint8_t *p)
{
    uint16_t bits = vorlink_get_u16(p);
    int16_t v;
    memcpy(&v, &bits, sizeof v);
    return v;
}

static inline int32_t vorlink_get_s32(const uint8_t *p)
{
    uint32_t bits = vorlink_get_u32(p);
    int32_t v;
    memcpy(&v, &bits, sizeof v);
    return v;
}

static inline float vorlink_get_f32(const uint8_t *p)
{
    uint32_t bits = vorlink_get_u32(p);
    float v;
    memcpy(&v, &bits, sizeof v);
    return v;
}

/*
 * Per message X (its MSG_ID_ name without the prefix):
 *   VORLINK_X_ID     the message id
 *   VORLINK_X_SIZE   the payload size on the bus
 * and for a message with fields:
 *   struct vorlink_x                    the fields, in wire order
 *   int vorlink_x_pack(dst, size, src)  writes the wire bytes to dst and gives
 *       their count; -1, and nothing written, if size is smaller than that
 *   int vorlink_x_unpack(dst, src, size)  reads the wire bytes into dst and
 *       gives 0; -1, and dst untouched, if size is smaller than the record;
 *       bytes behind it are not looked at
 * For the messages whose payload carries a union (VORLINK_X_SIZE larger than
 * what pack writes), the struct holds the fields ahead of and between the
 * union parts as the host library's records do; what lies behind them is
 * settled between the nodes.
 */
$messages
/* The table holds every message's name unless VORLINK_MESSAGE_NAMES is
 * defined as 0 before this header: then each name is NULL, and a node that
 * looks messages up by id keeps the names' flash. */
#ifndef VORLINK_MESSAGE_NAMES
#define VORLINK_MESSAGE_NAMES 1
#endif
#if VORLINK_MESSAGE_NAMES
#define VORLINK_NAME_(text) text
#else
#define VORLINK_NAME_(text) NULL
#endif

/* One message of the bus, for a receiver's dispatch. */
struct vorlink_message_info {
    uint16_t id;        /* VORLINK_X_ID */
    uint16_t size;      /* VORLINK_X_SIZE: payload bytes on the bus */
    uint16_t wire_size; /* bytes vorlink_x_pack writes and vorlink_x_unpack reads; 0 without fields */
    const char *name;   /* the message's name, "AlarmStatusData" for MSG_ID_ALARM_STATUS_DATA, or NULL */
};

/* All VORLINK_MESSAGE_COUNT messages, in ascending id. */
static inline const struct vorlink_message_info *vorlink_message_table(void)
{
    static const struct vorlink_message_info table[VORLINK_MESSAGE_COUNT] = {
$table
    };
    return table;
}

/* The message with this id, or NULL for an id of no message. */
static inline const struct vorlink_message_info *vorlink_message_by_id(uint16_t id)
{
    const struct vorlink_message_info *table = vorlink_message_table();
    size_t low = 0, high = VORLINK_MESSAGE_COUNT;
    while (low < high) {
        size_t mid = low + (high - low) / 2;
        if (table[mid].id < id)
            low = mid + 1;
        else
            high = mid;
    }
    return low < VORLINK_MESSAGE_COUNT && table[low].id == id ? &table[low] : NULL;
}

#ifdef __cplusplus
}
#endif

#endif /* VORLINK_MESSAGES_H */
""")

FIRMWARE_MACROS = T("""
/* $message */
#define VORLINK_${upper}_ID $id
#define VORLINK_${upper}_SIZE $bytes
""")

FIRMWARE_RECORD = T("""
struct vorlink_$lower {
$members};

static inline int vorlink_${lower}_pack(uint8_t *dst, size_t size, const struct vorlink_$lower *src)
{
    if (size < ${wire_size}u)
        return -1;
$puts    return $wire_size;
}

static inline int vorlink_${lower}_unpack(struct vorlink_$lower *dst, const uint8_t *src, size_t size)
{
    if (size < ${wire_size}u)
        return -1;
$gets    return 0;
}
""")

FIRMWARE_MEMBER = T("    $ctype $name;\n")

FIRMWARE_PUT = T("    vorlink_put_$wire(dst + $offset, src->$name);\n")

FIRMWARE_GET = T("    dst->$name = vorlink_get_$wire(src + $offset);\n")

FIRMWARE_TABLE_ENTRY = T("        {$id, $bytes, $wire_size, VORLINK_NAME_(\"$message\")},")

# --- VorlinkFirmwareRows.c: every row's pack and unpack behind one table (tests) -

FIRMWARE_ROWS_C = T(BANNER + """#include "FirmwareRows.h"

#include "vorlink_messages.h"
$rows
const struct fw_row fw_rows[] = {
$entries
};

const size_t fw_row_count = sizeof fw_rows / sizeof fw_rows[0];

size_t fw_message_count(void) { return VORLINK_MESSAGE_COUNT; }

struct fw_info fw_table_entry(size_t k)
{
    const struct vorlink_message_info *e = vorlink_message_table() + k;
    struct fw_info info;
    info.id = e->id;
    info.size = e->size;
    info.wire_size = e->wire_size;
    info.name = e->name;
    return info;
}

long fw_lookup(uint16_t id)
{
    const struct vorlink_message_info *e = vorlink_message_by_id(id);
    return e == NULL ? -1 : (long)(e - vorlink_message_table());
}
""")

# The record is filled from the values first, so that a refused unpack shows
# what it left in the record.
FIRMWARE_ROW_FUNCTIONS = T("""
static const struct fw_field fields_$lower[] = {
$fields
};

static int pack_$lower(uint8_t *dst, size_t size, const union fw_value *v)
{
    struct vorlink_$lower r;
$to_record    return vorlink_${lower}_pack(dst, size, &r);
}

static int unpack_$lower(union fw_value *v, const uint8_t *src, size_t size)
{
    struct vorlink_$lower r;
    int status;
$to_record    status = vorlink_${lower}_unpack(&r, src, size);
$from_record    return status;
}
""")

FIRMWARE_ROW_FIELD = T("    {\"$name\", sizeof(((struct vorlink_$lower *)0)->$name), offsetof(struct vorlink_$lower, $name)},")

FIRMWARE_TO_RECORD = T("    r.$name = v[$index].$wire;\n")

FIRMWARE_FROM_RECORD = T("    v[$index].$wire = r.$name;\n")

FIRMWARE_ROW_ENTRY = T("    {VORLINK_${upper}_ID, VORLINK_${upper}_SIZE, $count, $fields, $pack, $unpack},")
