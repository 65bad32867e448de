#!/usr/bin/env python3
"""The vorlink executable as a user runs it: subcommands, exit codes, output
formats, rejected lines, the round trip through JSON, and the dictionary
listing checked against the message list the library is generated from."""

import argparse
import datetime
import json
import os
import pty
import re
import select
import struct
import subprocess
import sys
import tempfile
import unittest

TOOL = EXAMPLES = ROWS = None

# The worked AlarmStatusData message and its schema message bytes.
ALARM_LINE = "1700000000.123 7 0x0100 02000000010000003c0000000500"
ALARM_PROTO = bytes.fromhex("0a120a0b0880e2cfaa0610c0a9d33a10071880021002180120" "3c2805")


def run(*args, stdin=None, env=None):
    return subprocess.run([TOOL, *args], input=stdin, capture_output=True, env=env, timeout=300)


def read_delimited(data):
    """Splits a varint-length-delimited stream into its messages."""
    messages, i = [], 0
    while i < len(data):
        size, shift = 0, 0
        while True:
            b = data[i]
            i += 1
            size |= (b & 0x7F) << shift
            shift += 7
            if b < 0x80:
                break
        messages.append(data[i:i + size])
        i += size
    assert i == len(data), "stream ends inside a message"
    return messages


def read_text(path):
    with open(path) as f:
        return f.read()


def message_lines(text):
    return [l for l in text.splitlines() if l.strip() and not l.lstrip().startswith("#")]


def read_rows(path):
    """The message list: id -> (enumerator, message, size, [(name, type)], union)."""
    rows = {}
    for line in read_text(path).splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        parts = line.split()
        fields, union = [], False
        for token in parts[4:]:
            if token == "-":
                continue
            union |= "+" in token
            token = token.split("+")[0]
            name, wire = token.split(":")
            wire = wire.split("=")[0]
            run_ = re.fullmatch(r"(.*?)(\d+)\.\.(\d+)", name)
            if run_:
                for k in range(int(run_.group(2)), int(run_.group(3)) + 1):
                    fields.append((f"{run_.group(1)}{k}", wire))
            else:
                fields.append((name, wire))
        rows[int(parts[0], 16)] = (parts[1], parts[2], int(parts[3]), fields, union)
    return rows


class CommandLine(unittest.TestCase):
    def test_help_version_and_misuse(self):
        for args in (["--help"], ["help", "decode"], ["decode", "--help"], ["encode", "-h"],
                     ["list", "--help"], ["synth", "--help"]):
            r = run(*args)
            self.assertEqual(r.returncode, 0, args)
            self.assertIn(b"Usage: vorlink", r.stdout)
        r = run("--version")
        self.assertEqual(r.returncode, 0)
        self.assertRegex(r.stdout.decode(), r"^vorlink \d+\.\d+\.\d+ .*474 messages")
        for args in ([], ["frobnicate"], ["decode", "--format", "xml"], ["decode", "--bogus"],
                     ["decode", "--format"], ["decode", "a", "b"], ["decode", "/no/such/file"],
                     ["synth", "--count", "ten"], ["synth", "--seed=-1"], ["list", "1", "2"],
                     ["encode", "--strict=yes"]):
            r = run(*args)
            self.assertEqual(r.returncode, 2, args)
            self.assertEqual(r.stdout, b"", args)
            self.assertTrue(r.stderr, args)


