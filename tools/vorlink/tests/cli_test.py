#!/usr/bin/env python3
"""The vorlink executable as a user runs it: exit codes, every output format,
rejected lines, selection, stats, the way back through encode, and the
listing of the dictionary. Runs in a time zone other than UTC."""

import argparse, json, os, re, struct, subprocess, sys, tempfile, unittest

TOOL = EXAMPLES = None
ENV = dict(os.environ, TZ="XYZ-3")
ALARM = b"1700000000.123 7 0x0100 02000000010000003c0000000500\n"
ALARM_PROTO = bytes.fromhex("0a120a0b0880e2cfaa0610c0a9d33a10071880021002180120" "3c2805")
EVENT = b"1.5 65535 0x1700 0900000001000000020000002a00000003000000\n"
BAL = b"1 1 0x2E00 0300000000000000cdcccc3d0100000007000000000000000100000000000000\n"   # bools and a float


def run(*args, stdin=None, env=ENV):
    return subprocess.run([TOOL, *args], input=stdin, capture_output=True, env=env, timeout=300, cwd=EXAMPLES + "/..")


def messages(text):
    return [l.split() for l in text.splitlines() if l.strip() and not l.lstrip().startswith("#")]


class Decode(unittest.TestCase):
    def test_misuse_help_and_version(self):
        for args in ([], ["frobnicate"], ["decode", "--format", "xml"], ["decode", "--bogus"], ["decode", "a", "b"],
                     ["decode", "/no/such/file"], ["synth", "--count", "ten"], ["list", "1", "2"],
                     ["stats", "--message", "0x0001"], ["stats", "--from", "soon"], ["stats", "--from", "20", "--to", "10"],
                     ["decode", "--format", "csv"], ["decode", "--format", "csv", "--message", "Dd"]):
            r = run(*args)
            self.assertEqual((r.returncode, r.stdout, bool(r.stderr)), (2, b"", True), args)
        self.assertIn("nearest: DdTemperatureData", run("decode", "--message", "DdTemprature").stderr.decode())
        for args in (["--help"], ["help", "decode"], ["encode", "-h"]):
            self.assertIn(b"Usage: vorlink", run(*args).stdout, args)
        self.assertRegex(run("--version").stdout.decode(), r"^vorlink \d+\.\d+\.\d+ .*474 messages")

    def test_the_example_log_in_every_format(self):
        lines = run("decode", "examples/bus.log").stdout.decode().splitlines()
        self.assertEqual(len(lines), 478)
        self.assertEqual(lines[:2], ["2023-11-14T22:13:20.123Z 0x0100 AlarmStatusDataPayload: alarmState=2, alarmTop=1, "
                                     "silenceExpiresIn=60, alarmsFlags=5",
                                     "2023-11-14T22:13:20.123Z 0x1700 TdEventPayload: event=9, dataType1=1, dataType2=2"
                                     "  +8 bytes not read: 2a00000003000000"])
        objects = [json.loads(l) for l in run("decode", "--format", "json", "examples/bus.log").stdout.splitlines()]
        self.assertEqual(len({o["header"]["msgId"] for o in objects}), 474)
        self.assertEqual(objects[0], {"header": {"timestamp": "2023-11-14T22:13:20.123Z", "sequence": 7, "msgId": 256},
                                      "alarmState": 2, "alarmTop": 1, "silenceExpiresIn": 60, "alarmsFlags": 5})
        self.assertEqual(objects[1]["header"]["sequence"], -1)
        text = run("decode", "--format", "text", "examples/bus.log").stdout.decode()
        self.assertTrue(text.startswith("# line 15: zelko.messages.AlarmStatusData\nheader {\n  timestamp {\n    seconds: "
                                        "1700000000\n    nanos: 123000000\n  }\n  sequence: 7\n  msgId: 256\n}\nalarmState: 2\n"))
        self.assertEqual(len(re.findall(r"^# line \d+: ", text, re.M)), 478)
        self.assertEqual(run("decode", "--format", "binary", "-", stdin=ALARM).stdout, bytes([28]) + ALARM_PROTO)
        # A first schema message of 128 bytes, its size two bytes of varint: encode still recognises the stream.
        big = b"1.000 1 0x72A0 " + (bytes(16) + bytes.fromhex("0000c03f") * 21 + bytes(36)).hex().encode() + b"\n"
        out = run("decode", "--format", "binary", stdin=big + ALARM).stdout
        self.assertEqual((out[:2], run("encode", stdin=out).stdout), (b"\x80\x01", big + ALARM))
        csv = run("decode", "--format", "csv", "--message", "TdEvent", stdin=EVENT).stdout.decode().splitlines()
        self.assertEqual(csv, ["time,sequence,msgId,event,dataType1,data1_bool,data1_uint32,data1_int32,data1_float,"
                               "dataType2,data2_bool,data2_uint32,data2_int32,data2_float",
                               "1970-01-01T00:00:01.500Z,-1,5888,9,1,,,,,2,,,,"])
        for line, values in ((BAL, "11776,3,0,0.1,true,7,false,true,false"), (b"1 1 0x1100 fbffffff0000804b51069e3f" +
                             b"00" * 12 + b"ffffffff" + b"00" * 8, "4352,-5,16777216,1.2345678,0,0,0,4294967295,0,0")):
            csv = run("decode", "--format", "csv", "--message", line.split()[2].decode(), stdin=line).stdout.decode()
            self.assertEqual(csv.splitlines()[1], "1970-01-01T00:00:01.000Z,1," + values)

    def test_bad_lines_are_reported_and_the_rest_converted(self):
        r = run("decode", "examples/malformed.log")
        self.assertEqual(r.returncode, 1)
        self.assertEqual([l.split(" ", 2)[2] for l in r.stdout.decode().splitlines()],
                         ["AlarmStatusDataPayload: alarmState=2, alarmTop=1, silenceExpiresIn=60, alarmsFlags=5",
                          "AlarmClearedPayload: alarmName=7"])
        self.assertEqual(r.stderr.decode().splitlines(), [
            "examples/malformed.log:5: payload of 13 bytes is too short for AlarmStatusData (0x0100), which needs 14",
            "examples/malformed.log:6: unknown message id 0x0001",
            "examples/malformed.log:7: payload has an odd number of hexadecimal digits (7)",
            "examples/malformed.log:8: payload has 'z' at digit 3, which is not hexadecimal",
            "examples/malformed.log:9: sequence '70000' is not a decimal number from 0 to 65535",
            "examples/malformed.log:10: time 'yesterday' is not seconds since 1970 (0 to 253402300799.999, up to 3 decimals)",
            "vorlink decode: 6 lines rejected"])
        verbose = run("decode", "--verbose", "examples/malformed.log")
        self.assertIn("Not enough data", verbose.stderr.decode())
        self.assertEqual(verbose.stdout, r.stdout)
        strict = run("decode", "--strict", "examples/malformed.log")
        self.assertEqual((strict.returncode, len(strict.stdout.splitlines())), (1, 1))
        self.assertEqual(strict.stderr.decode().splitlines()[-1], "vorlink decode: 1 line rejected, stopped (--strict)")
        short = run("decode", stdin=b"1 1 0x1700 0900000001000000020000\n")
        self.assertIn("payload of 11 bytes is too short for TdEvent (0x1700), which needs 12", short.stderr.decode())

    def test_what_a_new_user_stumbles_on(self):
        r = run("decode", stdin=b"\xef\xbb\xbf" + ALARM)   # a byte-order mark is not part of the first line
        self.assertEqual((r.returncode, r.stdout.split()[:2]), (0, [b"2023-11-14T22:13:20.123Z", b"0x0100"]))
        r = run("decode", "--verbose", stdin=ALARM + EVENT)   # the library's notes, only for what was converted
        self.assertEqual(r.stderr.decode().splitlines(), ["vorlink: library: WARNING: MsgId=TdEvent contains "
                                                          "union/oneof field(s); protobuf serialization is partial"])
        lines = [b'{"header":{"sequence":7,"msgId":256}}', b'{"header":{"timestamp":"1970-01-01T00:00:02Z"}}',
                 b'{"alarmState":2}', b'{"header":{"msgId":256,"timestamp":"1970-01-01T00:00:02Z"}}']
        r = run("encode", stdin=b"\n".join(lines))   # a JSON line must say when and what; a missing field is 0
        self.assertEqual(r.stdout, b"2.000 0 0x0100 0000000000000000000000000000\n")
        self.assertEqual(r.stderr.decode().splitlines()[:3], [f'<stdin>:{n}: the object has no "{m}"' for n, m in
                         ((1, "header.timestamp"), (2, "header.msgId"), (3, "header"))])
        with open("/dev/full", "wb") as full:
            for args in (["decode", "examples/bus.log"], ["list"], ["synth"], ["stats", "examples/bus.log"]):
                p = subprocess.run([TOOL, *args], stdout=full, stderr=subprocess.PIPE, timeout=60, cwd=EXAMPLES + "/..")
                self.assertEqual(p.returncode, 1, args)
                self.assertIn(b"cannot write the output: No space left on device", p.stderr, args)
        p = subprocess.Popen([TOOL, "synth", "--count", "200000"], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        p.stdout.read(100)
        p.stdout.close()
        self.assertEqual((p.wait(timeout=60), p.stderr.read()), (0, b""))   # a closed pipe ends quietly


class Questions(unittest.TestCase):
    """Selection, stats and the way back, on one synth log."""

    @classmethod
    def setUpClass(cls):
        cls.log = run("synth", "--count", "3000", "--seed", "9").stdout
        cls.lines = messages(cls.log.decode())

    def test_message_and_time_select_exactly_the_lines(self):
        t = self.lines[100][0]   # --from and --to are inclusive: the same time selects that time's lines
        dd = {int(l[:6], 16) for l in run("list").stdout.decode().splitlines() if "  MSG_ID_DD_" in l}
        cases = [(["--message", "0x0100"], lambda i, s: i == 0x100),
                 (["--message", "msg_ID_alarm_status_DATA", "--message", "tdEVENT", "--message", "0X0e00"],
                  lambda i, s: i in (0x100, 0x1700, 0xE00)), (["--message", "dD"], lambda i, s: i in dd),
                 (["--from", t, "--to", t], lambda i, s: s == float(t)),
                 (["--from", "2023-11-14T22:13:30", "--to", "2023-11-14T22:13:40.500Z"],
                  lambda i, s: 1700000010.0 <= s <= 1700000020.5)]
        for args, wanted in cases:
            want = [l[:3] for l in self.lines if wanted(int(l[2], 16), float(l[0]))]
            self.assertTrue(0 < len(want) < len(self.lines), args)
            binary = run("decode", "--format", "binary", *args, stdin=self.log).stdout
            got = [l.split()[:3] for l in run("encode", "--from", "binary", stdin=binary).stdout.decode().splitlines()]
            self.assertEqual(got, want, args)
            stats = json.loads(run("stats", "--format", "json", *args, stdin=self.log).stdout)["totals"]
            self.assertEqual((stats["messages"], stats["leftOut"]), (len(want), len(self.lines) - len(want)), args)

    def test_stats_counts_and_rejected_causes(self):
        r = run("stats", "--message", "AlarmStatusData", "--message", "TdEvent", "--message", "0x2600", "examples/bus.log")
        self.assertEqual(r.stdout.decode().splitlines(), [
            "id      message               count  first                     last                         rate Hz        bytes     unread",
            "0x0100  AlarmStatusData           2  2023-11-14T22:13:20.123Z  2023-11-14T22:13:24.285Z       0.240           28          0",
            "0x1700  TdEvent                   2  2023-11-14T22:13:20.123Z  2023-11-14T22:13:22.736Z       0.383           40          2",
            "0x2600  DdTemperatureData         1  2023-11-14T22:13:22.587Z  2023-11-14T22:13:22.587Z           -           96          0",
            "", "5 messages of 3 types; 473 lines left out by the selection; 0 lines rejected"])
        bad = run("stats", "examples/malformed.log")
        self.assertEqual(bad.returncode, 1)
        for cause in ("payload too short", "unknown id", "bad payload", "bad sequence", "bad time"):
            self.assertRegex(bad.stdout.decode(), rf"\n  {cause} +\d+\n")

    def test_encode_reads_back_every_format(self):
        for form in ("binary", "text", "json"):
            data = run("decode", "--format", form, stdin=self.log).stdout
            for args in (["--from", form], []):
                back = run("encode", *args, stdin=data)
                self.assertEqual((back.returncode, back.stderr, len(back.stdout.splitlines())), (0, b"", 3000), (form, args))
                for a, b in zip(messages(back.stdout.decode()), self.lines):
                    self.assertEqual(a[:3], b[:3])
                    self.assertTrue(b[3].startswith(a[3].strip("-")), (a, b))   # bytes behind a record are dropped
        stream = b"".join(bytes([len(f)]) + f for f in (ALARM_PROTO, b"\x0a\x02\x08", ALARM_PROTO))
        r = run("encode", stdin=stream)
        self.assertEqual((r.returncode, len(r.stdout.splitlines())), (1, 2))
        self.assertIn("<stdin>: byte 29: ", r.stderr.decode())
        r = run("encode", stdin=b'{"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":640,"sequence":3},"payloadPtr":true}\n'
                b'{"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":2}}\n')
        self.assertEqual((r.returncode, r.stdout), (1, b"0.000 3 0x0280 01000000\n"))
        self.assertIn("<stdin>:2: unknown message id 0x0002", r.stderr.decode())


class List(unittest.TestCase):
    def test_listing_of_every_message_and_field(self):
        listing = run("list").stdout.decode().splitlines()   # 1258 wire fields, 32 oneof members, 124 "no fields"
        self.assertEqual([sum(l.startswith(p) for l in listing) for p in ("0x", "  ", "     -")], [474, 1258 + 32 + 124, 32])
        self.assertEqual(run("list", "alarmstatusdata").stdout.decode().splitlines(), [
            "0x0100  MSG_ID_ALARM_STATUS_DATA  zelko.messages.AlarmStatusData  14 bytes",
            "     0  U32  alarmState                       uint32", "     4  U32  alarmTop                         uint32",
            "     8  U32  silenceExpiresIn                 uint32", "    12  U16  alarmsFlags                      uint32"])
        self.assertEqual(run("list", "0x1700").stdout.decode().splitlines()[::4], [
            "0x1700  MSG_ID_TD_EVENT  zelko.messages.TdEvent  20 bytes (record reads 12)",
            "     -  -    data1_bool                       bool, schema only (oneof data1)",
            "     -  -    data2_bool                       bool, schema only (oneof data2)"])
        self.assertEqual((run("list", "NoSuchMessage").returncode, run("list", "0x0001").returncode), (1, 1))


class Plot(unittest.TestCase):
    def test_bad_series_is_misuse_and_writes_nothing(self):
        with tempfile.TemporaryDirectory() as tmp:
            page = os.path.join(tmp, "p.html")
            for args, words in ((["DdTemprature"], "nearest: DdTemperatureData"),
                                (["-", "DdTemperatureData.d1Tmp"], "nearest: DdTemperatureData.d1Temp"),
                                (["-"], "no SERIES")):
                r = run("plot", *args, "-o", page, stdin=ALARM)
                self.assertEqual((r.returncode, r.stdout), (2, b""), args)
                self.assertIn(words, r.stderr.decode(), args)
                self.assertFalse(os.path.exists(page), args)

    def test_values_reduction_and_empty_series(self):
        # d1Temp of 12000 DdTemperatureData messages, 1 ms apart, two of the first ten out of order. A dip and
        # a spike in one time bucket, in either order: in one bucket or both in the later half of a widened one.
        values = [i % 100 + 0.1 for i in range(12000)]
        for dip, spike in ((2001, 2003), (8005, 8007), (9007, 9005), (11006, 11003)):
            values[dip], values[spike] = -300.0 - dip, 5000.0 + spike
        lines = [f"{1700000000 + i / 1000:.3f} 1 0x2600 {struct.pack('<24f', v, *[0] * 23).hex()}"
                 for i, v in enumerate(values)]
        lines[3], lines[4] = lines[4], lines[3]
        log = "\n".join(lines).encode() + b"\n" + EVENT + BAL

        def charts(*args):
            r = run("plot", *args, "-o", "-", stdin=log)
            self.assertEqual((r.returncode, r.stderr), (0, b""), args)
            page = r.stdout.decode()
            return page, json.loads(re.search(r"var vorlinkCharts = (\[.*?\n\]);", page, re.S).group(1))

        page, (temp, alarm, event, bal) = charts("DdTemperatureData.d1Temp", "AlarmStatusData", "TdEvent", "DdBalChamberData")
        rows = temp["rows"]
        self.assertTrue(temp["series"][0]["points"] == 12000 and 1024 <= len(rows) / 2 <= 2048, len(rows))
        # Each bucket as two rows, at its first and its last message: its minimum and maximum, in their order.
        covered = []
        for (first, a), (last, b) in zip(rows[::2], rows[1::2]):
            bucket = values[first - rows[0][0]:last - rows[0][0] + 1]
            low, high, covered = min(bucket), max(bucket), covered + bucket
            self.assertEqual([a, b], [low, high] if bucket.index(low) < bucket.index(high) else [high, low], first)
        self.assertEqual(covered, values)   # every message in a bucket
        self.assertTrue("Reduced from 12000 points" in page)
        self.assertEqual(alarm["rows"], [])
        self.assertTrue("No points in the selection: alarmState, alarmTop" in page)
        self.assertEqual([r[1:4] + r[4:] for r in event["rows"]], [[9, 1, 2] + [None] * 8])
        self.assertEqual(([s["bool"] for s in bal["series"]], bal["rows"]),   # bools are drawn as 0/1 steps
                         ([False] * 3 + [True, False, True, True, True], [[1000, 3, 0, 0.1, 1, 7, 0, 1, 0]]))
        self.assertTrue("No points in the selection: data1_bool, data1_uint32" in page)

        page, [temp] = charts("--to", "1700000000.099", "DdTemperatureData.d1Temp")
        self.assertEqual(temp["rows"], [[1700000000000 + i, values[i]] for i in range(100)])
        self.assertFalse("Reduced" in page or "note reduced" in page)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for option in ("--tool", "--examples"):
        parser.add_argument(option, required=True)
    options, rest = parser.parse_known_args()
    TOOL, EXAMPLES = os.path.abspath(options.tool), os.path.abspath(options.examples)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
