"""What libVorlink.so exports: the host-facing operations, the three members
of every record, the protobuf classes, and nothing of the library's insides.

    exported_symbols_test.py LIBRARY ROWS_FILE
"""

import re
import subprocess
import sys
import unittest

LIBRARY, ROWS = sys.argv[1], sys.argv[2]

OPERATION = re.compile(
    r"zelko::(canMessageToProtobufByteArray|serializeProto|deserializeProto|msgIdString|msgIdToProtoName)(\[abi:\w+\])?\(")
MEMBER = re.compile(r"zelko::(\w+Payload)::(fromQByteArray|toQByteArray|dump)\(")
# The generated protobuf code, compiled with default visibility: its classes,
# its file-level descriptor table, and protobuf templates instantiated for it.
# Under AddressSanitizer each of its globals also gets a one-definition-rule
# marker, __odr_asan.<mangled name>, which nm does not demangle.
PROTOBUF = re.compile(
    r"^((typeinfo|typeinfo name|vtable) for )?zelko::messages::"
    r"|^((typeinfo|typeinfo name|vtable) for |\w+ )?google::protobuf::"
    r"|^(__odr_asan\.)?(descriptor_table|TableStruct)_ZelkoMsgDefs_2eproto"
    r"|^__odr_asan\._ZN5zelko8messages")


def exported():
    out = subprocess.run(["nm", "-D", "-C", "--defined-only", LIBRARY],
                         check=True, capture_output=True, text=True).stdout
    # "ADDRESS TYPE NAME"; NAME may hold spaces.
    return [line.split(" ", 2)[2] for line in out.splitlines() if line.count(" ") >= 2]


def row_count():
    with open(ROWS, encoding="utf-8") as f:
        return sum(1 for line in f if re.match(r"0x[0-9A-Fa-f]{4}\s", line))


class ExportedSymbols(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.symbols = exported()
        cls.rows = row_count()

    def test_nothing_outside_the_interface(self):
        stray = [s for s in self.symbols
                 if not (OPERATION.match(s) or MEMBER.match(s) or PROTOBUF.search(s))]
        self.assertEqual(stray, [])

    def test_internals_stay_hidden(self):
        # Named outright, so a leak of one of these reads plainly.
        inside = re.compile(r"^(std::|Bytra::|QMap|zelko::detail::)|updateHeader|payloadSize")
        self.assertEqual([s for s in self.symbols if inside.search(s)], [])

    def test_every_row_is_reachable(self):
        self.assertGreater(self.rows, 0)
        members = {}
        for s in self.symbols:
            m = MEMBER.match(s)
            if m:
                members.setdefault(m.group(1), set()).add(m.group(2))
        self.assertEqual(len(members), self.rows)
        self.assertEqual({frozenset(v) for v in members.values()},
                         {frozenset({"fromQByteArray", "toQByteArray", "dump"})})

        operations = {}
        for s in self.symbols:
            m = OPERATION.match(s)
            if m:
                operations[m.group(1)] = operations.get(m.group(1), 0) + 1
        self.assertEqual(operations, {
            "canMessageToProtobufByteArray": 1, "msgIdString": 1, "msgIdToProtoName": 1,
            "serializeProto": self.rows, "deserializeProto": self.rows})


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
