#!/usr/bin/env python3
"""The API reference, as a host developer reads it.

    reference_test.py comments GENERATED_DIR     (the vorlink module on PYTHONPATH)
    reference_test.py doxygen DOXYFILE GENERATED_DIR

comments: the doc comment of every record, field, enumerator and bridge
overload in the generated headers says what the dictionary does: id,
enumerator, schema message, payload size, each field's byte, wire type, schema
type and schema number, and the unread bytes of the union messages. The module
`vorlink` (its wire table, checked against the library by its own tests) and
the generated schema are the reference they are held to.

doxygen: Doxygen with the build's configuration warns of nothing (a warning
fails it, as a control shows on a header with one undocumented struct), and its
index holds every exported operation, every record with its members, every
enumerator, and the pages of the contracts.
"""
import os
import re
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ET

ARGS = sys.argv[1:]
sys.argv[1:] = []


def read(path):
    with open(path, encoding="utf-8") as f:
        return f.read()


def schema_numbers(proto):
    """{message: {field: number}} of the generated schema."""
    numbers = {}
    for name, body in re.findall(r"^message (\w+) \{\n(.*?)^\}", proto, re.M | re.S):
        numbers[name] = {f: int(n) for f, n in re.findall(r"^\s+\S+ (\w+) = (\d+);", body, re.M)}
    return numbers


