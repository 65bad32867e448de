#!/usr/bin/env python3
"""The vorlink executable as a user runs it: exit codes, every output format,
rejected lines, selection, stats, the way back through encode, and the
listing of the dictionary. Runs in a time zone other than UTC."""

import argparse, json, os, re, struct, subprocess, sys, tempfile, time, unittest

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
                     ["decode", "--format", "csv"], ["decode", "--format", "csv", "--message", "Dd"], ["list", "Nope"],
                     ["list", "0x0001"], ["decode", "--format", "1"], ["encode", "--from", "json"], ["make", "Td"]):
            r = run(*args)
            self.assertEqual((r.returncode, r.stdout, bool(r.stderr)), (2, b"", True), args)
        for args, said in ((["decode", "--message", "DdTemprature"], "--message: no message 'DdTemprature'; nearest: "
                                                                      "DdTemperatureData, TdTemperatureData, FpTemperatureData"),
                           (["decode", "--format", "xml"], "--format must be one of dump, json, text, binary, csv (got 'xml')"),
                           (["stats", "--fromat", "json"], "unknown option '--fromat'; nearest: --format"),
                           (["encode", "--format", "1"], "--format must be one of json, binary, text (got '1')")):
            self.assertEqual(run(*args).stderr.decode().splitlines()[0], f"vorlink {args[0]}: {said}", args)
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
        self.assertEqual(csv, ["time,message,id,sequence,msgId,event,dataType1,dataType2,unread",
                               "1970-01-01T00:00:01.500Z,TdEvent,0x1700,65535,5888,9,1,2,2a00000003000000"])
        for line, values in ((BAL, "11776,3,0,0.1,true,7,false,true,false"), (b"1 1 0x1100 fbffffff0000804b51069e3f" +
                             b"00" * 12 + b"ffffffff" + b"00" * 8, "4352,-5,16777216,1.2345678,0,0,0,4294967295,0,0")):
            csv = run("decode", "--format", "csv", "--message", line.split()[2].decode(), stdin=line).stdout.decode()
            time, _, id, rest = csv.splitlines()[1].split(",", 3)
            self.assertEqual((time, id, rest), ("1970-01-01T00:00:01.000Z", line.split()[2].decode(), "1," + values))

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
            "examples/malformed.log:10: time 'yesterday' is not seconds since 1970 (0 to 253402300799.999, up to 9 decimals)",
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
            got = [l.split()[:3] for l in run("encode", "--format", "binary", stdin=binary).stdout.decode().splitlines()]
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
        # The rate is over the span from the first to the last message: none when they share one time.
        for log, rate in ((ALARM * 2, None), (ALARM * 2 + ALARM.replace(b"0.123", b"0.623"), 4.0)):
            stats = json.loads(run("stats", "--format", "json", stdin=log).stdout)["messages"][0]
            self.assertEqual((stats["id"], stats["msgId"], stats["rateHz"]), ("0x0100", 256, rate))
            text = run("stats", stdin=log).stdout.decode().splitlines()
            self.assertEqual((text[1].split()[5], text[-1]), ("%.3f" % rate if rate else "-", f"{len(log.splitlines())} "
                             "messages of 1 type; 0 lines left out by the selection; 0 lines rejected"))
        bad = run("stats", "examples/malformed.log")
        self.assertEqual(bad.returncode, 1)
        for cause in ("payload too short", "unknown id", "bad payload", "bad sequence", "bad time"):
            self.assertRegex(bad.stdout.decode(), rf"\n  {cause} +\d+\n")

    def test_encode_reads_back_every_format(self):
        for form in ("binary", "text", "json"):
            data = run("decode", "--format", form, stdin=self.log).stdout
            for args in (["--format", form], []):
                back = run("encode", *args, stdin=data)
                self.assertEqual((back.returncode, back.stderr, len(back.stdout.splitlines())), (0, b"", 3000), (form, args))
                for a, b in zip(messages(back.stdout.decode()), self.lines):
                    self.assertEqual(a[:3], b[:3])
                    self.assertTrue(b[3].startswith(a[3].strip("-")), (a, b))   # bytes behind a record are dropped
        # Blank lines before JSON or text are not the start of a binary stream.
        for form in ("json", "text"):
            data = run("decode", "--format", form, stdin=ALARM).stdout
            for lead in (b"\n", b"\n\n", b"\n\n\n\n", b" \n\r\n\t\n"):
                self.assertEqual(run("encode", stdin=lead + data).stdout, ALARM, (form, lead))
        stream = b"".join(bytes([len(f)]) + f for f in (ALARM_PROTO, b"\x0a\x02\x08", ALARM_PROTO))
        r = run("encode", stdin=stream)
        self.assertEqual((r.returncode, len(r.stdout.splitlines())), (1, 2))
        self.assertIn("<stdin>: byte 29: ", r.stderr.decode())
        r = run("encode", stdin=b'{"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":640,"sequence":3},"payloadPtr":true}\n'
                b'{"header":{"timestamp":"1970-01-01T00:00:00Z","msgId":2}}\n')
        self.assertEqual((r.returncode, r.stdout), (1, b"0.000 3 0x0280 01000000\n"))
        self.assertIn("<stdin>:2: unknown message id 0x0002", r.stderr.decode())