class Decode(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.log = os.path.join(EXAMPLES, "bus.log")
        cls.count = len(message_lines(read_text(cls.log)))

    def test_example_holds_every_message_and_decodes_in_every_format(self):
        dump = run("decode", self.log)
        self.assertEqual((dump.returncode, dump.stderr), (0, b""))
        lines = dump.stdout.decode().splitlines()
        self.assertEqual(len(lines), self.count)
        self.assertEqual(lines[0], "2023-11-14T22:13:20.123Z 0x0100 AlarmStatusDataPayload: "
                                   "alarmState=2, alarmTop=1, silenceExpiresIn=60, alarmsFlags=5")
        self.assertEqual(lines[1], "2023-11-14T22:13:20.123Z 0x1700 TdEventPayload: event=9, dataType1=1, "
                                   "dataType2=2  +8 bytes not read: 2a00000003000000")

        js = run("decode", "--format", "json", self.log)
        self.assertEqual((js.returncode, js.stderr), (0, b""))
        objects = [json.loads(l) for l in js.stdout.decode().splitlines()]
        self.assertEqual(len(objects), self.count)
        self.assertEqual(len({o["header"]["msgId"] for o in objects}), 474)
        self.assertEqual(objects[0], {"header": {"timestamp": "2023-11-14T22:13:20.123Z", "sequence": 7,
                                                 "msgId": 256},
                                      "alarmState": 2, "alarmTop": 1, "silenceExpiresIn": 60, "alarmsFlags": 5})
        self.assertEqual(objects[1]["header"]["sequence"], -1)

        text = run("decode", "--format", "text", self.log)
        self.assertEqual(text.returncode, 0)
        blocks = [b for b in text.stdout.decode().split("\n\n") if b.strip()]
        self.assertEqual(len(blocks), self.count)
        self.assertTrue(blocks[0].startswith("# line "))
        self.assertIn("zelko.messages.AlarmStatusData\nheader {", blocks[0])
        self.assertIn("silenceExpiresIn: 60", blocks[0])

        binary = run("decode", "--format", "binary", self.log)
        self.assertEqual(binary.returncode, 0)
        frames = read_delimited(binary.stdout)
        self.assertEqual(len(frames), self.count)
        self.assertEqual(frames[0], ALARM_PROTO)

    def test_standard_input_and_a_frame_longer_than_127_bytes(self):
        r = run("decode", "--format", "binary", "-", stdin=(ALARM_LINE + "\n").encode())
        self.assertEqual(r.stdout, bytes([len(ALARM_PROTO)]) + ALARM_PROTO)
        # TdValidatedTreatmentParams with 24 large values makes a schema message of
        # more than 127 bytes: its size takes two bytes of varint.
        payload = "ffffff7f" * 24
        r = run("decode", "--format", "binary", stdin=f"1 1 0x4400 {payload}".encode())
        [frame] = read_delimited(r.stdout)
        self.assertGreater(len(frame), 127)

    def test_bad_lines_are_reported_and_the_rest_converted(self):
        bad = os.path.join(EXAMPLES, "malformed.log")
        r = run("decode", bad)
        self.assertEqual(r.returncode, 1)
        self.assertEqual([l.split(" ", 2)[2] for l in r.stdout.decode().splitlines()],
                         ["AlarmStatusDataPayload: alarmState=2, alarmTop=1, silenceExpiresIn=60, alarmsFlags=5",
                          "AlarmClearedPayload: alarmName=7"])
        errors = r.stderr.decode().splitlines()
        expected = {5: "too short", 6: "unknown message id 0x0001", 7: "odd number", 8: "not hexadecimal",
                    9: "sequence", 10: "time"}
        for number, words in expected.items():
            self.assertTrue(any(e.startswith(f"{bad}:{number}: ") and words in e for e in errors), (number, errors))
        self.assertIn("6 lines rejected", errors[-1])
        self.assertEqual(len(errors), 7)
        # Library warnings stay off both streams unless asked for.
        self.assertNotIn("Not enough data", r.stderr.decode())
        verbose = run("decode", "--verbose", bad)
        self.assertIn("Not enough data", verbose.stderr.decode())
        self.assertEqual(verbose.stdout, r.stdout)

        strict = run("decode", "--strict", "--format", "json", bad)
        self.assertEqual(strict.returncode, 1)
        self.assertEqual(len(strict.stdout.splitlines()), 1)
        self.assertEqual(len(strict.stderr.decode().splitlines()), 2)

    def test_what_a_new_user_stumbles_on(self):
        g = ALARM_LINE.encode() + b"\n"
        event = b"1.5 1 0x1700 0900000001000000020000002a00000003000000\n"
        # A byte-order mark ahead of the first line is not part of it.
        r = run("decode", stdin=b"\xef\xbb\xbf" + g)
        self.assertEqual((r.returncode, r.stdout.split()[:2]), (0, [b"2023-11-14T22:13:20.123Z", b"0x0100"]))
        # The bytes behind a record are shown and counted; the library's notes only for what was converted.
        r = run("decode", "--verbose", stdin=g + event)
        self.assertEqual(r.stdout.decode().splitlines()[1], "1970-01-01T00:00:01.500Z 0x1700 TdEventPayload: "
                         "event=9, dataType1=1, dataType2=2  +8 bytes not read: 2a00000003000000")
        self.assertEqual(r.stderr.decode().splitlines(), ["vorlink: library: WARNING: MsgId=TdEvent contains "
                         "union/oneof field(s); protobuf serialization is partial"])
        stats = json.loads(run("stats", "--format", "json", stdin=g + event + event).stdout)
        self.assertEqual([(m["count"], m["withUnreadBytes"]) for m in stats["messages"]], [(1, 0), (2, 2)])
        # A JSON line must say when and what; a missing record field is 0.
        lines = [b'{"header":{"sequence":7,"msgId":256}}', b'{"header":{"timestamp":"1970-01-01T00:00:02Z"}}',
                 b'{"alarmState":2}', b'{"header":{"msgId":256,"timestamp":"1970-01-01T00:00:02Z"}}']
        r = run("encode", stdin=b"\n".join(lines))
        self.assertEqual(r.stdout, b"2.000 0 0x0100 0000000000000000000000000000\n")
        self.assertEqual(r.stderr.decode().splitlines()[:3], [f'<stdin>:{n}: the object has no "{m}"' for n, m in
                         ((1, "header.timestamp"), (2, "header.msgId"), (3, "header"))])
        # A failed write is an error with its reason; a closed pipe is not.
        with open("/dev/full", "wb") as full:
            for args in (["decode", os.path.join(EXAMPLES, "bus.log")], ["list"], ["synth"],
                         ["stats", os.path.join(EXAMPLES, "bus.log")]):
                p = subprocess.run([TOOL, *args], stdout=full, stderr=subprocess.PIPE, timeout=60)
                self.assertEqual(p.returncode, 1, args)
                self.assertIn(b"cannot write the output: No space left on device", p.stderr, args)
        p = subprocess.Popen([TOOL, "synth", "--count", "200000"], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        p.stdout.read(100)
        p.stdout.close()
        self.assertEqual((p.wait(timeout=60), p.stderr.read()), (0, b""))


class RoundTrip(unittest.TestCase):
    def test_decode_then_encode_gives_back_the_log(self):
        with tempfile.TemporaryDirectory() as tmp:
            log = os.path.join(tmp, "synth.log")
            with open(log, "wb") as f:
                f.write(run("synth", "--count", "2000", "--seed", "42").stdout)
            js = run("decode", "--format", "json", log)
            self.assertEqual(js.returncode, 0)
            back = run("encode", "-", stdin=js.stdout)
            self.assertEqual((back.returncode, back.stderr), (0, b""))
            original = message_lines(read_text(log))
        rows = read_rows(ROWS)
        again = back.stdout.decode().splitlines()
        self.assertEqual(len(again), len(original))
        for a, b in zip(original, again):
            ta, sa, ia, pa = a.split()
            tb, sb, ib, pb = b.split()
            self.assertEqual((ta, sa, ia), (tb, sb, ib))
            if rows[int(ia, 16)][4]:   # union messages: the record keeps its own fields only
                self.assertTrue(pa.startswith(pb), (a, b))
            else:
                self.assertEqual(pa if pa != "-" else "", pb if pb != "-" else "", a)

    def test_bool_and_narrowing_on_the_way_back(self):
        t = '"timestamp":"1970-01-01T00:00:00Z"'
        lines = [
            '{"header":{%s,"msgId":2},"payloadPtr":true}' % t,                  # 0x0002 is unknown
            '{"header":{%s,"msgId":640,"sequence":3},"payloadPtr":true}' % t,   # bool to U32 1
            '{"header":{%s,"msgId":1792},"uiAlarmButtonBlocks1":300}' % t,     # U08 keeps the low byte
        ]
        r = run("encode", stdin="\n".join(lines).encode())
        self.assertEqual(r.returncode, 1)
        self.assertIn("<stdin>:1: unknown message id 0x0002", r.stderr.decode())
        out = r.stdout.decode().splitlines()
        self.assertEqual(out[0], "0.000 3 0x0280 01000000")
        self.assertEqual(out[1].split()[3][48:50], "2c")


class Questions(unittest.TestCase):
    """Selection, stats, CSV and encode from every format, on one synth log."""

    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.log = os.path.join(cls.tmp.name, "synth.log")
        with open(cls.log, "wb") as f:
            f.write(run("synth", "--count", "3000", "--seed", "9").stdout)
        cls.lines = [l.split() for l in message_lines(read_text(cls.log))]
        cls.rows = read_rows(ROWS)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def selected_ids(self, *args):
        r = run("decode", "--format", "binary", *args, self.log)
        self.assertEqual((r.returncode, r.stderr), (0, b""), args)
        out = run("encode", "--from", "binary", stdin=r.stdout)
        return [l.split() for l in out.stdout.decode().splitlines()]

    def test_message_and_time_select_exactly_the_lines(self):
        rows = self.rows
        dd = {i for i, r in rows.items() if re.match(r"Dd[A-Z]", r[1])}
        t0, t1 = 1700000010.0, 1700000020.5
        iso0, iso1 = "2023-11-14T22:13:30Z", "2023-11-14T22:13:40.500"
        cases = [
            (["--message", "0x0100"], lambda i, t: i == 0x100),
            (["--message", "MSG_ID_ALARM_STATUS_DATA", "--message", "tdevent"], lambda i, t: i in (0x100, 0x1700)),
            (["--message", "dd"], lambda i, t: i in dd),
            (["--from", str(t0), "--to", str(t1)], lambda i, t: t0 <= t <= t1),
            (["--message", "Dd", "--from", iso0, "--to", iso1], lambda i, t: i in dd and t0 <= t <= t1),
        ]
        for args, wanted in cases:
            want = [l for l in self.lines if wanted(int(l[2], 16), float(l[0]))]
            self.assertTrue(0 < len(want) < len(self.lines), args)
            got = self.selected_ids(*args)
            self.assertEqual([l[:3] for l in got], [l[:3] for l in want], args)
            stats = json.loads(run("stats", "--format", "json", *args, self.log).stdout)
            self.assertEqual(stats["totals"]["messages"], len(want), args)
            self.assertEqual(stats["totals"]["leftOut"], len(self.lines) - len(want), args)
        for args in (["--message", "DdTemprature"], ["--message", "0x0001"], ["--from", "soon"],
                     ["--from", "20", "--to", "10"]):
            r = run("stats", *args, self.log)
            self.assertEqual((r.returncode, r.stdout), (2, b""), args)
        self.assertIn("nearest: DdTemperatureData", run("decode", "--message", "DdTemprature", self.log).stderr.decode())

    def test_stats_counts_times_bytes_and_rejected_causes(self):
        stats = json.loads(run("stats", "--format", "json", self.log).stdout)
        seen = {}
        for t, _, i, p in self.lines:
            s = seen.setdefault(int(i, 16), [0, t, t, 0])
            s[0] += 1
            s[2] = t
            s[3] += 0 if p == "-" else len(p) // 2
        self.assertEqual(len(stats["messages"]), len(seen))
        for m in stats["messages"]:
            count, first, last, size = seen[m["id"]]
            self.assertEqual((m["count"], m["payloadBytes"], m["message"]),
                             (count, size, self.rows[m["id"]][1]))
            for iso, t in ((m["first"], first), (m["last"], last)):
                self.assertEqual(iso, datetime.datetime.fromtimestamp(float(t), datetime.timezone.utc)
                                 .isoformat(timespec="milliseconds").replace("+00:00", "Z"))
            if count > 1 and last != first:
                self.assertAlmostEqual(m["rateHz"], (count - 1) / (float(last) - float(first)), places=6)
        bad = run("stats", os.path.join(EXAMPLES, "malformed.log"))
        self.assertEqual(bad.returncode, 1)
        text = bad.stdout.decode()
        for cause in ("payload too short", "unknown id", "bad payload", "bad sequence", "bad time"):
            self.assertRegex(text, rf"\n  {cause} +\d+\n")
        self.assertIn("2 messages of 2 types; 0 lines left out by the selection; 6 lines rejected", text)

    def test_csv_of_a_float_message_reads_back_to_the_same_floats(self):
        r = run("decode", "--format", "csv", "--message", "DdTemperatureData", self.log)
        self.assertEqual(r.returncode, 0)
        header, *rows = r.stdout.decode().splitlines()
        names = [n for n, _ in self.rows[0x2600][3]]
        self.assertEqual(header.split(","), ["time", "sequence", "msgId"] + names)
        want = [l for l in self.lines if int(l[2], 16) == 0x2600]
        self.assertEqual(len(rows), len(want))
        for row, (t, seq, _, payload) in zip(rows, want):
            cells = row.split(",")
            self.assertEqual(int(cells[1]) & 0xFFFF, int(seq))
            self.assertEqual(int(cells[2]), 0x2600)
            floats = struct.unpack(f"<{len(names)}f", bytes.fromhex(payload)[:4 * len(names)])
            self.assertEqual([struct.pack("<f", float(c)) for c in cells[3:]], [struct.pack("<f", f) for f in floats])
        union = run("decode", "--format", "csv", "--message", "TdEvent",
                    stdin=b"1.5 1 0x1700 0900000001000000020000002a00000003000000\n")
        self.assertEqual(union.stdout.decode().splitlines()[1], "1970-01-01T00:00:01.500Z,1,5888,9,1,,,,,2,,,,")
        for args in ([], ["--message", "Dd"]):
            r = run("decode", "--format", "csv", *args, self.log)
            self.assertEqual((r.returncode, r.stdout), (2, b""), args)

    def test_encode_reads_back_every_format(self):
        want = run("encode", stdin=run("decode", "--format", "json", self.log).stdout).stdout
        self.assertEqual(len(want.splitlines()), len(self.lines))
        for form in ("binary", "text", "json"):
            data = run("decode", "--format", form, self.log).stdout
            for args in (["--from", form], []):
                back = run("encode", *args, stdin=data)
                self.assertEqual((back.returncode, back.stderr, back.stdout), (0, b"", want), (form, args))
        # A broken record in a binary stream is reported at its byte offset, the ones around it kept.
        frames = read_delimited(run("decode", "--format", "binary", self.log).stdout)[:3]
        stream = b"".join(bytes([len(f)]) + f for f in (frames[0], b"\x0a\x02\x08", frames[2]))
        r = run("encode", stdin=stream)
        self.assertEqual(r.returncode, 1)
        self.assertIn(f"<stdin>: byte {len(frames[0]) + 1}: ", r.stderr.decode())
        self.assertEqual(len(r.stdout.splitlines()), 2)
        head = b"header { timestamp { seconds: 2 } msgId: 256 }\n"
        text = head + b"alarmState: x\n\nheader { msgId: 256 }\n\n" + head + b"alarmState: 3\n"
        r = run("encode", "--from", "text", stdin=text)
        self.assertEqual(r.returncode, 1)
        self.assertEqual(r.stderr.decode().splitlines()[:2],
                         ["<stdin>:1: does not fit zelko.messages.AlarmStatusData: line 2 of the block, column 13: "
                          "Expected integer, got: x", "<stdin>:4: the header has no timestamp"])
        self.assertEqual(r.stdout, b"2.000 0 0x0100 0300000000000000000000000000\n")


class List(unittest.TestCase):
    def test_listing_matches_the_message_list(self):
        rows = read_rows(ROWS)
        r = run("list")
        self.assertEqual(r.returncode, 0)
        listed, current = {}, None
        for line in r.stdout.decode().splitlines():
            if line.startswith("0x"):
                parts = line.split()
                current = int(parts[0], 16)
                listed[current] = [parts[1], parts[2], int(parts[3]), []]
            elif line.split()[0].isdigit():
                pos, wire, name = line.split()[:3]
                listed[current][3].append((int(pos), wire, name))
        self.assertEqual(sorted(listed), sorted(rows))
        for id_, (enum, message, size, fields, _) in rows.items():
            got = listed[id_]
            self.assertEqual(got[:3], [enum, "zelko.messages." + message, size], hex(id_))
            widths = {"U08": 1, "U16": 2, "S16": 2, "U32": 4, "S32": 4, "F32": 4}
            pos, want = 0, []
            for name, wire in fields:
                want.append((pos, wire, name))
                pos += widths[wire]
            self.assertEqual(got[3], want, hex(id_))

    def test_one_message_by_id_or_name(self):
        by_id = run("list", "0x0100").stdout
        self.assertEqual(run("list", "100").stdout, by_id)
        self.assertEqual(run("list", "MSG_ID_ALARM_STATUS_DATA").stdout, by_id)
        self.assertEqual(run("list", "alarmstatusdata").stdout, by_id)
        self.assertIn(b"alarmsFlags", by_id)
        self.assertIn(b"schema only (oneof data2)", run("list", "TdEvent").stdout)
        r = run("list", "NoSuchMessage")
        self.assertEqual((r.returncode, r.stdout), (1, b""))
        self.assertEqual(run("list", "0x0001").returncode, 1)


class Synth(unittest.TestCase):
    def test_deterministic_valid_and_covering(self):
        a = run("synth", "--count", "948", "--seed", "5")
        self.assertEqual(a.stdout, run("synth", "--count=948", "--seed=5").stdout)
        self.assertNotEqual(a.stdout, run("synth", "--count", "948", "--seed", "6").stdout)
        lines = message_lines(a.stdout.decode())
        self.assertEqual(len(lines), 948)
        firsts = {l.split()[2] for l in lines[:474]}
        self.assertEqual(len(firsts), 474)
        times = [float(l.split()[0]) for l in lines]
        self.assertEqual(times, sorted(times))
        decoded = run("decode", "--format", "json", stdin=a.stdout)
        self.assertEqual((decoded.returncode, decoded.stderr), (0, b""))
        values = set()
        for o in map(json.loads, decoded.stdout.decode().splitlines()):
            values.update(v for k, v in o.items() if k != "header")
        self.assertGreater(len(values), 1000)   # varied, not a few repeated numbers


class ProgressBar(unittest.TestCase):
    def run_with_stderr_on_terminal(self, args, stdin):
        """Runs the tool with standard error on a pseudo-terminal; returns what it showed there."""
        master, slave = pty.openpty()
        env = dict(os.environ, VORLINK_PROGRESS_DELAY_MS="0")
        p = subprocess.Popen([TOOL, *args], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=slave, env=env)
        os.close(slave)
        out, _ = p.communicate(stdin, timeout=300)
        seen = b""
        while True:
            ready, _, _ = select.select([master], [], [], 0.5)
            if not ready:
                break
            try:
                chunk = os.read(master, 65536)
            except OSError:
                break
            if not chunk:
                break
            seen += chunk
        os.close(master)
        return p.returncode, out, seen

    def test_only_on_a_terminal(self):
        log = run("synth", "--count", "20000").stdout
        code, out, terminal = self.run_with_stderr_on_terminal(["decode", "--format", "binary"], log)
        self.assertEqual(code, 0)
        self.assertIn(b"lines", terminal)
        self.assertIn(b"\r", terminal)
        env = dict(os.environ, VORLINK_PROGRESS_DELAY_MS="0")
        piped = run("decode", "--format", "binary", stdin=log, env=env)
        self.assertEqual(piped.stderr, b"")
        self.assertEqual(piped.stdout, out)
        _, _, quiet = self.run_with_stderr_on_terminal(["decode", "--no-progress", "--format", "binary"], log)
        self.assertEqual(quiet, b"")


class Plot(unittest.TestCase):
    def test_bad_series_is_misuse_and_writes_nothing(self):
        with tempfile.TemporaryDirectory() as tmp:
            page = os.path.join(tmp, "p.html")
            for args, words in ((["DdTemprature"], "nearest: DdTemperatureData"),
                                (["-", "DdTemperatureData.d1Tmp"], "nearest: DdTemperatureData.d1Temp"),
                                (["-"], "no SERIES")):
                r = run("plot", *args, "-o", page, stdin=ALARM_LINE.encode())
                self.assertEqual((r.returncode, r.stdout), (2, b""), args)
                self.assertIn(words, r.stderr.decode(), args)
                self.assertFalse(os.path.exists(page), args)

    def test_values_reduction_and_empty_series(self):
        # d1Temp of 12000 DdTemperatureData messages, 1 ms apart, two of the first
        # ten out of order, with one spike and one dip.
        values = [i % 100 + 0.1 for i in range(12000)]
        values[7777], values[9000] = 5000.0, -300.0
        lines = [f"{1700000000 + i / 1000:.3f} 1 0x2600 {struct.pack('<24f', v, *[0] * 23).hex()}"
                 for i, v in enumerate(values)]
        lines[3], lines[4] = lines[4], lines[3]
        log = "\n".join(lines + ["1700000020 1 0x1700 0900000001000000020000002a00000003000000"]).encode()

        def charts(*args):
            r = run("plot", *args, "-o", "-", stdin=log)
            self.assertEqual((r.returncode, r.stderr), (0, b""), args)
            page = r.stdout.decode()
            return page, json.loads(re.search(r"var vorlinkCharts = (\[.*?\n\]);", page, re.S).group(1))

        page, (temp, alarm, event) = charts("DdTemperatureData.d1Temp", "AlarmStatusData", "TdEvent")
        self.assertEqual(temp["series"][0]["points"], 12000)
        times = [r[0] for r in temp["rows"]]
        drawn = [r[1] for r in temp["rows"]]
        self.assertLess(len(drawn), 5000)
        self.assertEqual(times, sorted(times))
        self.assertEqual((max(drawn), min(drawn)), (5000, -300))   # no spike lost
        self.assertLessEqual(set(drawn), set(values))
        self.assertTrue("Reduced from 12000 points" in page)
        self.assertEqual(alarm["rows"], [])
        self.assertTrue("No points in the selection: alarmState, alarmTop" in page)
        self.assertEqual([r[1:4] + r[4:] for r in event["rows"]], [[9, 1, 2] + [None] * 8])
        self.assertTrue("No points in the selection: data1_bool, data1_uint32" in page)

        page, [temp] = charts("--to", "1700000000.099", "DdTemperatureData.d1Temp")
        self.assertEqual(temp["rows"], [[1700000000000 + i, values[i]] for i in range(100)])
        self.assertFalse("Reduced" in page or "note reduced" in page)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--examples", required=True)
    parser.add_argument("--rows", required=True)
    options, rest = parser.parse_known_args()
    TOOL, EXAMPLES, ROWS = options.tool, options.examples, options.rows
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
