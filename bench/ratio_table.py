#!/usr/bin/env python3
"""Turns the JSON output of vorlink_bench into the one table of ratios.

    ratio_table.py RESULTS.json

With --benchmark_repetitions the medians of the repetitions are used.
"""
import json
import math
import sys

DETAIL = ["Unused", "AlarmStatusData", "TdEvent", "DdConcentratePumpData", "DdMixingControlData"]
PER_ROW = [
    ("convert", "`canMessageToProtobufByteArray` / protobuf floor", 1.2),
    ("serializeProto", "`serializeProto` / protobuf floor", 1.2),
    ("deserializeProto", "`deserializeProto` / protobuf parse floor", 1.2),
    ("fromQByteArray", "`fromQByteArray` / memcpy into packed struct", 2.0),
    ("toQByteArray", "`toQByteArray` / memcpy out of packed struct", 3.0),
]


def load(path):
    with open(path, encoding="utf-8") as f:
        data = json.load(f)
    runs = data["benchmarks"]
    repeated = any(r.get("run_type") == "aggregate" for r in runs)
    results, errors = {}, []
    for r in runs:
        if repeated and r.get("aggregate_name") != "median":
            continue
        if r.get("error_occurred"):
            errors.append(f"{r['name']}: {r.get('error_message')}")
            continue
        parts = r["run_name"].split("/")
        key = f"threads:{r['threads']}" if parts[0] == "threads" else "/".join(parts[:2])
        results[key] = r
    return data["context"], results, errors


def fmt(x):
    return "—" if x is None else f"{x:.2f}"


def verdict(worst, target):
    return "—" if worst is None else ("yes" if worst <= target else "no")


def main(argv):
    if len(argv) != 2:
        raise SystemExit(__doc__)
    context, res, errors = load(argv[1])
    header = ["Ratio", "Target"] + DETAIL + ["All rows: geomean", "All rows: worst", "Holds"]
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]

    def row(cells):
        lines.append("| " + " | ".join(cells) + " |")

    for op, label, target in PER_ROW:
        ratios = {k.split("/", 1)[1]: v["ratio"] for k, v in res.items() if k.startswith(op + "/")}
        cells = [label, f"≤ {target:.1f}"] + [fmt(ratios.get(d)) for d in DETAIL]
        if ratios:
            geo = math.exp(sum(math.log(x) for x in ratios.values()) / len(ratios))
            worst_row = max(ratios, key=ratios.get)
            cells += [f"{geo:.2f} ({len(ratios)} rows)", f"{ratios[worst_row]:.2f} ({worst_row})",
                      verdict(ratios[worst_row], target)]
        else:
            cells += ["—", "—", "—"]
        row(cells)

    blank = ["—"] * len(DETAIL)
    warned = res.get("convertWithWarning/TdEvent")
    if warned:
        cells = ["`canMessageToProtobufByteArray`, union warning written / protobuf floor", "≤ 1.2"]
        cells += [fmt(warned["ratio"]) if d == "TdEvent" else "—" for d in DETAIL]
        row(cells + ["—", "—", verdict(warned["ratio"], 1.2)])
    known = res.get("msgIdString/known")
    if known:
        v = known["allocs_per_call"]
        row(["`msgIdString`, known id: heap allocations per call", "0"] + blank + [f"{v:g}", "—", "yes" if v == 0 else "no"])
    unknown = res.get("msgIdString/unknown")
    if unknown:
        row(["`msgIdString`, id in no row: heap allocations per call (counter check)", "—"] + blank +
            [f"{unknown['allocs_per_call']:g}", "—", "—"])
    names = res.get("msgIdToProtoName/known")
    if names:
        v = names["allocs_per_call"]
        row(["`msgIdToProtoName` after its first call: heap allocations per call", "0"] + blank +
            [f"{v:g}", "—", "yes" if v == 0 else "no"])
    dispatch = res.get("dispatch/last_vs_first")
    if dispatch:
        v = dispatch["ratio"]
        row(["conversion of id 0xFFFF / of id 0x0000", "0.90–1.10"] + blank + [fmt(v), "—", "yes" if 0.9 <= v <= 1.1 else "no"])
    one, two = res.get("threads:1"), res.get("threads:2")
    if one and two:
        v = two["items_per_second"] / one["items_per_second"]
        row(["throughput of 2 threads / 1 thread, all rows", "≥ 1.80"] + blank + [fmt(v), "—", "yes" if v >= 1.8 else "no"])

    print("\n".join(lines))
    print()
    print(f"Run {context.get('date', '?')} on {context.get('num_cpus', '?')} CPUs at {context.get('mhz_per_cpu', '?')} MHz, "
          f"load average at start {', '.join(f'{x:.2f}' for x in context.get('load_avg', []))}.")
    for e in errors:
        print(f"FAILED {e}")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
