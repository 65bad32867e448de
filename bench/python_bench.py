"""Speed of the Python module against the floor (struct on the same layout)
and canmatrix 0.9.5 on the same frame, in one run. Prints a Markdown table.

    bench/python [--seconds S]      (builds, pins to one core, runs this)
"""
import argparse, datetime, os, platform, random, statistics, struct, subprocess, sys, time, timeit, warnings

LAYOUTS = ["AlarmStatusData", "TdVersionResponse", "DdTemperatureData"]
CODES = {"U08": "B", "U16": "H", "U32": "I", "S16": "h", "S32": "i", "F32": "f"}


def per_call(stmt, namespace, seconds):
    """Best per-call time in ns over repeats of about `seconds` in all."""
    timer = timeit.Timer(stmt, globals=namespace)
    number, _ = timer.autorange()
    repeats = max(5, int(seconds / max(timer.timeit(number), 1e-6)))
    return min(timer.repeat(repeat=min(repeats, 50), number=number)) / number * 1e9


def canmatrix_frame(mt):
    import canmatrix
    frame = canmatrix.Frame(mt.name, size=mt.wire_size)
    for f in mt.fields:
        frame.add_signal(canmatrix.Signal(f.name, start_bit=f.offset * 8, size=f.size * 8, is_little_endian=True,
                                          is_signed=f.wire_type[0] == "S" or f.wire_type == "F32",
                                          is_float=f.wire_type == "F32"))
    return frame


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=1.0, help="time per measurement")
    args = parser.parse_args()

    start = time.perf_counter()
    import vorlink
    import_ms = (time.perf_counter() - start) * 1000
    # A fresh interpreter's import, the figure a script pays.
    fresh = min(float(subprocess.run([sys.executable, "-c", "import time; t = time.perf_counter(); import vorlink; "
                                      "print((time.perf_counter() - t) * 1000)"], capture_output=True, text=True,
                                     check=True).stdout) for _ in range(5))
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        import canmatrix

    rng = random.Random(7)
    rows = []
    for name in LAYOUTS:
        mt = vorlink.message(name)
        fmt = "<" + "".join(CODES[f.wire_type] for f in mt.fields)
        assert struct.calcsize(fmt) == mt.wire_size
        payload = bytes(rng.getrandbits(8) for _ in range(mt.wire_size))
        if "F32" in fmt:  # finite floats, as a sensor sends
            payload = struct.pack(fmt, *(rng.uniform(-100, 100) for _ in mt.fields))
        values = struct.unpack_from(fmt, payload)
        fields = dict(zip((f.name for f in mt.fields), values))
        frame = canmatrix_frame(mt)
        decoded = frame.decode(bytearray(payload))
        assert [float(decoded[n].raw_value) for n in fields] == [float(v) for v in values], name
        assert vorlink.decode(name, payload) == mt.record(*values)
        assert vorlink.encode(name, **fields) == struct.pack(fmt, *values) == payload
        assert bytes(frame.encode({n: v for n, v in fields.items()})) == payload, name
        ns = dict(vorlink=vorlink, struct=struct, frame=frame, payload=payload, fmt=fmt, name=name,
                  values=values, fields=fields, record=mt.record, mt=mt, cm_payload=bytearray(payload))
        t = {
            "decode": per_call("vorlink.decode(name, payload)", ns, args.seconds),
            "unpack": per_call("struct.unpack_from(fmt, payload)", ns, args.seconds),
            "cm_decode": per_call("frame.decode(cm_payload)", ns, args.seconds),
            "encode": per_call("vorlink.encode(name, **fields)", ns, args.seconds),
            "pack": per_call("struct.pack(fmt, *values)", ns, args.seconds),
            "cm_encode": per_call("frame.encode(fields)", ns, args.seconds),
        }
        rows.append((name, len(mt.fields), mt.wire_size, t))

    print(f"Measured {datetime.date.today()} on {machine()}, Python {platform.python_version()}, "
          f"one core (taskset -c 0); best of repeated timeit runs; times in ns a call.\n")
    print("| Row | Fields | Bytes | `decode` | `unpack_from` (floor) | decode / floor | canmatrix decode | "
          "canmatrix / decode | `encode` (keywords) | `pack` (floor) | encode / floor | canmatrix encode |")
    print("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|")
    worst = {"decode": 0.0, "speedup": float("inf"), "encode": 0.0}
    for name, count, size, t in rows:
        d, e, s = t["decode"] / t["unpack"], t["encode"] / t["pack"], t["cm_decode"] / t["decode"]
        worst = {"decode": max(worst["decode"], d), "speedup": min(worst["speedup"], s), "encode": max(worst["encode"], e)}
        print(f"| {name} | {count} | {size} | {t['decode']:.0f} | {t['unpack']:.0f} | {d:.2f} | {t['cm_decode']:,.0f} | "
              f"{s:.0f}× | {t['encode']:.0f} | {t['pack']:.0f} | {e:.2f} | {t['cm_encode']:,.0f} |")
    print(f"\n`import vorlink`: {fresh:.0f} ms in a fresh interpreter (best of 5); {import_ms:.0f} ms in this one.")
    verdict = (worst["decode"] <= 3 and worst["speedup"] >= 10 and worst["encode"] <= 3 and fresh < 100)
    print(f"Worst row: decode {worst['decode']:.2f}× the floor (target ≤ 3), {worst['speedup']:.0f}× faster than "
          f"canmatrix (target ≥ 10); encode {worst['encode']:.2f}× the floor (target ≤ 3); "
          f"targets {'met' if verdict else 'NOT met'}.")
    return 0 if verdict else 1


def machine():
    model = next((line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")), "?")
    load = open("/proc/loadavg").read().split()[:3]
    return f"{os.cpu_count()} cores of {model}, load average {' '.join(load)} at the end"


if __name__ == "__main__":
    sys.exit(main())