class Craft(unittest.TestCase):
    """Messages made by hand: encode's refusals, make, JSON as people write it."""
    HEADER = {"sequence": 1, "msgId": 19360, "timestamp": "2023-11-14T22:13:20Z"}

    def test_encode_refuses_a_value_its_wire_field_cannot_hold_in_every_format(self):
        def varint(n):
            out = b""
            while n >= 0x80:
                out, n = out + bytes([n & 0x7F | 0x80]), n >> 7
            return out + bytes([n])

        def binary(msg_id, number, value):   # header {timestamp {seconds: 1700000000}, msgId}, then the field
            header = b"\x0a" + varint(6) + b"\x08" + varint(1700000000) + b"\x10\x01\x18" + varint(msg_id)
            body = b"\x0a" + varint(len(header)) + header + bytes([number << 3]) + varint(value)
            return varint(len(body)) + body

        def text(value):
            return f"header {{ timestamp {{ seconds: 1700000000 }} sequence: 1 msgId: 19360 }}\ncommand: {value}\n\n".encode()

        refusal = "<stdin>:{}: command: {} does not fit U08 (0 to 255)"
        cases = [("json", lambda v: json.dumps({"header": self.HEADER, "command": v}).encode() + b"\n", refusal.format(1, "{}")),
                 ("json", lambda v: json.dumps({"header": self.HEADER, "command": str(v)}).encode() + b"\n", refusal.format(1, "{}")),
                 ("text", text, refusal.format(1, "{}")),
                 ("binary", lambda v: binary(19360, 2, v), "<stdin>: byte 0: command: {} does not fit U08 (0 to 255)")]
        for form, make, said in cases:
            for value in (256, 300, 70000):
                for args in ([], ["--format", form]):
                    r = run("encode", *args, "--strict", stdin=make(value))
                    self.assertEqual((r.returncode, r.stdout), (1, b""), (form, value))
                    self.assertEqual(r.stderr.decode().splitlines()[0], said.format(value), (form, value))
            self.assertEqual(run("encode", stdin=make(255)).stdout, b"1700000000.000 1 0x4BA0 ff\n", form)
        # A field behind one that fits is checked too.
        r = run("encode", "--format", "text", stdin=b"header { timestamp { seconds: 1 } sequence: 1 msgId: 256 }\n"
                b"alarmState: 2\nalarmsFlags: 70000\n")
        self.assertEqual(r.stderr.decode().splitlines()[0], "<stdin>:1: alarmsFlags: 70000 does not fit U16 (0 to 65535)")
        # A U32 has all of its 32 bits, and not one more.
        r = run("encode", stdin=binary(0x0100, 2, 1 << 32) + binary(0x0100, 2, (1 << 32) - 1))
        self.assertEqual(r.stderr.decode().splitlines()[0], "<stdin>: byte 0: alarmState: 4294967296 does not fit U32 (0 to 4294967295)")
        self.assertEqual(r.stdout, b"1700000000.000 1 0x0100 ffffffff00000000000000000000\n")
        # Past 64 bits, said the same way; nothing is written as 0.
        r = run("encode", stdin=b'{"header":{"sequence":1,"msgId":768,"timestamp":"2023-11-14T22:13:20Z"},"alarmName":99999999999999999999}')
        self.assertEqual((r.returncode, r.stdout), (1, b""))
        self.assertIn("<stdin>:1: alarmName: 99999999999999999999 does not fit U32 (0 to 4294967295)", r.stderr.decode())

    def test_make_then_decode_gives_back_every_wire_type(self):
        rows = {   # every wire type at its edges, hexadecimal, negative, float, bool
            "FwVersionsRequest": {"major": "255", "minor": "0", "micro": "0x7f", "build": "65535", "compatibility": "4294967295"},
            "TdValvesData": {"valveID": "1", "state": "2", "currentPosID": "3", "currentPos": "-32768", "cmdPos": "32767",
                             "posA": "-1", "posB": "0x0", "posC": "0", "posD": "0", "maxHomingPos": "0x10"},
            "TdBloodPumpData": {"h4SetFlowRate": "-2147483648", "h4MeasFlow": "-1.5", "h4MeasRotorSpd": "3.4028235e38",
                                "h4MeasPumpSpd": "0.1", "h4MeasTorquemNm": "-0", "h4SetRPM": "1e-45", "h4RotorCount": "0",
                                "h4PresFlow": "0", "h6RotorHallState": "2147483647"},
            "TdAlarmInformationData": {"audioVolume": "1", "audioCurrHG": "0", "audioCurrLG": "0", "backupAudioCurr": "0",
                                       "safetyShutdown": "true", "acPowerLost": "false", "uiAlarmButtonBlocks1": "1",
                                       "uiAlarmButtonBlocks2": "0", "uiAlarmButtonBlocks3": "0", "uiAlarmButtonBlocks4": "0",
                                       "uiAlarmButtonBlocks5": "0", "uiAlarmButtonBlocks6": "255"}}
        f32 = lambda x: struct.unpack("f", struct.pack("f", x))[0]
        number = lambda t: t == "true" if t in ("true", "false") else f32(float(t)) if "." in t or "e" in t else int(t, 0)
        for message, fields in rows.items():
            args = ["make", message, *(f"{k}={v}" for k, v in fields.items()), "--time", "1700000000.123456", "--sequence", "9"]
            line = run(*args)
            self.assertEqual((line.returncode, line.stderr), (0, b""), message)
            got = json.loads(run("decode", "--format", "json", stdin=line.stdout).stdout)
            self.assertEqual(got["header"], {"sequence": 9, "msgId": got["header"]["msgId"], "timestamp": "2023-11-14T22:13:20.123Z"})
            for k, v in fields.items():
                self.assertEqual(f32(got[k]) if isinstance(got[k], float) else got[k], number(v), (message, k))
            for form in ("json", "text", "binary"):   # as decode shows the message the bus carries
                self.assertEqual(run(*args, "--format", form).stdout.replace(b"# zelko", b"# line 1: zelko"),
                                 run("decode", "--format", form, stdin=line.stdout).stdout, (message, form))
        refusals = [("FwVersionsRequest", "major=256", "major: 256 does not fit U08 (0 to 255)"),
                    ("FwVersionsRequest", "build=65536", "build: 65536 does not fit U16 (0 to 65535)"),
                    ("FwVersionsRequest", "compatibility=0x100000000", "compatibility: 0x100000000 does not fit U32 (0 to 4294967295)"),
                    ("FwVersionsRequest", "major=-1", "major: -1 does not fit U08 (0 to 255)"),
                    ("TdValvesData", "cmdPos=32768", "cmdPos: 32768 does not fit S16 (-32768 to 32767)"),
                    ("TdValvesData", "cmdPos=4294934528", "cmdPos: 4294934528 does not fit S16 (-32768 to 32767)"),
                    ("TdBloodPumpData", "h4SetFlowRate=-2147483649", "h4SetFlowRate: -2147483649 does not fit S32 (-2147483648 to 2147483647)"),
                    ("TdBloodPumpData", "h4MeasFlow=1e39", "h4MeasFlow: 1e39 does not fit F32 (a finite float up to 3.4028235e38 either way, or NaN or an infinity)"),
                    ("TdBloodPumpData", "h4RotorCount=99999999999999999999", "h4RotorCount: 99999999999999999999 does not fit U32 (0 to 4294967295)"),
                    ("TdAlarmInformationData", "acPowerLost=2", "acPowerLost: '2' is not true or false (a U32 held as a bool)"),
                    ("TdValvesData", "cmdPos=12x", "cmdPos: '12x' is not a whole number (decimal or 0x hexadecimal)"),
                    ("TdValvesData", "cmdPos=1.5", "cmdPos: '1.5' is not a whole number (decimal or 0x hexadecimal)"),
                    ("TdValvesData", "cmdPOS=1", "TdValvesData has no field 'cmdPOS'; nearest: cmdPos, posA, posB"),
                    ("TdValvesData", "cmdPos=1 cmdPos=2", "cmdPos is given twice"),
                    ("FwVersionsRequest", "major=1 micro=2", "FwVersionsRequest needs every field; missing: minor, build, compatibility (or --fill 0)"),
                    ("TdValvesData", "--sequence=65536", "--sequence: '65536' is not a number from 0 to 65535"),
                    ("TdValvesData", "--sequence=-1", "--sequence: '-1' is not a number from 0 to 65535")]
        for message, words, said in refusals:
            r = run("make", message, "--fill", "0", *words.split()) if "missing" not in said else run("make", message, *words.split())
            self.assertEqual((r.returncode, r.stdout, r.stderr.decode().splitlines()[0]), (2, b"", "vorlink make: " + said), words)
        for words, line in (("payloadPtr=true --sequence 65535", "1.000 65535 0x0280 01000000"),
                            ("payloadPtr=1 --sequence 0", "1.000 0 0x0280 01000000"),
                            ("payloadPtr=false", "1.000 0 0x0280 00000000"), ("payloadPtr=0", "1.000 0 0x0280 00000000")):
            self.assertEqual(run("make", "TdSendTestConfiguration", "--time", "1", *words.split()).stdout.decode(), line + "\n")
        now = run("make", "0x1780", "valve=1", "state=2").stdout.split()
        self.assertEqual(now[1:], [b"0", b"0x1780", b"0100000002000000"])
        self.assertLess(abs(float(now[0]) - time.time()), 60)

    def test_json_as_people_write_it(self):
        objects = [{"header": dict(self.HEADER, sequence=n), "command": n} for n in (1, 2, 300, 4)]
        pretty = "\n".join(json.dumps(o, indent=2) for o in objects).encode()
        first_lines = [1 + sum(json.dumps(o, indent=2).count("\n") + 1 for o in objects[:k]) for k in range(4)]
        for text in (pretty, pretty.replace(b"  ", b"\t"), b"\n".join(json.dumps(o).encode() for o in objects)):
            r = run("encode", stdin=text)
            self.assertEqual(r.stdout.decode().splitlines(), [f"1700000000.000 {n} 0x4BA0 0{n}" for n in (1, 2, 4)])
            line = first_lines[2] if text is not objects and b"\n  " in text or b"\t" in text else 3
            self.assertEqual(r.stderr.decode().splitlines()[0], f"<stdin>:{line}: command: 300 does not fit U08 (0 to 255)")
        # Braces, a bracket, a quote and a backslash inside a string neither open nor close a value.
        odd = dict(objects[0], header=dict(self.HEADER, timestamp='{"[\\'))
        r = run("encode", stdin=(json.dumps(odd, indent=2) + "\n" + json.dumps(objects[1], indent=2)).encode())
        self.assertEqual((r.stdout, r.stderr.decode().split(" ")[0]), (b"1700000000.000 2 0x4BA0 02\n", "<stdin>:1:"))
        # Well-formed JSON only; an object left open is reported where it starts.
        good = json.dumps(objects[0]).encode()
        for bad, said in ((b'{"header":{"sequence":1,"msgId":19360,"timestamp":"2023-11-14T22:13:20Z"},"command":1,}', "Missing a name"),
                          (b'{"header":{"sequence":1,"msgId":19360,"msgId":19360,"timestamp":"2023-11-14T22:13:20Z"}}', '"msgId" is given twice'),
                          (b'{"header":{"sequence":1,\n"msgId":19360,', "Missing a name")):
            r = run("encode", stdin=good + b"\n\n" + bad + (b"" if b"\n" in bad else b"\n" + good))
            self.assertEqual(r.returncode, 1)
            self.assertIn(said, r.stderr.decode())
            self.assertTrue(r.stderr.decode().startswith("<stdin>:3: not JSON: "), r.stderr)


