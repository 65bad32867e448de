#!/usr/bin/env python3
"""Generates every per-message piece of Vorlink from the message list.

    vorlink_codegen.py ROWS OUTDIR

reads ROWS (ZelkoMsgRows.txt) and writes into OUTDIR the record classes, the
field layouts, the protobuf bridge and dispatch, the row list, the wire table,
the schema ZelkoMsgDefs.proto and the Python module's type stubs (vorlink/).
The output depends on ROWS alone: no dates, no paths.
"""
import os
import re
import sys
from dataclasses import dataclass, field as dc_field

import templates as t

WIRE_WIDTH = {"U08": 1, "U16": 2, "U32": 4, "S16": 2, "S32": 4, "F32": 4}
SCHEMA_TYPE = {"U08": "uint32", "U16": "uint32", "U32": "uint32", "S16": "int32", "S32": "int32", "F32": "float"}
ONEOF_WIDTH = 4  # bool, uint32, int32, float

FIELD_RE = re.compile(r"^(?P<name>[A-Za-z_]\w*?)(?:(?P<first>\d+)\.\.(?P<last>\d+))?:(?P<type>U08|U16|U32|S16|S32|F32)"
                      r"(?P<bool>=bool)?(?:\+(?P<oneof>[A-Za-z_]\w*))?$")


@dataclass
class Field:
    name: str
    wire: str
    as_bool: bool = False
    oneof_after: str = ""

    @property
    def schema_type(self):
        return "bool" if self.as_bool else SCHEMA_TYPE[self.wire]


@dataclass
class Row:
    id: int
    enumerator: str
    message: str
    bytes: int
    fields: list = dc_field(default_factory=list)

    @property
    def hex_id(self):
        return f"0x{self.id:04X}"

    @property
    def wire_size(self):
        return sum(WIRE_WIDTH[f.wire] for f in self.fields)

    @property
    def is_union(self):
        return any(f.oneof_after for f in self.fields)


class RowError(Exception):
    pass


def message_name(enumerator):
    words = enumerator[len("MSG_ID_"):].split("_")
    return "".join(w[:1].upper() + w[1:].lower() for w in words)


def parse_fields(text):
    if text == "-":
        return []
    fields = []
    for token in text.split():
        m = FIELD_RE.match(token)
        if not m:
            raise RowError(f"bad field '{token}'")
        names = [m["name"]]
        if m["first"]:
            first, last = int(m["first"]), int(m["last"])
            if last <= first:
                raise RowError(f"empty run '{token}'")
            names = [f"{m['name']}{n}" for n in range(first, last + 1)]
        if m["bool"] and m["type"] != "U32":
            raise RowError(f"only a U32 can be held as a bool: '{token}'")
        for name in names:
            fields.append(Field(name, m["type"], bool(m["bool"])))
        if m["oneof"]:
            if m["first"]:
                raise RowError(f"a oneof group follows one field, not a run: '{token}'")
            fields[-1].oneof_after = m["oneof"]
    return fields


def parse_rows(path):
    rows = []
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.strip()
            if not line or line.startswith("#"):
                continue
            try:
                cols = line.split(None, 4)
                if len(cols) != 5:
                    raise RowError("expected id, enumerator, message, bytes and fields")
                row = Row(int(cols[0], 16), cols[1], cols[2], int(cols[3]), parse_fields(cols[4]))
                check_row(row, rows)
            except (RowError, ValueError) as e:
                raise SystemExit(f"{path}:{number}: {e}")
            rows.append(row)
    return rows


def check_row(row, earlier):
    if not 0 <= row.id <= 0xFFFF:
        raise RowError("id is not 16 bits")
    if earlier and row.id <= earlier[-1].id:
        raise RowError("ids must ascend")
    if not row.enumerator.startswith("MSG_ID_") or message_name(row.enumerator) != row.message:
        raise RowError(f"message name {row.message} does not follow from {row.enumerator}")
    names = [f.name for f in row.fields] + [f"{f.oneof_after}_{k}" for f in row.fields if f.oneof_after
                                            for k in ("bool", "uint32", "int32", "float")]
    if len({n.lower() for n in names} | {"header"}) != len(names) + 1:
        raise RowError("field names repeat (protobuf accessors ignore case)")
    if not row.is_union and row.wire_size != row.bytes:
        raise RowError(f"fields make {row.wire_size} bytes, the row says {row.bytes}")


