#!/usr/bin/env python3
"""The vorlink tool over a fleet's logs as they are kept: compressed by gzip,
xz or zstd, many in one run, broken off in the middle, or one endless line."""

import argparse, gzip, json, lzma, os, resource, shutil, signal, subprocess, sys, tempfile, time, unittest

TOOL = None
SANITIZED = False   # a sanitizer's runtime reserves terabytes of address space and keeps freed memory a while
ENV = dict(os.environ, TZ="UTC")
ALARM = "{t:.3f} {s} 0x0100 {a:02x}000000010000003c0000000500\n"   # AlarmStatusData, alarmState=a
BAD = "1700000000.5 1 0x0100 0200\n"   # payload too short


def log(n, t=1700000000.0):
    return "".join(ALARM.format(t=t + i * 0.001, s=i % 65536, a=i % 256) for i in range(n)).encode()


def run(*args, stdin=None, limit=None, timeout=60):
    def cap():
        if limit and not SANITIZED:
            resource.setrlimit(resource.RLIMIT_AS, (limit, limit))
    return subprocess.run([TOOL, *args], input=stdin, capture_output=True, env=ENV, timeout=timeout, preexec_fn=cap)


def compress(data, fmt):
    return {"gz": gzip.compress, "xz": lzma.compress,
            "zst": lambda d: subprocess.run(["zstd", "-q", "-c"], input=d, capture_output=True, check=True).stdout}[fmt](data)


