#!/usr/bin/env python3
"""Writes the hand-written-style floors of the benchmark, one per message.

    floor_codegen.py ROWS OUTFILE

For every row of ZelkoMsgRows.txt it emits what a host would write by hand
without the library: a packed struct of the row's wire fields (filled and
emptied with one memcpy) and straight-line code that fills the row's schema
message from it with the generated setters, and reads it back with the
generated getters. The rows are parsed by the library's own generator.
"""
import os
import sys

sys.dont_write_bytecode = True

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "lib", "Vorlink", "generator"))
import vorlink_codegen as gen  # noqa: E402

CTYPE = {"U08": "quint8", "U16": "quint16", "U32": "quint32", "S16": "qint16", "S32": "qint32", "F32": "float"}

HEAD = """// Generated from ZelkoMsgRows.txt by bench/floor_codegen.py. Do not edit.
#pragma once

#include "ZelkoMsgDefs.h"
#include "ZelkoMsgDefs.pb.h"

#include <QtGlobal>

namespace vorbench {

// What a host would write by hand for one message, without the library.
template <class Record>
struct Floor;

"""

ROW = """struct __attribute__((packed)) {message}Wire
{{
{members}}};

template <>
struct Floor<zelko::{message}Payload>
{{
    using Wire = {message}Wire;
    using Message = zelko::messages::{message};
    static constexpr const char *name = "{message}";
    static constexpr quint16 id = {id};
    static constexpr int payloadBytes = {bytes};
    static constexpr int wireBytes = {wire};

    static void fill([[maybe_unused]] const Wire &w, [[maybe_unused]] Message &m)
    {{
{sets}    }}

    static void read([[maybe_unused]] const Message &m, [[maybe_unused]] Wire &w)
    {{
{gets}    }}
}};
static_assert(sizeof({message}Wire) == {wire_or_one}, "packed wire struct of {message}");

"""


def emit(rows):
    out = [HEAD]
    for r in rows:
        members = "".join(f"    {CTYPE[f.wire]} {f.name};\n" for f in r.fields) or "    char none[1];\n"
        sets, gets = [], []
        for f in r.fields:
            acc = f.name.lower()
            if f.as_bool:
                sets.append(f"        m.set_{acc}(w.{f.name} != 0);\n")
                gets.append(f"        w.{f.name} = m.{acc}() ? 1u : 0u;\n")
            else:
                sets.append(f"        m.set_{acc}(w.{f.name});\n")
                gets.append(f"        w.{f.name} = {CTYPE[f.wire]}(m.{acc}());\n")
        out.append(ROW.format(message=r.message, id=r.hex_id, bytes=r.bytes, wire=r.wire_size,
                              wire_or_one=r.wire_size or 1, members=members, sets="".join(sets),
                              gets="".join(gets)))
    out.append("} // namespace vorbench\n")
    return "".join(out)


def main(argv):
    if len(argv) != 3:
        raise SystemExit(__doc__)
    text = emit(gen.parse_rows(argv[1]))
    if os.path.exists(argv[2]):
        with open(argv[2], encoding="utf-8") as f:
            if f.read() == text:
                return
    os.makedirs(os.path.dirname(os.path.abspath(argv[2])), exist_ok=True)
    with open(argv[2], "w", encoding="utf-8", newline="\n") as f:
        f.write(text)


if __name__ == "__main__":
    main(sys.argv)