# --- emitters ------------------------------------------------------------------

def join(template, rows, **extra):
    return "\n".join(template.substitute(enumerator=r.enumerator, message=r.message, id=r.hex_id,
                                         bytes=r.bytes, **extra) for r in rows)


def schema_numbers(row):
    """Each field's number in its schema message: 1 is the header, the fields
    follow from 2, and a oneof group behind a field takes the next four."""
    numbers, number = [], 2
    for f in row.fields:
        numbers.append(number)
        number += 1 + (ONEOF_WIDTH if f.oneof_after else 0)
    return numbers


def offsets(row):
    result, offset = [], 0
    for f in row.fields:
        result.append(offset)
        offset += WIRE_WIDTH[f.wire]
    return result


def plural(n, word):
    return f"{n} {word}" + ("" if n == 1 else "s")


def record_doc(r):
    if r.fields:
        layout = t.RECORD_DOC_TABLE.substitute(lines="".join(
            t.RECORD_DOC_LINE.substitute(offset=o, name=f.name, wire=f.wire, schema=f.schema_type, number=n)
            for f, o, n in zip(r.fields, offsets(r), schema_numbers(r))))
    else:
        layout = t.RECORD_DOC_EMPTY
    notes = ""
    if r.is_union:
        groups = [f.oneof_after for f in r.fields if f.oneof_after]
        notes = t.RECORD_DOC_UNION.substitute(
            groups=("groups " + " and ".join(groups)) if len(groups) > 1 else "group " + groups[0],
            first=r.wire_size, last=r.bytes - 1, unread=r.bytes - r.wire_size, bytes=r.bytes)
    return t.RECORD_DOC.substitute(message=r.message, id=r.hex_id, enumerator=r.enumerator, bytes=r.bytes,
                                   wire_size=r.wire_size, layout=layout, notes=notes)


def defs_h(rows):
    records = "\n".join(t.RECORD.substitute(
        message=r.message,
        doc=record_doc(r),
        read=f"the {plural(len(r.fields), 'field')} ({r.wire_size} bytes) from \\p buffer, from byte 0" if r.fields
        else "nothing from \\p buffer",
        result=t.RECORD_READ_RESULT.substitute(wire_size=r.wire_size) if r.fields else t.RECORD_READ_ANY,
        written=f"the {r.wire_size} wire bytes" if r.fields else "nothing",
        dump=", ".join(f"{f.name}=<value>" for f in r.fields) or "<none>",
        members="".join(t.RECORD_MEMBER.substitute(type=f.wire, name=f.name, offset=o, schema=f.schema_type,
                                                   number=n)
                        for f, o, n in zip(r.fields, offsets(r), schema_numbers(r))) +
                ("\n" if r.fields else "")) for r in rows)
    return t.DEFS_H.substitute(enumerators=join(t.ENUMERATOR, rows), records=records,
                               payload_sizes=join(t.PAYLOAD_SIZE, rows))


def layouts_h(rows):
    layouts = "\n".join(t.LAYOUT.substitute(
        message=r.message,
        fields=",".join(t.LAYOUT_FIELD.substitute(message=r.message, name=f.name) for f in r.fields)) for r in rows)
    return t.LAYOUTS_H.substitute(layouts=layouts)


def defs_cpp(rows):
    return t.DEFS_CPP.substitute(name_cases=join(t.NAME_CASE, rows),
                                 members="\n".join(t.RECORD_MEMBERS.substitute(message=r.message) for r in rows))


def union_note(r, which, direction):
    return t.OVERLOAD_UNION_NOTE.substitute(which=which, message=r.message, direction=direction) if r.is_union else ""


def proto_utils_h(rows):
    return t.PROTO_UTILS_H.substitute(overloads="\n".join(t.OVERLOAD_DECLS.substitute(
        message=r.message,
        serialize_note=union_note(r, "left unset,", "serialization"),
        deserialize_note=union_note(r, "dropped,", "deserialization")) for r in rows))


