#!/usr/bin/env python3
"""The vorlink tool at a running machine: lines written out as they come
through a pipe, the order of good and rejected lines, a signal in the middle
of a run, --follow across appends, truncation and rotation, and the monitor
driven in tmux."""

import argparse, fcntl, os, re, shutil, signal, struct, subprocess, sys, tempfile, threading, time, unittest

TOOL = None
SANITIZED = False
ENV = dict(os.environ, TZ="UTC")
ALARM = "{t:.3f} {s} 0x0100 {a:02x}000000010000003c0000000500\n"   # AlarmStatusData, alarmState=a
EVENT = "{t:.3f} {s} 0x1700 0900000001000000020000002a00000003000000\n"


def alarm(i, t=1700000000.0, step=0.001):
    return ALARM.format(t=t + i * step, s=i % 65536, a=i % 256)


class Reader(threading.Thread):
    """Reads a stream as it comes, keeping each chunk's arrival time."""

    def __init__(self, stream):
        super().__init__(daemon=True)
        self.stream, self.chunks, self.lock = stream, [], threading.Lock()
        self.start()

    def run(self):
        while chunk := os.read(self.stream.fileno(), 65536):
            with self.lock:
                self.chunks.append((time.monotonic(), chunk))

    def data(self):
        with self.lock:
            return b"".join(c for _, c in self.chunks)

    def arrival(self, size):
        """When the first `size` bytes had all come, or None."""
        with self.lock:
            total = 0
            for at, chunk in self.chunks:
                total += len(chunk)
                if total >= size:
                    return at
        return None


