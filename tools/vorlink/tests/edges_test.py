#!/usr/bin/env python3
"""The tool at its edges, fed what the field hands it: a bad value costs that
value alone in every input format of encode; the union messages are written
whole and their oneof members never dropped; one set of ranges for every
input, said in the tool's words; and detection that says what it sees."""

import argparse, json, os, struct, subprocess, sys, unittest

TOOL = None
HEADER = {"sequence": 1, "msgId": 12160, "timestamp": "2023-11-14T22:13:20Z"}   # TdSetTreatmentParameter


def run(*args, stdin=None):
    return subprocess.run([TOOL, *args], input=stdin, capture_output=True, timeout=120)


def varint(n):
    out = b""
    while n >= 0x80:
        out, n = out + bytes([n & 0x7F | 0x80]), n >> 7
    return out + bytes([n])


def record(msg_id, body=b"", nanos=0):   # one message of the binary stream
    time = b"\x08" + varint(1700000000) + (b"\x10" + varint(nanos) if nanos else b"")
    header = b"\x0a" + varint(len(time)) + time + b"\x10\x01\x18" + varint(msg_id)
    message = b"\x0a" + varint(len(header)) + header + body
    return varint(len(message)) + message


class Resync(unittest.TestCase):
    """A broken value costs that value alone, and is named where it starts."""

    @classmethod
    def setUpClass(cls):
        cls.log = run("synth", "--count", "600", "--seed", "4").stdout
        cls.want = [l for l in cls.log.splitlines() if not l.startswith(b"#")]
        cls.json = run("decode", "--format", "json", stdin=cls.log).stdout.splitlines()

    def encoded(self, data, *args):
        r = run("encode", *args, stdin=data)
        return r.returncode, r.stdout.splitlines(), r.stderr.decode().splitlines()

    def without(self, *indexes):
        return [line[:line.rindex(b" ")] for k, line in enumerate(self.want) if k not in indexes]

    def test_json_lines_and_json_spread_over_lines(self):
        lines = list(self.json)
        for k in (0, 9):   # the closing brace lost
            lines[k] = lines[k][:-1]
        lines[20] = lines[20].replace(b"},", b"}},", 1)   # closed early: the whole line refused, nothing of it written
        code, out, err = self.encoded(b"\n".join(lines) + b"\n")
        self.assertEqual((code, [l[:l.rindex(b" ")] for l in out]), (1, self.without(0, 9, 20)))
        self.assertEqual([e.split(": ")[0] for e in err], ["<stdin>:1", "<stdin>:10", "<stdin>:21", "vorlink encode"])
        self.assertIn("not closed before line 2, where the next one opens", err[0])
        self.assertEqual(err[-1], "vorlink encode: 3 lines rejected")
        # As jq writes them, indented: the broken one is named by its first line.
        pretty = [json.dumps(json.loads(l), indent=2).encode() for l in self.json[:5]]
        pretty[1] = pretty[1][:-1]
        code, out, err = self.encoded(b"\n".join(pretty))
        second = pretty[0].count(b"\n") + 2
        self.assertEqual((len(out), err[0].split(": ")[0]), (4, f"<stdin>:{second}"))

    def test_an_array_of_messages_element_by_element(self):
        values = [json.loads(l) for l in self.json[:20]]
        values[3]["header"]["msgId"] = 1   # an element of no message: that element alone
        for text in (json.dumps(values, indent=2), json.dumps(values), "\ufeff" + json.dumps(values)):
            code, out, err = self.encoded(text.encode())
            self.assertEqual(len(out), 19, text[:20])
            self.assertEqual([e.split(": ", 1)[1] for e in err[:-1]], ["unknown message id 0x0001"])

    def test_text_blocks_and_binary_records(self):
        text = run("decode", "--format", "text", stdin=b"\n".join(self.want[:6])).stdout.split(b"\n\n")
        text[1] = text[1].replace(b"header {", b"header { bogus: 1")
        text[3:5] = [text[3] + b"\n" + text[4]]   # a blank line lost between two blocks
        code, out, err = self.encoded(b"\n\n".join(text), "--format", "text")
        self.assertEqual((code, len(out), len(err)), (1, 5, 2))
        binary = [record(0x0100, b"\x10\x02"), record(0x0100, b"\x12\x01"), record(0x0100, b"\x10\x03")]
        code, out, err = self.encoded(b"".join(binary))   # a record that does not parse, between two that do
        self.assertEqual((len(out), err[0].split(": ")[1]), (2, f"byte {len(binary[0])}"))
        stream = binary[0] + b"\xff" * 10 + binary[2]
        code, out, err = self.encoded(stream)
        self.assertEqual((len(out), err[0]), (1, f"<stdin>: byte {len(binary[0])}: the size prefix is not a varint "
                                                 "(10 bytes, each with its high bit set); nothing after it can be read"))
        # A size past any message is refused, not read, though the stream holds that many bytes and more.
        code, out, err = self.encoded(binary[0] + varint(1 << 20) + binary[2] * ((2 << 20) // len(binary[2])))
        self.assertEqual((len(out), err[0].split(": ", 2)[2]), (1, "the size prefix says 1048576 bytes, more than any "
                                                                  "message (65536); nothing after it can be read"))

    def test_a_value_that_never_closes_is_not_held(self):
        endless = b'{"header":{"sequence":1,\n' + b'  "x": 1,\n' * 120000   # 1.1 MB, and no closing brace
        code, out, err = self.encoded(endless + self.json[0] + b"\n" + self.json[1] + b"\n")
        self.assertEqual((len(out), len(err)), (2, 2))
        self.assertTrue(err[0].startswith("<stdin>:1: not JSON: the value is longer than 1048576 bytes"), err[0])


class Union(unittest.TestCase):
    """The five messages whose schema holds more than their record."""

    def test_encode_refuses_a_oneof_member_it_would_drop(self):
        said = ("{}: {} carries no such field in its record (a oneof member of the schema, which the bus does not "
                "carry as such); nothing is written without it")
        line = json.dumps({"header": HEADER, "paramID": 5, "data1_float": 3.5}).encode()
        r = run("encode", stdin=line)
        self.assertEqual((r.returncode, r.stdout), (1, b""))
        self.assertEqual(r.stderr.decode().splitlines()[0], "<stdin>:1: " + said.format("data1_float", "TdSetTreatmentParameter"))
        text = b"header { timestamp { seconds: 1 } msgId: 5888 }\nevent: 9\ndata2_uint32: 7\n"
        r = run("encode", "--format", "text", stdin=text)
        self.assertEqual(r.stderr.decode().splitlines()[0], "<stdin>:1: " + said.format("data2_uint32", "TdEvent"))
        r = run("encode", stdin=record(0x2F80, b"\x10\x05\x20\x07"))   # data1_uint32 in the binary stream
        self.assertIn("data1_uint32: TdSetTreatmentParameter carries no such field", r.stderr.decode())
        # What decode writes of a union message still goes back as it does today.
        null = json.dumps({"header": HEADER, "paramID": None, "data1_float": None}).encode()   # null: left at 0
        self.assertEqual(run("encode", stdin=null).stdout, b"1700000000.000 1 0x2F80 00000000\n")
        event = b"1.5 65535 0x1700 0900000001000000020000002a00000003000000\n"
        back = run("encode", stdin=run("decode", "--format", "json", stdin=event).stdout)
        self.assertEqual((back.returncode, back.stdout), (0, b"1.500 65535 0x1700 090000000100000002000000\n"))

    def test_make_writes_a_union_message_whole(self):
        base = ["make", "TdSetTreatmentParameter", "paramID=5", "--time", "1"]
        for extra, code, said in (
                ([], 2, "TdSetTreatmentParameter carries 8 bytes and its record 4: the 4 bytes behind the record are "
                        "missing; give them as unread=HEX (8 hexadecimal digits), or as zeros with --fill 0"),
                (["unread=00006040"], 0, "1.000 0 0x2F80 0500000000006040"),
                (["--fill", "0"], 0, "1.000 0 0x2F80 0500000000000000"),
                (["--fill", "7"], 2, "TdSetTreatmentParameter carries 8 bytes and its record 4: the 4 bytes behind"),
                (["unread=0000"], 2, "TdSetTreatmentParameter carries 8 bytes and its record 4: unread gives 2 of the "
                                     "4 bytes behind the record"),
                (["unread=000"], 2, "unread: '000' has an odd number of hexadecimal digits (3)"),
                (["unread=00zz0000"], 2, "unread: '00zz0000' has 'z' at digit 3, which is not hexadecimal")):
            r = run(*base, *extra)
            self.assertEqual(r.returncode, code, extra)
            self.assertTrue((r.stdout if code == 0 else r.stderr).decode().replace("vorlink make: ", "").startswith(said), r)
        # Any message may carry bytes behind its record; decode shows them.
        line = run("make", "AlarmCleared", "alarmName=7", "unread=abcd", "--time", "1").stdout
        self.assertEqual(line, b"1.000 0 0x0300 07000000abcd\n")
        self.assertIn(b"+2 bytes not read: abcd", run("decode", stdin=line).stdout)
        event = run("make", "TdEvent", "--fill", "0", "event=9", "--time", "1").stdout
        self.assertEqual(event, b"1.000 0 0x1700 09" + b"0" * 38 + b"\n")


class Ranges(unittest.TestCase):
    """One set of ranges for every input, each refusal in the tool's words."""

    def test_every_input_is_held_to_the_wire_ranges(self):
        temp = "header {{ timestamp {{ seconds: 1 }} msgId: 9728 }}\nd1Temp: {}\n"
        for value, fits in (("1e39", False), ("-3.5e38", False), ("3.4028235e38", True), ("inf", True), ("1e38f", True)):
            r = run("encode", "--format", "text", stdin=temp.format(value).encode())
            self.assertEqual(r.returncode, 0 if fits else 1, value)
            if not fits:
                self.assertEqual(r.stderr.decode().splitlines()[0], f"<stdin>:1: d1Temp: {value} does not fit F32 (a finite "
                                                                    "float up to 3.4028235e38 either way, or NaN or an infinity)")
        nanos = b"header { timestamp { seconds: 1 nanos: 1500000000 } msgId: 768 }\nalarmName: 1\n"
        for form, data in (("text", nanos), ("binary", record(0x0300, b"\x10\x01", nanos=1500000000))):
            r = run("encode", "--format", form, stdin=data)
            self.assertEqual(r.returncode, 1, form)
            self.assertIn("header.timestamp.nanos 1500000000 is not from 0 to 999999999", r.stderr.decode(), form)
        alarm = '{{"header":{{"sequence":1,"msgId":768,"timestamp":"2023-11-14T22:13:20Z"}},"alarmName":{}}}'
        for value, said in (("1e-5000", "1e-5000 is not a whole number, which U32 needs (0 to 4294967295)"),
                            ('"2.5"', "2.5 is not a whole number, which U32 needs (0 to 4294967295)"),
                            ("4294967296", "4294967296 does not fit U32 (0 to 4294967295)"),
                            ("99999999999999999999", "99999999999999999999 does not fit U32 (0 to 4294967295)"),
                            ("-1", "-1 does not fit U32 (0 to 4294967295)"), ("true", "true is not a number")):
            r = run("encode", stdin=alarm.format(value).encode())
            self.assertEqual((r.returncode, r.stdout), (1, b""), value)
            self.assertEqual(r.stderr.decode().splitlines()[0], "<stdin>:1: alarmName: " + said, value)
        for value in ("7", "7.0", "0.7e1", '"7"', "700e-2"):
            self.assertEqual(run("encode", stdin=alarm.format(value).encode()).stdout, b"1700000000.000 1 0x0300 07000000\n")
        text = b"header { timestamp { seconds: 1 } msgId: 768 }\nalarmName: 4294967296\n"
        r = run("encode", "--format", "text", stdin=text)
        self.assertEqual(r.stderr.decode().splitlines()[0], "<stdin>:1: alarmName: 4294967296 does not fit U32 (0 to 4294967295)")


class Detection(unittest.TestCase):
    def test_what_is_seen_is_said(self):
        alarm = "1700000000.123 7 0x0100 02000000010000003c00000005{}\n"
        # Odd and even counts of digits.
        for tail, said in (("\0", "a NUL byte at digit 27"), ("00\x0c", "a form feed (0x0C) at digit 29"),
                           ("0\r0", "a carriage return (0x0D) at digit 28"), ("\x010", "a control byte 0x01 at digit 27")):
            r = run("decode", stdin=alarm.format(tail).encode())
            self.assertEqual(r.stderr.decode().splitlines()[0], "<stdin>:1: payload has " + said, repr(tail))
        bom = b"\xef\xbb\xbf" + json.dumps({"header": HEADER, "paramID": 5}).encode() + b"\n"
        self.assertEqual(run("encode", stdin=bom).stdout, b"1700000000.000 1 0x2F80 05000000\n")
        for args, said in ((["list", "0x10000"], "the id 0x10000 is wider than 16 bits (ids run from 0x0000 to 0xFFFF)"),
                           (["decode", "-m", "0x123456"], "--message: the id 0x123456 is wider than 16 bits (ids run from 0x0000 to 0xFFFF)"),
                           (["make", "AlarmCleared", "--fill", "0", "--fill", "1"], "--fill is given 2 times; give it once"),
                           (["decode", "--format"], "--format needs a value"),
                           (["make"], "MESSAGE is missing"),
                           (["synth", "--count", "ten"], "--count: 'ten' is not a whole number"),
                           (["decode", "--from", ""], "--from: '' is neither seconds since 1970 nor an ISO 8601 time"),
                           (["stats", "--to", ""], "--to: '' is neither seconds since 1970 nor an ISO 8601 time")):
            r = run(*args)
            self.assertEqual((r.returncode, r.stderr.decode().splitlines()[0]), (2, f"vorlink {args[0]}: {said}"), args)
        self.assertEqual(run("list", "0x000100").stdout.split()[:2], [b"0x0100", b"MSG_ID_ALARM_STATUS_DATA"])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    options, rest = parser.parse_known_args()
    TOOL = os.path.abspath(options.tool)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