def proto_utils_cpp(rows):
    schemas = "\n".join(t.SCHEMA.substitute(
        message=r.message,
        union_name=f'"{r.message}"' if r.is_union else "nullptr",
        fields=",".join(t.SCHEMA_FIELD.substitute(message=r.message, name=f.name, accessor=f.name.lower())
                        for f in r.fields)) for r in rows)
    return t.PROTO_UTILS_CPP.substitute(
        schemas=schemas,
        overloads="\n".join(t.OVERLOAD_DEFS.substitute(message=r.message) for r in rows),
        dispatch_cases=join(t.DISPATCH_CASE, rows),
        proto_names=join(t.PROTO_NAME, rows))


def row_list_h(rows):
    return t.ROW_LIST_H.substitute(rows=",\n".join(t.ROW_ENTRY.substitute(message=r.message,
                                                                         enumerator=r.enumerator) for r in rows))


def wire_table_h(rows):
    field_lines, row_lines = [], []
    for r in rows:
        first, offset = len(field_lines), 0
        for f in r.fields:
            field_lines.append(t.WIRE_FIELD.substitute(name=f.name, wire=f.wire,
                                                       schema=f.schema_type.capitalize(),
                                                       offset=offset, width=WIRE_WIDTH[f.wire],
                                                       oneof=f'"{f.oneof_after}"' if f.oneof_after else "nullptr"))
            offset += WIRE_WIDTH[f.wire]
        row_lines.append(t.WIRE_ROW.substitute(
            id=r.hex_id, enumerator=r.enumerator, message=r.message, bytes=r.bytes, wire_size=r.wire_size,
            first=first, count=len(r.fields)))
    return t.WIRE_TABLE_H.substitute(fields="\n".join(field_lines), rows="\n".join(row_lines))


def proto(rows):
    messages = []
    for r in rows:
        number, lines = 2, []
        for f in r.fields:
            lines.append(t.PROTO_FIELD.substitute(type=f.schema_type, name=f.name, number=number))
            number += 1
            if f.oneof_after:
                lines.append(t.PROTO_ONEOF.substitute(group=f.oneof_after, **{f"n{k}": number + k for k in range(4)}))
                number += ONEOF_WIDTH
        messages.append(t.PROTO_MESSAGE.substitute(message=r.message, fields="".join(lines)))
    return t.PROTO.substitute(messages="".join(messages))


PY_TYPE = {"U08": "int", "U16": "int", "U32": "int", "S16": "int", "S32": "int", "F32": "float"}
# A field that takes the name of one of tuple's methods hides it in its record.
TUPLE_NAMES = set(dir(tuple))


def pyi_keys(r):
    return t.PYI_KEYS.substitute(id=r.id, message=r.message, enumerator=r.enumerator)


def pyi_init(rows):
    return t.PYI_INIT.substitute(
        decode_overloads="\n".join(t.PYI_DECODE.substitute(keys=pyi_keys(r), message=r.message) for r in rows),
        from_protobuf_overloads="\n".join(t.PYI_FROM_PROTOBUF.substitute(keys=pyi_keys(r), message=r.message)
                                          for r in rows))


def pyi_records(rows):
    return t.PYI_RECORDS.substitute(classes="".join(t.PYI_CLASS.substitute(
        message=r.message,
        members="".join(t.PYI_MEMBER.substitute(
            name=f.name, type=PY_TYPE[f.wire],
            ignore="  # type: ignore[assignment]" if f.name in TUPLE_NAMES else "") for f in r.fields) or "    pass\n")
        for r in rows))


OUTPUTS = {
    "ZelkoMsgDefs.h": defs_h,
    "ZelkoMsgLayouts.h": layouts_h,
    "ZelkoMsgDefs.cpp": defs_cpp,
    "ZelkoMsgProtoUtils.h": proto_utils_h,
    "ZelkoMsgProtoUtils.cpp": proto_utils_cpp,
    "ZelkoMsgRowList.h": row_list_h,
    "ZelkoMsgWireTable.h": wire_table_h,
    "ZelkoMsgDefs.proto": proto,
    "vorlink/__init__.pyi": pyi_init,
    "vorlink/records.pyi": pyi_records,
}


# --- firmware: vorlink_messages.h, C99 for the nodes -----------------------------

C_TYPE = {"U08": "uint8_t", "U16": "uint16_t", "U32": "uint32_t", "S16": "int16_t", "S32": "int32_t", "F32": "float"}


def c_name(row):
    """The message's name in the firmware header: the enumerator without MSG_ID_."""
    return row.enumerator[len("MSG_ID_"):]