def wait_for(check, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if check():
            return True
        time.sleep(0.005)
    return check()


def binary_sizes(data):
    """Sizes of the whole records of a length-delimited stream, each with its varint."""
    sizes, at = [], 0
    while at < len(data):
        size = shift = 0
        start = at
        while at < len(data):
            size |= (data[at] & 0x7F) << shift
            shift += 7
            at += 1
            if not data[at - 1] & 0x80:
                break
        if at + size > len(data):
            break
        at += size
        sizes.append(at - start)
    return sizes


class AsItComes(unittest.TestCase):
    def latencies(self, args, lines, unit):
        """Sends `lines` one at a time through a pipe, 150 ms apart, and gives
        how long each one's output took to come, in seconds (None: not before
        the input ended). `unit(data)` is the bytes of output of each whole
        line in `data`. The first line waits for the tool to start."""
        p = subprocess.Popen([TOOL, *args], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                             env=ENV)
        out = Reader(p.stdout)
        took = []
        try:
            for n, line in enumerate(lines):
                sent = time.monotonic()
                os.write(p.stdin.fileno(), line.encode())
                if n == 0:
                    wait_for(lambda: out.data(), 30)
                    continue
                wait_for(lambda: len(unit(out.data())) > n, 0.6)
                ends = unit(out.data())
                took.append(out.arrival(sum(ends[:n + 1])) - sent if len(ends) > n else None)
                time.sleep(0.15)
        finally:
            p.stdin.close()
            p.wait(timeout=60)
            out.join(10)
            p.stdout.close()
        return took

    def test_each_line_is_written_within_100_ms(self):
        lines = [alarm(i) if i % 3 else EVENT.format(t=1700000000 + i, s=i) for i in range(7)]
        as_lines = lambda data: [len(l) for l in data.splitlines(True) if l.endswith(b"\n")]
        blocks = lambda data: [len(b) + 2 for b in data.split(b"\n\n")[:-1]]
        json_lines = subprocess.run([TOOL, "decode", "--format", "json"], input="".join(lines).encode(),
                                    capture_output=True).stdout.decode().splitlines(True)
        cases = [(["decode"], lines, as_lines), (["decode", "--format", "json"], lines, as_lines),
                 (["decode", "--format", "text"], lines, blocks), (["decode", "--format", "binary"], lines, binary_sizes),
                 (["decode", "--format", "csv", "--message", "AlarmStatusData"],   # its header row first
                  [EVENT.format(t=1, s=1)] + [alarm(i) for i in range(6)], as_lines),
                 (["decode", "--message", "Td"], [EVENT.format(t=1, s=1)] * 6, as_lines),
                 (["encode"], json_lines, as_lines)]
        for args, sent, unit in cases:
            # A busy machine may hold a line up now and then: the best of three
            # tries counts. A tool that keeps its output until the input ends
            # fails all three.
            tries = [self.latencies(args, sent, unit) for _ in range(3)]
            best = min(tries, key=lambda t: max(x if x is not None else 99 for x in t))
            print(f"{' '.join(args)}: {max(x if x is not None else 99 for x in best) * 1000:.1f} ms at most",
                  file=sys.stderr)
            self.assertTrue(all(x is not None and x < 0.1 for x in best), (args, tries))

    def test_a_source_that_never_pauses_still_shows_its_lines(self):
        # A megabyte pipe kept full for two seconds: the tool never waits on
        # it, and its one selected line must still come out within the 100 ms
        # period, not when its buffer fills or the input ends.
        p = subprocess.Popen([TOOL, "decode", "--message", "AlarmStatusData"], stdin=subprocess.PIPE,
                             stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=ENV)
        fcntl.fcntl(p.stdin.fileno(), 1031, 1 << 20)   # F_SETPIPE_SZ
        out = Reader(p.stdout)
        filler = "".join(EVENT.format(t=1700000001 + i * 0.001, s=i) for i in range(16384)).encode()
        start = time.monotonic()
        try:
            os.write(p.stdin.fileno(), alarm(0).encode())
            while time.monotonic() - start < 2.0:
                p.stdin.write(filler)
        finally:
            p.stdin.close()
            p.wait(timeout=60)
            out.join(10)
            p.stdout.close()
        self.assertEqual(out.data().decode().count("AlarmStatusData"), 1)
        print(f"never pausing: {(out.arrival(1) - start) * 1000:.0f} ms", file=sys.stderr)
        self.assertLess(out.arrival(1) - start, 0.3 if not SANITIZED else 0.6)

    def test_rejected_lines_keep_their_place_among_the_good(self):
        log = alarm(1) + "1 1 0x0001 00\n" + alarm(2) + "x\n" + alarm(3)
        r = subprocess.run([TOOL, "decode", "-"], input=log.encode(), stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, env=ENV)
        kinds = [l.split()[1] if l[0].isdigit() else l for l in r.stdout.decode().splitlines()]
        self.assertEqual(kinds, ["0x0100", "<stdin>:2: unknown message id 0x0001", "0x0100",
                                 "<stdin>:4: time 'x' is not seconds since 1970 (0 to 253402300799.999, up to 9 decimals)",
                                 "0x0100", "vorlink decode: 2 lines rejected"])


class Stopping(unittest.TestCase):
    def test_a_signal_keeps_what_was_converted(self):
        # Lines read from a pipe that stays open, then a signal: the table of
        # what was counted, and 128 + the signal's number.
        for sig in (signal.SIGINT, signal.SIGHUP):
            p = subprocess.Popen([TOOL, "stats"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, env=ENV)
            p.stdin.write("".join(alarm(i) for i in range(10)).encode())
            p.stdin.flush()
            time.sleep(0.5 if not SANITIZED else 2)
            p.send_signal(sig)
            try:
                p.wait(timeout=30)   # with its input still open: the signal alone ends the wait
            finally:
                p.kill()
            out, err = p.communicate()
            self.assertEqual(p.returncode, 128 + sig)
            self.assertIn(b"10 messages of 1 type", out)
            self.assertEqual(err.decode(), f"vorlink stats: stopped by {signal.Signals(sig).name}\n")
        # In the middle of a long file: everything converted is written, in
        # whole messages, and nothing else.
        with tempfile.TemporaryDirectory() as tmp:
            log = os.path.join(tmp, "big.log")
            with open(log, "wb") as f:
                subprocess.run([TOOL, "synth", "--count", "400000", "--seed", "5"], stdout=f, check=True)
            whole = subprocess.run([TOOL, "decode", "--format", "text", log], capture_output=True).stdout
            p = subprocess.Popen([TOOL, "decode", "--format", "text", log], stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, env=ENV)
            out = Reader(p.stdout)
            wait_for(lambda: len(out.data()) > 0, 60)
            p.send_signal(signal.SIGTERM)
            p.wait(timeout=60)
            out.join(10)
            p.stdout.close()
            written = out.data()
            with p.stderr:
                self.assertEqual((p.returncode, p.stderr.read()), (143, b"vorlink decode: stopped by SIGTERM\n"))
            self.assertTrue(0 < len(written) < len(whole))
            self.assertEqual(written, whole[:len(written)])
            self.assertTrue(written.endswith(b"\n\n"))


class Follow(unittest.TestCase):
    def test_appends_truncation_and_rotation(self):
        with tempfile.TemporaryDirectory() as tmp:
            log = os.path.join(tmp, "bus.log")
            with open(log, "w") as f:
                f.write(alarm(1) + alarm(2))
            p = subprocess.Popen([TOOL, "decode", "--follow", log], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                 env=ENV)
            self.addCleanup(p.kill)   # a follower never ends by itself
            out, err = Reader(p.stdout), Reader(p.stderr)
            count = lambda: len(out.data().splitlines())

            def append(text):
                with open(log, "a") as f:
                    f.write(text)

            self.assertTrue(wait_for(lambda: count() == 2, 30))
            append(alarm(3) + alarm(4)[:12])                      # a partial line waits for its newline
            self.assertTrue(wait_for(lambda: count() == 3, 5))
            time.sleep(0.3)
            self.assertEqual(count(), 3)
            append(alarm(4)[12:])
            self.assertTrue(wait_for(lambda: count() == 4, 5))
            with open(log, "w") as f:                             # truncated in place
                f.write(alarm(5))
            self.assertTrue(wait_for(lambda: count() == 5, 5))
            with open(log + ".new", "w") as f:                    # replaced, as a rotation does
                f.write("bad line\n" + alarm(6))
            os.rename(log + ".new", log)
            self.assertTrue(wait_for(lambda: count() == 6, 5))
            p.send_signal(signal.SIGINT)
            p.wait(timeout=30)
            out.join(10), err.join(10)
            p.stdout.close(), p.stderr.close()
            self.assertEqual(p.returncode, 130)
            self.assertEqual([l.split(" ", 3)[3][:13] for l in out.data().decode().splitlines()],
                             [f"alarmState={i}," for i in range(1, 7)])
            self.assertEqual(err.data().decode().splitlines(), [
                f"vorlink: {log}: truncated; reading it again from its start",
                f"vorlink: {log}: replaced; reading the new file from its start",
                f"{log}:1: time 'bad' is not seconds since 1970 (0 to 253402300799.999, up to 9 decimals)",
                "vorlink decode: 1 line rejected", "vorlink decode: stopped by SIGINT"])

    def test_a_missing_file_is_waited_for_and_one_that_disappears_told_once(self):
        with tempfile.TemporaryDirectory() as tmp:
            log = os.path.join(tmp, "bus.log")
            p = subprocess.Popen([TOOL, "decode", "--follow", log], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                 env=ENV)
            self.addCleanup(p.kill)
            out, err = Reader(p.stdout), Reader(p.stderr)
            count = lambda: len(out.data().splitlines())
            self.assertTrue(wait_for(lambda: b"waiting" in err.data(), 5))
            with open(log, "w") as f:
                f.write(alarm(1))
            self.assertTrue(wait_for(lambda: count() == 1, 5))
            os.remove(log)
            time.sleep(0.3)   # looked at many times over
            with open(log, "w") as f:
                f.write(alarm(2))
            self.assertTrue(wait_for(lambda: count() == 2, 5))
            p.send_signal(signal.SIGINT)
            p.wait(timeout=30)
            out.join(10), err.join(10)
            p.stdout.close(), p.stderr.close()
            self.assertEqual(err.data().decode().splitlines(), [
                f"vorlink: {log}: No such file or directory; waiting for it to appear",
                f"vorlink: {log}: appeared; reading it",
                f"vorlink: {log}: disappeared; waiting for it to appear again",
                f"vorlink: {log}: replaced; reading the new file from its start",
                "vorlink decode: stopped by SIGINT"])

    def test_misuse(self):
        for args, words in ((["decode", "--follow", "-"], "--follow reads a FILE"),
                            (["monitor", "/dev/null"], "use 'vorlink decode'"),
                            (["monitor", "--sort", "1", "/dev/null"], "--sort must be one of id, name, count, recency (got '1')")):
            r = subprocess.run([TOOL, *args], capture_output=True, stdin=subprocess.DEVNULL)
            self.assertEqual((r.returncode, r.stdout), (2, b""), args)
            self.assertIn(words, r.stderr.decode(), args)


BOLD = r"\x1b\[1m(\x1b\[[0-9;]*m)*[^\x1b\n]*"   # a field set off: bold, then perhaps its colour


def bus_line(t, seq, msg_id, fmt, *values):
    return f"{t:.3f} {seq % 65536} 0x{msg_id:04X} {struct.pack(fmt, *values).hex()}\n"


OP_MODE_TD, OP_MODE_DD, LEVEL_DD, FLOW_FP = 0x1200, 0x1300, 0x2900, 0x3600


@unittest.skipUnless(shutil.which("tmux"), "tmux is not installed")
class Monitor(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp()
        self.session = f"vorlink-live-{os.getpid()}"
        self.log = os.path.join(self.tmp, "bus.log")
        self.status = os.path.join(self.tmp, "status")
        self.errors = os.path.join(self.tmp, "errors")
        open(self.log, "w").close()

    def tearDown(self):
        subprocess.run(["tmux", "kill-session", "-t", self.session], capture_output=True)
        shutil.rmtree(self.tmp)

    def tmux(self, *args):
        return subprocess.run(["tmux", *args], capture_output=True, text=True, check=True).stdout

    def start(self, args, width, height=40):
        command = f"{TOOL} monitor {args} 2> {self.errors}; echo $? > {self.status}; sleep 60"
        self.tmux("new-session", "-d", "-s", self.session, "-x", str(width), "-y", str(height), "-e", "TZ=UTC",
                  "-e", "LANG=C.UTF-8", command)
        self.assertTrue(wait_for(lambda: "vorlink monitor" in self.screen(), 30), self.screen())

    def screen(self, escapes=False):
        return self.tmux("capture-pane", "-p", *(["-e"] if escapes else []), "-t", self.session)

    def keys(self, *keys):
        self.tmux("send-keys", "-t", self.session, *keys)

    def type(self, text):
        if text:
            self.tmux("send-keys", "-l", "-t", self.session, text)

    def quit(self):
        """q, then the exit status and what went to standard error."""
        self.keys("q")
        self.assertTrue(wait_for(lambda: os.path.exists(self.status) and os.path.getsize(self.status) > 0, 5))
        with open(self.status) as f, open(self.errors) as e:
            return int(f.read()), e.read()

    def rows(self):
        """The table: each type's row by its id, split at its columns."""
        return {r[:6]: r for r in self.screen().splitlines() if re.match(r"0x[0-9A-F]{4}  ", r)}

    def header(self):
        """The header's lines, up to the first node line."""
        lines = self.screen().splitlines()
        return lines[:next(i for i, l in enumerate(lines) if l.startswith("TD  "))]

    def wait_screen(self, check, seconds=3):
        self.assertTrue(wait_for(lambda: check(self.screen()), seconds), self.screen())

    def test_live_table_keys_and_pace(self):
        self.start(f"--sort Count --follow {self.log}", 150)
        shell = int(self.tmux("display", "-p", "-t", self.session, "#{pane_pid}"))
        with open(f"/proc/{shell}/task/{shell}/children") as f:
            monitor = int(f.read().split()[0])

        def cpu_seconds():
            with open(f"/proc/{monitor}/stat") as f:
                fields = f.read().rsplit(")", 1)[1].split()
            return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

        # 10,000 messages a second for 3 s: nine of ten AlarmStatusData, one
        # TdEvent; the log's time is the wall clock's.
        start, cpu, written, lag = time.time(), cpu_seconds(), 0, []
        with open(self.log, "a") as f:
            while written < 30000:
                due = int((time.time() - start) * 10000)
                if due > written:
                    f.write("".join(alarm(i, start, 0.0001) if i % 10 else EVENT.format(t=start + i / 10000, s=i)
                                    for i in range(written, min(due, 30000))))
                    f.flush()
                    written = min(due, 30000)
                if written % 5000 < 100:   # now and then, how far the screen is behind
                    seen = re.search(r"(\d+) messages of", self.screen())
                    lag.append(written - int(seen.group(1)) if seen else written)
                time.sleep(0.002)
        busy = cpu_seconds() - cpu
        wall = time.time() - start
        print(f"monitor at 10,000 messages a second: {busy / wall:.0%} of a core; behind by {lag} messages",
              file=sys.stderr)
        self.assertTrue(wait_for(lambda: "30000 messages of 2 types" in self.screen(), 2), self.screen())
        # Keeping up: never more than half a second of messages behind (a
        # screen refresh is due every 100 ms), and less than half of a core.
        self.assertLess(max(lag), 5000, lag)
        self.assertLess(busy / wall, 0.5 if not SANITIZED else 1.0, (busy, wall))
        rows = self.screen().splitlines()
        alarm_row = next(i for i, r in enumerate(rows) if r.startswith("0x0100"))
        # Rates over the last 5 s of log time, which the 3 s of messages fill in part.
        self.assertRegex(rows[alarm_row], r"^0x0100  AlarmStatusData +27000 +\d+\.\d\d +\d+\.\d( +overdue \d+\.\d s)?$")
        self.assertEqual(rows[alarm_row + 1].split(), ["AlarmStatusDataPayload:", f"alarmState={29999 % 256},",
                                                       "alarmTop=1,", "silenceExpiresIn=60,", "alarmsFlags=5"])
        event = rows[alarm_row + 2].split()
        self.assertEqual(event[:3], ["0x1700", "TdEvent", "3000"])
        self.assertTrue(800 < float(event[3]) < 1100 and 0 <= float(event[4]) < 2, event)
        self.assertAlmostEqual(float(rows[alarm_row].split()[3]) / float(event[3]), 9, delta=0.1)

        # A long dump line wraps to the pane's width; a rejected line is
        # counted by cause and shown.
        with open(self.log, "a") as f:
            f.write(f"{time.time():.3f} 1 0x2600 " + "0000c03f" * 24 + "\nnonsense\n")
        self.assertTrue(wait_for(lambda: "rejected 1: bad time 1" in self.screen(), 2), self.screen())
        self.assertIn(f"last: {self.log}:30002: time 'nonsense' is not seconds", self.screen())
        rows = self.screen().splitlines()
        temp = next(i for i, r in enumerate(rows) if r.startswith("0x2600"))
        dump = [r.strip() for r in rows[temp + 1:temp + 4]]
        self.assertTrue(dump[0].startswith("DdTemperatureDataPayload: d1Temp=1.5,") and dump[1].startswith("d"), rows)
        self.assertEqual(" ".join(dump).count("=1.5"), 24)
        self.assertTrue(all(len(r) <= 150 for r in rows))
        # The order given, then each order in turn with s: the most first, the
        # latest first, by id, by name.
        for sort, order in (("count", ["0x0100", "0x1700", "0x2600"]), ("recency", ["0x2600", "0x0100", "0x1700"]),
                            ("id", ["0x0100", "0x1700", "0x2600"]), ("name", ["0x0100", "0x2600", "0x1700"])):
            if sort != "count":
                self.keys("s")
            self.assertTrue(wait_for(lambda: f"sort: {sort} " in self.screen(), 2), self.screen())
            self.assertEqual(list(self.rows()), order, sort)

        self.keys("/")
        self.type("tdev")
        self.keys("Enter")
        self.assertTrue(wait_for(lambda: "filter: tdev" in self.screen(), 2), self.screen())
        self.assertEqual(list(self.rows()), ["0x1700"])
        # The rejected line is the run's status, as decode's.
        self.assertEqual(self.quit(), (1, "vorlink monitor: 1 line rejected\n"))

    def test_a_type_that_stops_while_its_node_goes_on_is_overdue(self):
        # Each 100 ms a TD and two DD types, the log's time the wall clock's;
        # one FP message at the start only. After 1.5 s DdLevelData stops.
        self.start(f"--follow {self.log}", 100)
        stop, done = threading.Event(), threading.Event()

        def writer():
            i = 0
            with open(self.log, "a") as f:
                f.write(bus_line(time.time(), 0, FLOW_FP, "<ff", 1.5, 2.5))
                while not done.is_set():
                    t = time.time()
                    f.write(bus_line(t, i, OP_MODE_TD, "<II", 4, 1) + bus_line(t, i, OP_MODE_DD, "<II", 3, i) +
                            ("" if stop.is_set() else bus_line(t, i, LEVEL_DD, "<IIIII", i, 0, 0, 0, 0)))
                    f.flush()
                    i += 1
                    time.sleep(0.1)

        feed = threading.Thread(target=writer, daemon=True)
        feed.start()
        self.addCleanup(feed.join)
        self.addCleanup(done.set)
        self.wait_screen(lambda s: "4 types" in s and "DD  last heard" in s)
        time.sleep(1.5)
        # Before the stop: nothing overdue, the FP type seen once included;
        # the field that changes with each message stands out, the one that
        # stays does not.
        screen = self.screen()
        self.assertIn("0 overdue", screen)
        self.assertNotRegex(screen, r"overdue \d")
        self.assertRegex(screen, r"(?m)^UI  not heard$")
        painted = self.screen(escapes=True)
        self.assertRegex(painted, BOLD + r"subMode=\d+")
        self.assertNotRegex(painted, BOLD + r"opMode=3")
        stopped = time.monotonic()
        stop.set()
        # Three periods of 100 ms, and at least half a second: flagged in
        # well under a second, while TD and the other DD type go on.
        self.wait_screen(lambda s: "overdue " in self.rows().get("0x2900", ""), 2)
        took = time.monotonic() - stopped
        self.assertLess(took, 1.2, took)
        time.sleep(1.2)
        screen, rows = self.screen(), self.rows()
        silent = float(re.search(r"overdue (\d+\.\d) s$", rows["0x2900"]).group(1))
        self.assertAlmostEqual(silent, float(rows["0x2900"].split()[4]), delta=0.15)
        self.assertTrue(1.4 < silent < 3, rows["0x2900"])
        for other in ("0x1200", "0x1300", "0x3600"):   # FP: silent for seconds, yet seen once
            self.assertNotIn("overdue", rows[other], rows)
        self.assertIn("  1 overdue", screen)
        nodes = {l[:2]: l for l in screen.splitlines() if re.match(r"(TD|DD|FP|UI)  ", l)}
        self.assertRegex(nodes["DD"], r"^DD  last heard 0\.[0-3] s ago  2 types, 1 overdue$")
        self.assertRegex(nodes["TD"], r"^TD  last heard 0\.[0-3] s ago  1 type, 0 overdue$")
        self.assertRegex(nodes["FP"], r"^FP  last heard [2-9]\.\d s ago  1 type, 0 overdue$")
        # A second after its last change, a field no longer stands out.
        painted = self.screen(escapes=True)
        self.assertNotRegex(painted, BOLD + r"d46Level=")
        self.assertRegex(painted, BOLD + r"subMode=\d+")
        # The whole feed stops: log time runs on with the clock.
        done.set()
        feed.join()
        self.wait_screen(lambda s: "  3 overdue" in s and re.search(r"(?m)^DD  last heard [1-9]\.\d s ago", s))
        self.assertEqual(self.quit(), (0, ""))

    def finished_log(self, extra=""):
        """200 s of log time (t0 + 199.9 s the latest), the lines and the
        line of the step back. FpFlowData at 10 Hz, p7Flow rising by 0.5 a
        message, p16Flow at 7; TdOpModeData at 1 Hz for the first 100 s;
        DdLevelData once at the start; and silences on each side of the rule:
        UiAlarmUserActionRequest every 10 s, then a gap of 25 s to its last at
        165 s (3.5 of its usual periods); UiCheckIn every 20 s to 150 s (2.5);
        FpLevelData at 100 Hz to 199.7 s (20 periods, 0.2 s); TdBubblesData
        three at a time each second to 198 s. Last, DdOpModeData 14.4 s back."""
        t0 = 1700000000.0
        timed = [(0, bus_line(t0, 0, LEVEL_DD, "<IIIII", 1, 2, 3, 4, 5))]
        for i in range(2000):
            timed.append((i / 10, bus_line(t0 + i / 10, i, FLOW_FP, "<ff", i * 0.5, 7.0)))
        timed += [(s, bus_line(t0 + s, s, OP_MODE_TD, "<II", 4, 1)) for s in range(100)]
        timed += [(s, bus_line(t0 + s, s, 0x0600, "<I", 1)) for s in [*range(0, 150, 10), 165]]
        timed += [(s, bus_line(t0 + s, s, 0x1000, "")) for s in range(10, 151, 20)]
        timed += [(s / 100, bus_line(t0 + s / 100, s, 0x3500, "<I", 1)) for s in range(19700, 19971)]
        timed += [(s, bus_line(t0 + s, s, 0x1E00, "<II", 0, 0)) for s in range(180, 199) for _ in range(3)]
        timed.sort(key=lambda x: x[0])
        lines = [l for _, l in timed] + [bus_line(t0 + 199.9 - 14.4, 1, OP_MODE_DD, "<II", 3, 0)]
        with open(self.log, "w") as f:
            f.write("".join(lines) + extra)
        return len(lines)

    def test_a_finished_log_keeps_its_time(self):
        back_line = self.finished_log()
        self.start(self.log, 80)
        self.wait_screen(lambda s: "end of input" in s)
        first = self.screen()
        # At 80 columns the header wraps; none of it is lost.
        header = " ".join(self.header())
        for words in ("vorlink monitor", self.log, f"{back_line} messages of 8 types", "lines/s",
                      "span 2023-11-14T22:13:20.000Z .. 2023-11-14T22:16:39.900Z", "2 overdue",
                      f"log time went back 14.4 s at line {back_line}", "end of input", "rejected 0", "sort: id",
                      "[q quit, p pause, / filter, s sort, Enter history, arrows/PgUp/PgDn/Home move]"):
            self.assertIn(words, header)
        self.assertTrue(all(len(l) <= 80 for l in first.splitlines()))
        rows = self.rows()
        # Rates and ages in log time: FpFlowData at 10 Hz, the message after
        # the step back just arrived, TdOpModeData silent for 100.9 s of its
        # 1 s period, DdLevelData seen once and never overdue; the rest on
        # each side of 3 usual periods and of 0.5 s.
        self.assertRegex(rows["0x3600"], r"^0x3600  FpFlowData +2000 +(9\.[5-9]\d|10\.[0-4]\d) +0\.0$")
        self.assertRegex(rows["0x1300"], r"^0x1300  DdOpModeData +1 +0\.20 +0\.0$")
        self.assertRegex(rows["0x1200"], r"^0x1200  TdOpModeData +100 +0\.00 +100\.9  overdue 100\.9 s$")
        self.assertRegex(rows["0x2900"], r"^0x2900  DdLevelData +1 +0\.00 +199\.9$")
        self.assertRegex(rows["0x0600"], r"^0x0600  UiAlarmUserActionRequest +16 +0\.00 +34\.9  overdue 34\.9 s$")
        self.assertRegex(rows["0x1000"], r"^0x1000  UiCheckIn +8 +0\.00 +49\.9$")
        self.assertRegex(rows["0x3500"], r"^0x3500  FpLevelData +271 +\d+\.\d\d +0\.2$")
        self.assertRegex(rows["0x1E00"], r"^0x1E00  TdBubblesData +57 +\d\.\d\d +1\.9$")
        self.assertRegex(first, r"(?m)^TD  last heard 1\.9 s ago  2 types, 1 overdue$")
        self.assertRegex(first, r"(?m)^DD  last heard 0\.0 s ago  2 types, 0 overdue$")
        self.assertRegex(first, r"(?m)^FP  last heard 0\.0 s ago  2 types, 0 overdue$")
        self.assertRegex(first, r"(?m)^UI  last heard 34\.9 s ago  2 types, 1 overdue$")
        # The last message's changed field stands out, and stays so.
        painted = self.screen(escapes=True)
        self.assertRegex(painted, BOLD + r"p7Flow=999\.5")
        self.assertNotRegex(painted, BOLD + r"p16Flow=7")
        time.sleep(1.5)
        self.assertEqual(self.screen().split("\nTD  ")[1], first.split("\nTD  ")[1])

        # Enter on FpFlowData: each field's minimum, maximum and latest over
        # the last 3 minutes of log time (from 22:13:40, p7Flow 100 on), and
        # its trend, a mark per 5 s.
        self.keys(*["Down"] * 7)
        self.wait_screen(lambda s: re.search(r"\x1b\[(0;)?7m(\x1b\[[0-9;]*m)*0x3600", self.screen(escapes=True)))
        self.keys("Enter")
        self.wait_screen(lambda s: "FpFlowData (0x3600): each field over the last 3 minutes" in s)
        fields = {l.split()[0]: l.split() for l in self.screen().splitlines() if l.startswith("p")}
        self.assertEqual(fields["p7Flow"][1:4], ["100", "999.5", "999.5"])
        self.assertEqual(fields["p16Flow"][1:5], ["7", "7", "7", "\u2581" * 36])
        trend = fields["p7Flow"][4]
        self.assertEqual(len(trend), 36)
        self.assertEqual(list(trend), sorted(trend))
        self.assertEqual((trend[0], trend[-1]), ("\u2581", "\u2588"))
        self.keys("Escape")
        self.wait_screen(lambda s: "0x3600  FpFlowData" in s)
        self.assertEqual(self.quit(), (0, ""))

    def test_filter_takes_message_keys_and_q_keeps_the_status(self):
        self.finished_log("nonsense\n1 1 0x0001 00\n")
        self.start(self.log, 80)
        self.wait_screen(lambda s: "end of input" in s)
        for typed, shown in (("0x1300", ["0x1300"]), ("4608", ["0x1200"]), ("Dd", ["0x1300", "0x2900"]),
                             ("fp,MSG_ID_TD_OP_MODE_DATA", ["0x1200", "0x3500", "0x3600"]),
                             ("level", ["0x2900", "0x3500"]),
                             ("", ["0x0600", "0x1000", "0x1200", "0x1300", "0x1E00", "0x2900", "0x3500", "0x3600"])):
            self.keys("/", *["BSpace"] * 30)
            self.type(typed)
            self.keys("Enter")
            self.wait_screen(lambda s: (f"filter: {typed}" in s) == bool(typed) and sorted(self.rows()) == shown)
        for typed, said in (("TdBloodPumpData", "no message seen matches the filter 'TdBloodPumpData'"),
                            ("0x0026", "no message seen matches the filter '0x0026': no message has the id 0x0026")):
            self.keys("/", *["BSpace"] * 30)
            self.type(typed)
            self.keys("Enter")
            self.wait_screen(lambda s: said in s and not self.rows())
        self.assertEqual(self.quit(), (1, "vorlink monitor: 2 lines rejected\n"))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--sanitize", default="", help="the sanitizers the tool was built with, if any")
    options, rest = parser.parse_known_args()
    TOOL, SANITIZED = os.path.abspath(options.tool), bool(options.sanitize)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
