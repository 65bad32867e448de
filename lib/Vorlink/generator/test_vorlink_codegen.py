"""The generator's own behaviour that the built dictionary cannot show: how it
names a malformed line of the message list, and the same output on every run.
(What it emits for the list is held by the schema comparison and the tests over
every row.)"""
import os, subprocess, sys, tempfile, unittest

import vorlink_codegen as gen

HERE = os.path.dirname(os.path.abspath(__file__))


def rows_from(text):
    with tempfile.NamedTemporaryFile("w", suffix=".txt", delete=False) as f:
        f.write(text)
    try:
        return gen.parse_rows(f.name)
    finally:
        os.unlink(f.name)


class Generator(unittest.TestCase):
    def test_malformed_lines_are_named_with_the_reason(self):
        head = "0x0100  MSG_ID_ALARM_STATUS_DATA  AlarmStatus"
        for text, reason in {head + "Data  4  alarmState:U24\n": "bad field 'alarmState:U24'",
                             head + "Data  5  alarmState:U32\n": "fields make 4 bytes, the row says 5",
                             head + "  4  a:U32\n": "message name AlarmStatus does not follow from",
                             head + "Data  8  a:U32 A:U32\n": "field names repeat",
                             head + "Data  1  a:U08=bool\n": "only a U32",
                             "# c\n0x0200  MSG_ID_X  X  0  -\n0x0100  MSG_ID_Y  Y  0  -\n": "ids must ascend"}.items():
            with self.subTest(reason=reason), self.assertRaises(SystemExit) as raised:
                rows_from(text)
            self.assertIn(f":{text.count(chr(10))}: {reason}", str(raised.exception))

    def test_rows_whose_firmware_names_meet_are_refused(self):
        rows = rows_from("0x0100  MSG_ID_A  A  4  x:U32\n0x0200  MSG_ID_A_PACK  APack  4  y:U32\n")
        with self.assertRaises(SystemExit) as raised:
            gen.firmware_h(rows)
        self.assertEqual(str(raised.exception), "MSG_ID_A_PACK: its firmware name vorlink_a_pack is taken by MSG_ID_A")

    def test_output_is_the_same_on_every_run(self):
        with tempfile.TemporaryDirectory() as a, tempfile.TemporaryDirectory() as b:
            for out in (a, b):
                subprocess.run([sys.executable, os.path.join(HERE, "vorlink_codegen.py"),
                                os.path.join(HERE, "..", "src", "ZelkoMsgRows.txt"), out], check=True)
            for name in {**gen.OUTPUTS, **gen.FIRMWARE_OUTPUTS}:
                with open(os.path.join(a, name), "rb") as fa, open(os.path.join(b, name), "rb") as fb:
                    self.assertEqual(fa.read(), fb.read(), name)


if __name__ == "__main__":
    unittest.main()