def check_firmware_names(rows):
    """Two rows whose C names would meet: VORLINK_A_ID against VORLINK_B_ID of
    another row, or vorlink_a_pack against the struct of a row named A_PACK."""
    seen = {"VORLINK_MESSAGE_COUNT": "the header", "vorlink_message_info": "the header",
            "vorlink_message_table": "the header", "vorlink_message_by_id": "the header",
            "vorlink_float_is_32_bits": "the header"}
    seen.update({f"vorlink_{d}_{w.lower()}": "the header" for d in ("put", "get") for w in WIRE_WIDTH})
    for r in rows:
        upper, lower = c_name(r), c_name(r).lower()
        names = [f"VORLINK_{upper}_ID", f"VORLINK_{upper}_SIZE"]
        if r.fields:
            names += [f"vorlink_{lower}", f"vorlink_{lower}_pack", f"vorlink_{lower}_unpack"]
        for name in names:
            if name in seen:
                raise SystemExit(f"{r.enumerator}: its firmware name {name} is taken by {seen[name]}")
            seen[name] = r.enumerator


def wire_offsets(row):
    at = 0
    for f in row.fields:
        yield f, at
        at += WIRE_WIDTH[f.wire]


def firmware_h(rows):
    check_firmware_names(rows)
    messages = []
    for r in rows:
        upper, lower = c_name(r), c_name(r).lower()
        messages.append(t.FIRMWARE_MACROS.substitute(message=r.message, upper=upper, id=r.hex_id, bytes=r.bytes))
        if r.fields:
            messages.append(t.FIRMWARE_RECORD.substitute(
                lower=lower, wire_size=r.wire_size,
                members="".join(t.FIRMWARE_MEMBER.substitute(ctype=C_TYPE[f.wire], name=f.name) for f in r.fields),
                puts="".join(t.FIRMWARE_PUT.substitute(wire=f.wire.lower(), offset=at, name=f.name)
                             for f, at in wire_offsets(r)),
                gets="".join(t.FIRMWARE_GET.substitute(wire=f.wire.lower(), offset=at, name=f.name)
                             for f, at in wire_offsets(r))))
    table = "\n".join(t.FIRMWARE_TABLE_ENTRY.substitute(id=r.hex_id, bytes=r.bytes, wire_size=r.wire_size,
                                                        message=r.message) for r in rows)
    return t.FIRMWARE_H.substitute(count=len(rows), messages="".join(messages), table=table)


def firmware_rows_c(rows):
    functions, entries = [], []
    for r in rows:
        upper, lower = c_name(r), c_name(r).lower()
        if r.fields:
            functions.append(t.FIRMWARE_ROW_FUNCTIONS.substitute(
                lower=lower,
                fields="\n".join(t.FIRMWARE_ROW_FIELD.substitute(lower=lower, name=f.name) for f in r.fields),
                to_record="".join(t.FIRMWARE_TO_RECORD.substitute(name=f.name, index=k, wire=f.wire)
                                  for k, f in enumerate(r.fields)),
                from_record="".join(t.FIRMWARE_FROM_RECORD.substitute(name=f.name, index=k, wire=f.wire)
                                    for k, f in enumerate(r.fields))))
        entries.append(t.FIRMWARE_ROW_ENTRY.substitute(
            upper=upper, count=len(r.fields), fields=f"fields_{lower}" if r.fields else "NULL",
            pack=f"pack_{lower}" if r.fields else "NULL", unpack=f"unpack_{lower}" if r.fields else "NULL"))
    return t.FIRMWARE_ROWS_C.substitute(rows="".join(functions), entries="\n".join(entries))


FIRMWARE_OUTPUTS = {
    "vorlink_messages.h": firmware_h,
    "VorlinkFirmwareRows.c": firmware_rows_c,
}


def main(argv):
    if len(argv) != 3:
        raise SystemExit(__doc__)
    rows = parse_rows(argv[1])
    for name, emit in {**OUTPUTS, **FIRMWARE_OUTPUTS}.items():
        text = emit(rows)
        path = os.path.join(argv[2], name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        # Leave an unchanged file alone so the build does not redo its dependents.
        if os.path.exists(path):
            with open(path, encoding="utf-8") as f:
                if f.read() == text:
                    continue
        with open(path, "w", encoding="utf-8", newline="\n") as f:
            f.write(text)


if __name__ == "__main__":
    main(sys.argv)