class List(unittest.TestCase):
    def test_listing_of_every_message_and_field(self):
        listing = run("list").stdout.decode().splitlines()   # 1258 wire fields, 32 oneof members, 124 "no fields"
        self.assertEqual([sum(l.startswith(p) for l in listing) for p in ("0x", "  ", "     -")], [474, 1258 + 32 + 124, 32 + 124])
        self.assertEqual(run("list", "alarmstatusdata").stdout.decode().splitlines(), [
            "0x0100  MSG_ID_ALARM_STATUS_DATA  zelko.messages.AlarmStatusData  14 bytes",
            "     0  U32  AlarmStatusData.alarmState" + " " * 31 + "uint32",
            "     4  U32  AlarmStatusData.alarmTop" + " " * 33 + "uint32",
            "     8  U32  AlarmStatusData.silenceExpiresIn" + " " * 25 + "uint32",
            "    12  U16  AlarmStatusData.alarmsFlags" + " " * 30 + "uint32"])
        event = run("list", "0x1700").stdout.decode().splitlines()
        self.assertEqual((event[0], event[4].split()), ("0x1700  MSG_ID_TD_EVENT  zelko.messages.TdEvent  20 bytes (record reads 12)",
                         ["-", "-", "TdEvent.data1_bool", "bool,", "schema", "only", "(oneof", "data1)"]))
        self.assertIn("     -  -    AckMessageThatRequiresAck: no fields", listing)
        # Every line below a message names it: grep keeps a message whole.
        current = None
        for line in listing:
            if line.startswith("0x"):
                current = line.split()[2].split(".")[-1]
            else:
                self.assertIn(current, line)

    def test_positions_wire_types_and_sizes_are_the_message_lists(self):
        width, rows = {"U08": 1, "U16": 2, "U32": 4, "S16": 2, "S32": 4, "F32": 4}, {}
        with open(os.path.join(EXAMPLES, "..", "lib", "Vorlink", "src", "ZelkoMsgRows.txt")) as f:
            lines = [line for line in f if line.strip() and not line.startswith("#")]
        for line in lines:
            _, _, name, size, fields = line.split(None, 4)
            at, wire = 0, []
            for m in re.finditer(r"(?:^|\s)(\w+?)(?:(\d+)\.\.(\d+))?:(\w{3})", fields):
                for field in [m[1]] if not m[2] else [f"{m[1]}{k}" for k in range(int(m[2]), int(m[3]) + 1)]:
                    wire, at = wire + [(field, at, m[4], width[m[4]])], at + width[m[4]]
            rows[name] = (int(size), at, wire)
        listed = json.loads(run("list", "--format", "json").stdout)
        self.assertEqual({r["message"]: (r["payloadSize"], r["wireSize"], [(f["name"], f["position"], f["wireType"], f["width"])
                          for f in r["fields"] if "position" in f]) for r in listed}, rows)
        text = run("list").stdout.decode().splitlines()
        self.assertEqual([l.split()[3] for l in text if l.startswith("0x")], [str(size) for size, _, _ in rows.values()])
        self.assertEqual([l.split()[:3] for l in text if re.match(r" +\d", l)],
                         [[str(at), w, f"{m}.{f}"] for m, (_, _, wire) in rows.items() for f, at, w, _ in wire])

    def test_one_vocabulary_for_every_command(self):
        """--message, list and make read a key alike."""
        rows = json.loads(run("list", "--format", "json").stdout)
        self.assertEqual(len(rows), 474)
        for key in ("0x2600", "9728", "DdTempratureData", "DdTemperatureData", "ddtemperaturedatapayload", "MSG_ID_DD_TEMPERATURE_DATA",
                    "zelko.messages.DdTemperatureData"):
            listed = run("list", "--format", "json", key)
            if key == "DdTempratureData":   # no such name: the three nearest
                for command in (["list"], ["make"], ["stats", "-m"]):
                    self.assertEqual(run(*command, key).stderr.decode().splitlines()[0].split(": ", 1)[1].replace("--message: ", ""),
                                     f"no message '{key}'; nearest: DdTemperatureData, TdTemperatureData, FpTemperatureData")
                continue
            self.assertEqual([r["message"] for r in json.loads(listed.stdout)], ["DdTemperatureData"], key)
            csv = run("decode", "--format", "csv", "-m", key, "examples/bus.log").stdout.decode().splitlines()
            self.assertEqual(csv[1].split(",")[1:5], ["DdTemperatureData", "0x2600", "23909", "9728"], key)
            made = run("make", key, "--fill", "0", "--time", "1", "--sequence", "5").stdout
            self.assertEqual(made, b"1.000 5 0x2600 " + b"0" * 192 + b"\n", key)
        self.assertEqual(run("decode", "-m", "99999").stderr.decode().splitlines()[0],
                         "vorlink decode: --message: no message has the id 99999")
        # A node prefix takes every name that starts with the node's word,
        # digits after it included, and no other.
        for node in ("Td", "Dd", "Fp", "Ui"):
            want = sorted(r["id"] for r in rows if r["message"].startswith(node) and not r["message"][2].islower())
            self.assertEqual(sorted(r["id"] for r in json.loads(run("list", "--format", "json", node.lower()).stdout)), want)
            stats = json.loads(run("stats", "--format", "json", "--message", node, "examples/bus.log").stdout)
            self.assertEqual(sorted(m["id"] for m in stats["messages"]), want, node)
        self.assertIn("0x1780", want_td := sorted(r["id"] for r in rows if r["message"].startswith("Td")))
        self.assertEqual(len(want_td), 174)
        both = json.loads(run("list", "--format", "json", "Fp", "0x0100", "FpTesterLoginRequest").stdout)
        self.assertEqual(len(both), 1 + sum(r["message"].startswith("Fp") for r in rows))


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

        # Up to 5000 messages a chart holds every point, in time order; at 5001 it is reduced.
        page, [temp] = charts("--to", "1700000004.999", "DdTemperatureData.d1Temp")
        self.assertEqual(temp["rows"], [[1700000000000 + i, values[i]] for i in range(5000)])
        self.assertFalse("Reduced" in page or "note reduced" in page)
        page, [temp] = charts("--to", "1700000005.000", "DdTemperatureData.d1Temp", "DdTemperatureData.d4Temp")
        buckets = int(re.search(r"Reduced from 10002 points: .* each of (\d+) time buckets", page).group(1))
        self.assertTrue(1024 <= buckets <= 2048 and len(temp["rows"]) <= 2 * buckets, buckets)