class HeaderComments(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        import vorlink
        gen = ARGS[1]
        cls.types = vorlink.messages()
        cls.defs = read(os.path.join(gen, "ZelkoMsgDefs.h"))
        cls.utils = read(os.path.join(gen, "ZelkoMsgProtoUtils.h"))
        cls.numbers = schema_numbers(read(os.path.join(gen, "ZelkoMsgDefs.proto")))
        blocks = re.findall(r"^/\*\*\n(.*?)^ \*/\nstruct VORLINK_EXPORT (\w+)Payload\n\{\n(.*?)^\};", cls.defs,
                            re.M | re.S)
        cls.records = {name: (doc, body) for doc, name, body in blocks}

    def test_every_record_has_its_row_in_its_comment(self):
        self.assertEqual(len(self.types), 474)
        self.assertEqual(sorted(self.records), sorted(t.name for t in self.types))
        for t in self.types:
            doc, _ = self.records[t.name]
            with self.subTest(message=t.name):
                self.assertIn(f" * \\brief {t.name}, id 0x{t.id:04X}: the payload record.\n", doc)
                self.assertIn(f" * - Id: 0x{t.id:04X}, enumerator #{t.enumerator}\n", doc)
                self.assertIn(f" * - Schema message: \\c {t.proto_name} (C++ \\c zelko::messages::{t.name})\n", doc)
                self.assertIn(f" * - Payload size: {t.payload_size} bytes; the record reads and writes {t.wire_size}\n",
                              doc)

    def test_every_field_has_its_byte_types_and_number(self):
        for t in self.types:
            doc, body = self.records[t.name]
            wire = list(t.fields)
            numbers = self.numbers[t.name]
            table = re.findall(r"^ \* \| (\d+) \| #(\w+) \| (\w+) \| (\w+) \| (\d+) \|$", doc, re.M)
            members = re.findall(r"^    Bytra::Types::(\w+) (\w+); ///< Byte (\d+), (\w+) on the wire, (\w+) in the "
                                 r"schema \(field (\d+)\)\.$", body, re.M)
            with self.subTest(message=t.name):
                self.assertEqual(table, [(str(f.offset), f.name, f.wire_type, f.schema_type, str(numbers[f.name]))
                                         for f in wire])
                self.assertEqual(members, [(f.wire_type, f.name, str(f.offset), f.wire_type, f.schema_type,
                                            str(numbers[f.name])) for f in wire])
                self.assertEqual(" * No fields: any payload is accepted" in doc, not wire)
                self.assertIn(f"Reads the {len(wire)} field{'s' * (len(wire) != 1)} ({t.wire_size} bytes)" if wire
                              else "Reads nothing from", body)
                self.assertIn(f"Appends the {t.wire_size} wire bytes to" if wire else "Appends nothing to", body)
                dump = ", ".join(f"{f.name}=<value>" for f in wire) or "<none>"
                self.assertIn(f'Writes the line "{t.name}Payload: {dump}" with qDebug()', body)

    def test_union_messages_name_their_unread_bytes(self):
        unions = {t.name for t in self.types if "data1_bool" in self.numbers[t.name]}
        self.assertEqual(sorted(unions), sorted(["TdEvent", "DdEvent", "FpEvent", "TdSetTreatmentParameter",
                                                 "DdSafetyShutdownOverrideRequest"]))
        for t in self.types:
            doc, _ = self.records[t.name]
            found = re.findall(r"Unread bytes: (\d+) to (\d+) \((\d+) bytes\) of the (\d+)-byte\n \* payload", doc)
            with self.subTest(message=t.name):
                if t.name in unions:
                    self.assertEqual(found, [(str(t.wire_size), str(t.payload_size - 1),
                                              str(t.payload_size - t.wire_size), str(t.payload_size))])
                    groups = sorted(m[1] for n in self.numbers[t.name] for m in [re.match(r"^(data\d+)_bool$", n)] if m)
                    self.assertIn("the oneof group" + ("s " + " and ".join(groups) if len(groups) > 1
                                                       else " " + groups[0]) + ",", doc)
                else:
                    self.assertEqual(found, [])
                    self.assertNotIn("union", doc)

    def test_every_enumerator_and_overload_names_its_message(self):
        enumerators = re.findall(r"^    (MSG_ID_\w+) = 0x([0-9A-F]{4}), ///< (\w+): record (\w+)Payload, (\d+) bytes\.$",
                                 self.defs, re.M)
        self.assertEqual(enumerators, [(t.enumerator, f"{t.id:04X}", t.name, t.name, str(t.payload_size))
                                       for t in self.types])
        for t in self.types:
            unions = "data1_bool" in self.numbers[t.name]
            with self.subTest(message=t.name):
                for direction, declaration in (("serialization", f"bool serializeProto(const {t.name}Payload &"),
                                               ("deserialization", f"bool deserializeProto(const QByteArray &buffer, "
                                                                   f"{t.name}Payload &")):
                    at = self.utils.index(declaration)
                    doc = self.utils[self.utils.rindex("/// \\brief", 0, at):at]
                    self.assertIn(f"/// \\brief {t.name}: ", doc)
                    self.assertRegex(doc, re.escape(f"\\c {t.proto_name}") + r"\b")
                    line = f'"WARNING: MsgId={t.name} contains union/oneof field(s); protobuf {direction} is partial"'
                    self.assertEqual(line in doc, unions)


class Doxygen(unittest.TestCase):
    def doxygen(self, doxyfile, out, **settings):
        config = read(doxyfile) + f"\nOUTPUT_DIRECTORY = {out}\nGENERATE_TAGFILE = {out}/vorlink.tag\n" + \
            "".join(f"{k} = {v}\n" for k, v in settings.items())
        return subprocess.run(["doxygen", "-"], input=config, capture_output=True, text=True)

    def test_a_warning_fails_the_reference(self):
        with tempfile.TemporaryDirectory() as scratch:
            header = os.path.join(scratch, "Undocumented.h")
            with open(header, "w") as f:
                f.write("/// \\file\n/// A header.\n\n/// Documented.\nstruct Documented { int x; ///< x\n};\n"
                        "struct Undocumented { int y; };\n")
            run = self.doxygen(ARGS[1], scratch, INPUT=header, USE_MDFILE_AS_MAINPAGE="")
            self.assertNotEqual(run.returncode, 0)
            self.assertIn("Undocumented is not documented", run.stdout + run.stderr)

    def test_the_reference_warns_of_nothing_and_holds_every_operation_and_message(self):
        import vorlink
        with tempfile.TemporaryDirectory() as scratch:
            run = self.doxygen(ARGS[1], scratch)
            self.assertEqual((run.returncode, run.stdout + run.stderr), (0, ""))
            tag = ET.parse(os.path.join(scratch, "vorlink.tag")).getroot()
        compounds = {(c.get("kind"), c.findtext("name")): c for c in tag.iter("compound")}
        zelko = compounds[("namespace", "zelko")]
        members = [(m.get("kind"), m.findtext("name")) for m in zelko.iter("member")]
        for name in ("canMessageToProtobufByteArray", "msgIdString", "msgIdToProtoName"):
            self.assertEqual(members.count(("function", name)), 1, name)
        self.assertEqual(members.count(("function", "serializeProto")), 474)
        self.assertEqual(members.count(("function", "deserializeProto")), 474)
        self.assertIn(("variable", "payloadSize"), members)
        enumerators = {m.findtext("name") for m in zelko.iter("member") if m.get("kind") == "enumvalue"}
        for t in vorlink.messages():
            record = compounds.get(("struct", f"zelko::{t.name}Payload"))
            self.assertIsNotNone(record, t.name)
            names = {m.findtext("name") for m in record.iter("member")}
            self.assertEqual(names, {"fromQByteArray", "toQByteArray", "dump"} | {f.name for f in t.fields}, t.name)
            self.assertIn(t.enumerator, enumerators)
        for kind, name in (("page", "records"), ("page", "bridge"), ("struct", "Bytra::Can::Message"),
                           ("file", "VorlinkVersion.h"), ("file", "Log.h")):
            self.assertIn((kind, name), compounds)
        for type_name in ("U08", "U16", "U32", "S16", "S32", "F32"):
            self.assertIn(("struct", f"Bytra::Types::{type_name}"), compounds)
        defines = {m.findtext("name") for m in compounds[("file", "VorlinkVersion.h")].iter("member")}
        self.assertLessEqual({"VORLINK_VERSION_MAJOR", "VORLINK_VERSION_MINOR", "VORLINK_VERSION_PATCH",
                              "VORLINK_VERSION_STRING"}, defines)


if __name__ == "__main__":
    unittest.main(defaultTest={"comments": "HeaderComments", "doxygen": "Doxygen"}[ARGS[0]], verbosity=1)