class Fleet(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp()

    def tearDown(self):
        shutil.rmtree(self.dir)

    def write(self, name, data):
        path = os.path.join(self.dir, name)
        with open(path, "wb") as f:
            f.write(data)
        return path

    def test_each_format_reads_as_the_plain_log_from_a_file_and_from_standard_input(self):
        plain = log(3000) + BAD.encode() + log(5, 1800000000.0)
        want = run("decode", "--format", "json", self.write("plain.log", plain))
        self.assertEqual(want.returncode, 1)
        for fmt in ("gz", "xz", "zst"):
            data = compress(plain, fmt)
            path = self.write("bus.log.1", data)   # read by content, not by name
            for got, name in ((run("decode", "--format", "json", path), path),
                              (run("decode", "--format", "json", stdin=data), "<stdin>")):
                self.assertEqual(got.stdout, want.stdout, fmt)
                self.assertEqual(got.stderr.decode().splitlines()[0],
                                 f"{name}:3001: payload of 2 bytes is too short for AlarmStatusData "
                                 "(0x0100), which needs 14", fmt)
        # Members of gzip one after the other, as `cat a.gz b.gz` leaves them; and a file shorter than any magic.
        self.assertEqual(run("decode", self.write("two.gz", gzip.compress(log(2)) + gzip.compress(log(3)))).stdout,
                         run("decode", stdin=log(2) + log(3)).stdout)
        self.assertEqual(run("decode", "--format", "json", stdin=b"\x1f").stderr.decode().splitlines()[0],
                         "<stdin>:1: time '?' is not seconds since 1970 (0 to 253402300799.999, up to 9 decimals)")

    def test_data_that_breaks_off_is_named_at_its_byte_and_the_lines_before_it_are_kept(self):
        good = gzip.compress(log(2000))
        second = bytearray(gzip.compress(log(2000, 1800000000.0)))
        second[-8] ^= 0xFF   # the second member's checksum
        r = run("stats", "--format", "json", self.write("a.gz", good + bytes(second)))
        self.assertEqual(json.loads(r.stdout)["totals"]["messages"], 4000)   # every line came; the check failed after
        self.assertEqual(r.stderr.decode().splitlines()[0],
                         f"{self.dir}/a.gz:4001: gzip data is corrupt (incorrect data check), "
                         f"at byte {len(good) + len(second) - 4}")   # behind the checksum, before the length
        for fmt, reason in (("gz", "gzip data ends early (the file is truncated)"),
                            ("xz", "xz data ends early (the file is truncated)"),
                            ("zst", "zstd data ends early (the file is truncated)")):
            data = compress(log(50000), fmt)
            cut = data[:len(data) // 2]
            r = run("decode", stdin=cut)
            lines = r.stdout.decode().splitlines()
            self.assertGreater(len(lines), 1000, fmt)
            self.assertEqual(r.stdout, run("decode", stdin=log(len(lines))).stdout, fmt)   # bytes: no slow diff
            self.assertEqual(r.stderr.decode().splitlines(),
                             [f"<stdin>:{len(lines) + 1}: {reason}, at byte {len(cut)}",
                              "vorlink decode: 1 line rejected"], fmt)
            self.assertEqual(r.returncode, 1)

    def test_many_files_in_one_run(self):
        a = self.write("a.log", log(3) + BAD.encode())
        b = self.write("b.log.gz", gzip.compress(BAD.encode() + log(4, 1800000000.0)))
        r = run("decode", a, b)
        self.assertEqual(len(r.stdout.splitlines()), 7)
        self.assertEqual(r.stderr.decode().splitlines(),
                         [f"{a}:4: payload of 2 bytes is too short for AlarmStatusData (0x0100), which needs 14",
                          f"{b}:1: payload of 2 bytes is too short for AlarmStatusData (0x0100), which needs 14",
                          "vorlink decode: 2 lines rejected"])
        # encode: each input in its own format; a value cut off by its input's end is that input's.
        c = self.write("c.json.xz", lzma.compress(run("decode", "--format", "json", a).stdout + b'{"header":'))
        d = self.write("d.bin", run("decode", "--format", "binary", b).stdout)
        r = run("encode", c, d)
        want = run("encode", stdin=run("decode", "--format", "json", a, b).stdout).stdout
        self.assertEqual((r.stdout, len(want.splitlines())), (want, 7))
        self.assertEqual(r.stderr.decode().splitlines()[0][:len(c) + 3], f"{c}:4:")
        self.assertEqual(r.stderr.decode().splitlines()[1:], ["vorlink encode: 1 line rejected"])
        stats = json.loads(run("stats", "--format", "json", a, "-", stdin=gzip.compress(log(4, 1800000000.0))).stdout)
        self.assertEqual(stats["totals"], {"messages": 7, "types": 1, "leftOut": 0, "rejected": 1})
        self.assertEqual(stats["messages"][0]["first"], "2023-11-14T22:13:20.000Z")
        self.assertEqual(stats["messages"][0]["last"], "2027-01-15T08:00:00.003Z")
        self.assertEqual(stats["files"], [
            {"file": a, "messages": 3, "types": 1, "leftOut": 0, "rejected": 1, "rejectedByCause": {"payload too short": 1},
             "first": "2023-11-14T22:13:20.000Z", "last": "2023-11-14T22:13:20.002Z"},
            {"file": "<stdin>", "messages": 4, "types": 1, "leftOut": 0, "rejected": 0, "rejectedByCause": {},
             "first": "2027-01-15T08:00:00.000Z", "last": "2027-01-15T08:00:00.003Z"}])
        self.assertNotIn("files", json.loads(run("stats", "--format", "json", a).stdout))
        self.assertIn(b"\n7 messages of 1 type; 0 lines left out by the selection; 2 lines rejected\n",
                      run("stats", a, b).stdout)
        # A file that cannot be named is misuse before anything is read; --strict stops the whole run.
        for args, said in ((["decode", a, "/no/such.log"], "/no/such.log: No such file or directory"),
                           (["decode", a, self.dir], f"{self.dir}: is a directory"),
                           (["decode", "-", "-"], "standard input ('-') can be read once"),
                           (["decode", "--follow", a, b], "--follow reads one FILE")):
            r = run(*args)
            self.assertEqual((r.returncode, r.stdout, r.stderr.decode().splitlines()[0]), (2, b"", f"vorlink decode: {said}"))
        fifo = os.path.join(self.dir, "fifo")   # opened, it would wait for a writer that never comes
        os.mkfifo(fifo)
        r = run("decode", "--strict", a, fifo, timeout=10)
        self.assertEqual((r.returncode, len(r.stdout.splitlines())), (1, 3))

    def test_a_line_too_long_to_hold_is_refused_and_the_lines_behind_it_kept(self):
        bound = 1 << 20
        for size in (bound, bound + 1, 40 << 20):
            data = log(2) + b"7" * size + b"\n" + log(1) + BAD.encode()
            r = run("decode", stdin=data, limit=400 << 20)
            self.assertEqual(len(r.stdout.splitlines()), 3, size)
            self.assertIn("\n<stdin>:5: payload of 2 bytes", r.stderr.decode())   # the long line counted as one
            if size > bound:
                self.assertEqual(r.stderr.decode().splitlines()[0],
                                 f"<stdin>:3: line of {size} bytes is longer than the {bound} a line "
                                 "may have; skipped")
            else:
                self.assertTrue(r.stderr.decode().startswith("<stdin>:3: time '7777"))
        # On two jobs a piece holds no more of it than one job's reader: measured while the
        # full pipe holds the run up behind it.
        path = self.write("long.log", b"7" * (100 << 20) + b"\r\n" + log(20000))
        one = run("decode", path)
        self.assertIn(f"long.log:1: line of {(100 << 20) + 1} bytes is longer", one.stderr.decode())
        p = subprocess.Popen([TOOL, "decode", "--jobs", "2", path], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                             env=ENV)
        time.sleep(1.0)
        with open(f"/proc/{p.pid}/status") as f:
            rss = next(int(l.split()[1]) for l in f if l.startswith("VmHWM:"))
        out, err = p.communicate(timeout=60)
        self.assertTrue(out == one.stdout and err == one.stderr, "two jobs write what one writes")
        self.assertLess(rss, (64 if not SANITIZED else 512) << 10)
        # Endless: flat in memory, and over at once on Ctrl-C.
        for command in ("decode", "stats"):
            p = subprocess.Popen([TOOL, command, "/dev/zero"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, env=ENV)
            time.sleep(1.0)
            with open(f"/proc/{p.pid}/status") as f:
                rss = next(int(l.split()[1]) for l in f if l.startswith("VmHWM:"))
            self.assertLess(rss, (64 if not SANITIZED else 512) << 10, command)
            sent = time.monotonic()
            p.send_signal(signal.SIGINT)
            p.wait(5)
            self.assertLess(time.monotonic() - sent, 0.2, command)
            self.assertEqual(p.returncode, 130)
            self.assertEqual(p.stderr.read().decode().splitlines(), [f"vorlink {command}: stopped by SIGINT"])


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--sanitize", default="", help="the sanitizers the tool was built with, if any")
    args, rest = parser.parse_known_args()
    TOOL, SANITIZED = args.tool, bool(args.sanitize)
    unittest.main(argv=[sys.argv[0], *rest])