class Jobs(unittest.TestCase):
    """--jobs N against one job: the same bytes on both streams, in the same order."""

    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        lines = run("synth", "--count", "12000", "--seed", "4").stdout.splitlines(keepends=True)
        bad = [b"1700000000.5 3 0x0001 -\n", b"soon 3 0x0100 02000000010000003c0000000500\n",
               b"1700000000.5 3 0x0100 02000000\n", b"1700000000.5 3 0x0300 0700z000\n",
               b"\xef\xbb\xbf1700000000.5 3 0x0300 07000000\n"]   # a byte-order mark inside the file is no mark
        # A line longer than a piece, and a bad line across every 64 KiB boundary.
        lines.insert(4000, b"1700000001.25 9 0x0100 " + b"05" * 300000 + b"\n")
        log, at = bytearray(), 0
        for i, line in enumerate(lines):
            if i % 700 == 350:
                log += bad[i // 700 % len(bad)]
            boundary = (len(log) // 65536 + 1) * 65536
            if len(log) + len(line) > boundary:
                log += bad[at % len(bad)].replace(b" 3 ", b" " + b"0" * (boundary - len(log)) + b"3 ", 1)
                at += 1
            log += line
        cls.log = os.path.join(cls.dir.name, "jobs.log")
        with open(cls.log, "wb") as f:
            f.write(log + b"1700000002 1 0x0300 07000000")   # no newline at the end
        # The first bad line far into the file, where a later piece holds it.
        cls.late = os.path.join(cls.dir.name, "late.log")
        with open(cls.late, "wb") as f:
            f.write(b"".join(lines[:3000]) + bad[2] + b"".join(lines[3000:]) + bad[0])

    def same(self, *args, log=None):
        """Runs `args` on one job and on two and three; both streams as one, so their order counts too."""
        log = log or self.log
        one = subprocess.run([TOOL, *args, log], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=ENV)
        for jobs in ("2", "3"):
            more = subprocess.run([TOOL, *args, "--jobs", jobs, log], stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, env=ENV)
            if (more.returncode, more.stdout) != (one.returncode, one.stdout):
                # Told short: unittest's own diff of megabytes takes minutes.
                a, b = one.stdout.splitlines(), more.stdout.splitlines()
                n = next((i for i, (x, y) in enumerate(zip(a, b)) if x != y), min(len(a), len(b)))
                self.fail(f"{args} on {jobs} jobs: status {more.returncode} for {one.returncode}, "
                          f"line {n + 1}: {b[n:n + 1]} for {a[n:n + 1]}")
        return one

    def test_every_format_and_stats_as_one_job(self):
        dump = self.same("decode").stdout.decode().splitlines()
        self.assertEqual(dump[-1], "vorlink decode: 27 lines rejected")
        self.assertTrue(any(l.endswith("jobs.log:351: unknown message id 0x0001") for l in dump))
        self.assertTrue(dump[-2].endswith("AlarmClearedPayload: alarmName=7"))
        self.assertTrue(any("+299986 bytes not read" in l for l in dump))
        for args in (["--format", "json"], ["--format", "text"], ["--format", "binary"],
                     ["--format", "csv", "--message", "DdTemperatureData"], ["--message", "Dd", "--from", "1700000100"]):
            self.same("decode", *args)
        for args in ([], ["--format", "json"], ["--message", "Td"]):
            self.assertIn(b"rejected", self.same("stats", *args).stdout)
        # Every piece after the first starts with gzip's magic, and is still a piece of a plain file.
        magic = os.path.join(self.dir.name, "magic.log")
        with open(magic, "wb") as f:
            f.write(b"1700000000.5 3 0x0300 07000000\n" + b"\x1f\x8b 1 0x0100 00\n" * 20000)
        self.assertIn(b"20000 lines rejected", self.same("stats", log=magic).stdout)

    def test_strict_stops_where_one_job_stops(self):
        for args in (["decode"], ["decode", "--format", "text"], ["stats", "--format", "json"]):
            self.same(*args, "--strict")
            r = self.same(*args, "--strict", log=self.late).stdout.decode().splitlines()
            self.assertTrue("late.log:3001: payload of 4 bytes is too short" in "\n".join(r), args)
        self.assertEqual(r[-1], "vorlink stats: 1 line rejected, stopped (--strict)")
        self.assertTrue('"messages": 2999' in "\n".join(r))   # a comment line and 2999 messages ahead of it

    def test_a_bad_number_of_jobs_is_misuse(self):
        for jobs in ("0", "-1", "two"):
            self.assertEqual(run("decode", "--jobs", jobs, self.log).returncode, 2, jobs)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for option in ("--tool", "--examples"):
        parser.add_argument(option, required=True)
    options, rest = parser.parse_known_args()
    TOOL, EXAMPLES = os.path.abspath(options.tool), os.path.abspath(options.examples)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
