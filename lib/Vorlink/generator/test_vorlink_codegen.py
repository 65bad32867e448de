"""Checks of the generator's reading of the message list and of what it emits
for the cases that are easy to get wrong: runs, bool marks, oneof numbering,
and malformed lines."""
import os
import subprocess
import sys
import tempfile
import unittest

import vorlink_codegen as gen

HERE = os.path.dirname(os.path.abspath(__file__))
ROWS = os.path.join(HERE, "..", "src", "ZelkoMsgRows.txt")


def rows_from(text):
    with tempfile.NamedTemporaryFile("w", suffix=".txt", delete=False) as f:
        f.write(text)
    try:
        return gen.parse_rows(f.name)
    finally:
        os.unlink(f.name)


class ReadingTheList(unittest.TestCase):
    def test_runs_expand_in_order_with_their_type(self):
        fields = gen.parse_fields("accepted:U32=bool reason1..3:U08 dbg10..11:F32")
        self.assertEqual([(f.name, f.wire, f.as_bool) for f in fields],
                         [("accepted", "U32", True), ("reason1", "U08", False), ("reason2", "U08", False),
                          ("reason3", "U08", False), ("dbg10", "F32", False), ("dbg11", "F32", False)])

    def test_names_keep_their_spelling(self):
        (f,) = gen.parse_fields("d5_adjsutedTargetTemp:F32")
        self.assertEqual(f.name, "d5_adjsutedTargetTemp")

    def test_malformed_lines_are_named_with_the_reason(self):
        cases = {
            "0x0100  MSG_ID_ALARM_STATUS_DATA  AlarmStatusData  4  alarmState:U24\n": "bad field 'alarmState:U24'",
            "0x0100  MSG_ID_ALARM_STATUS_DATA  AlarmStatusData  5  alarmState:U32\n": "fields make 4 bytes, the row says 5",
            "0x0100  MSG_ID_ALARM_STATUS_DATA  AlarmStatus  4  a:U32\n": "does not follow from",
            "0x0100  MSG_ID_ALARM_STATUS_DATA  AlarmStatusData  8  a:U32 A:U32\n": "field names repeat",
            "0x0100  MSG_ID_ALARM_STATUS_DATA  AlarmStatusData  1  a:U08=bool\n": "only a U32",
            "# c\n0x0200  MSG_ID_X  X  0  -\n0x0100  MSG_ID_Y  Y  0  -\n": "ids must ascend",
        }
        for text, reason in cases.items():
            with self.subTest(reason=reason), self.assertRaises(SystemExit) as raised:
                rows_from(text)
            line = text.count("\n")
            self.assertIn(f":{line}: ", str(raised.exception))
            self.assertIn(reason, str(raised.exception))


class Emitting(unittest.TestCase):
    def test_oneof_groups_take_four_numbers_behind_their_field(self):
        rows = rows_from("0x1700  MSG_ID_TD_EVENT  TdEvent  20  event:U32 dataType1:U32+data1 dataType2:U32+data2\n")
        proto = gen.proto(rows)
        for line in ("uint32 dataType1 = 3;", "bool data1_bool = 4;", "float data1_float = 7;",
                     "uint32 dataType2 = 8;", "float data2_float = 12;"):
            self.assertIn(line, proto)
        self.assertIn('unionName = "TdEvent"', gen.proto_utils_cpp(rows))

    def test_output_is_the_same_on_every_run(self):
        with tempfile.TemporaryDirectory() as a, tempfile.TemporaryDirectory() as b:
            for out in (a, b):
                subprocess.run([sys.executable, os.path.join(HERE, "vorlink_codegen.py"), ROWS, out], check=True)
            for name in gen.OUTPUTS:
                with open(os.path.join(a, name), "rb") as fa, open(os.path.join(b, name), "rb") as fb:
                    self.assertEqual(fa.read(), fb.read(), name)
                with open(os.path.join(a, name), encoding="utf-8") as f:
                    self.assertTrue(f.readline().startswith("// Generated from ZelkoMsgRows.txt"), name)


if __name__ == "__main__":
    unittest.main()
