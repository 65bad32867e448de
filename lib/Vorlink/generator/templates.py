"""Output snippets of the Vorlink code generator, one named template each.

Placeholders are string.Template's $name. Per-row templates are joined by the
generator; file templates take the joined text.
"""
from string import Template as T

BANNER = "// Generated from ZelkoMsgRows.txt by vorlink_codegen.py. Do not edit.\n"

# --- ZelkoMsgDefs.h: MsgId, the payload records, payloadSize --------------------

DEFS_H = T(BANNER + """#pragma once

#include "VorlinkExport.h"

#include "Bytra/Types.h"

#include <QByteArray>
#include <QMap>
#include <QString>

namespace zelko {

enum MsgId : quint16 {
$enumerators
};

// The enumerator's name, or "0x" and four hex digits for an id of no message.
VORLINK_EXPORT QString msgIdString(MsgId msgId);

$records
// Payload size in bytes of each message. Every translation unit that includes
// this header holds its own copy; it is not exported.
static const QMap<MsgId, long long> payloadSize = {
$payload_sizes
};

} // namespace zelko
""")

ENUMERATOR = T("    $enumerator = $id,")

RECORD = T("""struct VORLINK_EXPORT ${message}Payload
{
$members    bool fromQByteArray(const QByteArray &buffer);
    void toQByteArray(QByteArray &out) const;
    void dump() const;
};
""")

RECORD_MEMBER = T("    Bytra::Types::$type $name;\n")

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

#include "VorlinkExport.h"
#include "ZelkoMsgDefs.h"

#include "Bytra/Can.h"

#include <QByteArray>
#include <QDateTime>

#include <string>

namespace zelko {

// Decodes a received message's payload into its record and writes the record
// as its schema message, stamped with a Header, into `out` (emptied on failure).
VORLINK_EXPORT bool canMessageToProtobufByteArray(const QDateTime &timestamp, const Bytra::Can::Message &message,
                                                  QByteArray &out);

// "zelko.messages.<Message>", or an empty string for an id of no message.
VORLINK_EXPORT const std::string &msgIdToProtoName(unsigned short msgId);

$overloads
} // namespace zelko
""")

OVERLOAD_DECLS = T("""VORLINK_EXPORT bool serializeProto(const ${message}Payload &record, const QDateTime &timestamp, short sequence, unsigned short msgId, QByteArray &out);
VORLINK_EXPORT bool deserializeProto(const QByteArray &buffer, ${message}Payload &record);
""")

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

#include "ZelkoMsgDefs.h"

#include <tuple>

namespace zelko {

// A message of the dictionary as a type: its record and its id.
template <class Record, MsgId Id>
struct Row
{
    using Payload = Record;
    static constexpr MsgId id = Id;
};

// All rows, in ascending id.
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
