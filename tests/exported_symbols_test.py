"""What libVorlink.so exports: the host-facing operations, the three members of
every record, the protobuf classes, and nothing of the library's insides.

    exported_symbols_test.py LIBRARY ROWS_FILE
"""
import re, subprocess, sys, unittest

LIBRARY, ROWS = sys.argv[1], sys.argv[2]
OPERATION = re.compile(
    r"zelko::(canMessageToProtobufByteArray|serializeProto|deserializeProto|msgIdString|msgIdToProtoName)(\[abi:\w+\])?\(")
MEMBER = re.compile(r"zelko::(\w+Payload)::(fromQByteArray|toQByteArray|dump)\(")
# The generated protobuf code, compiled with default visibility: its classes, its file-level descriptor table,
# protobuf templates instantiated for it, and under AddressSanitizer the __odr_asan markers of its globals.
PROTOBUF = re.compile(r"^((typeinfo|typeinfo name|vtable) for )?zelko::messages::"
                      r"|^((typeinfo|typeinfo name|vtable) for |\w+ )?google::protobuf::"
                      r"|^(__odr_asan\.)?(descriptor_table|TableStruct)_ZelkoMsgDefs_2eproto|^__odr_asan\._ZN5zelko8messages")


class ExportedSymbols(unittest.TestCase):
    def test_the_interface_and_nothing_else(self):
        out = subprocess.run(["nm", "-D", "-C", "--defined-only", LIBRARY], check=True, capture_output=True, text=True)
        symbols = [line.split(" ", 2)[2] for line in out.stdout.splitlines() if line.count(" ") >= 2]
        self.assertEqual([s for s in symbols if not (OPERATION.match(s) or MEMBER.match(s) or PROTOBUF.search(s))], [])
        with open(ROWS, encoding="utf-8") as f:
            rows = sum(1 for line in f if re.match(r"0x[0-9A-Fa-f]{4}\s", line))
        members, operations = {}, {}
        for s in symbols:
            if MEMBER.match(s):
                members.setdefault(MEMBER.match(s)[1], set()).add(MEMBER.match(s)[2])
            if OPERATION.match(s):
                operations[OPERATION.match(s)[1]] = operations.get(OPERATION.match(s)[1], 0) + 1
        self.assertEqual(len(members), rows)
        self.assertEqual({frozenset(v) for v in members.values()}, {frozenset({"fromQByteArray", "toQByteArray", "dump"})})
        self.assertEqual(operations, {"canMessageToProtobufByteArray": 1, "msgIdString": 1, "msgIdToProtoName": 1,
                                      "serializeProto": rows, "deserializeProto": rows})


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
