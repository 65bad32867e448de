"""vorlink.read_log against the module's own decode and the tool's selection
and rejected lines, and vorlink.dask against pandas."""
import _thread
import datetime
import io
import json
import os
import subprocess
import sys
import threading
import time

import numpy
import pandas
import pytest

import vorlink

EXAMPLES = os.path.join(os.path.dirname(__file__), "..", "..", "examples")
BUS_LOG, MALFORMED = os.path.join(EXAMPLES, "bus.log"), os.path.join(EXAMPLES, "malformed.log")
TOOL = os.environ.get("VORLINK_TOOL")
needs_tool = pytest.mark.skipif(not TOOL, reason="VORLINK_TOOL names the vorlink tool")


@pytest.fixture(scope="module")
def synth_log(tmp_path_factory):
    if not TOOL:
        pytest.skip("VORLINK_TOOL names the vorlink tool")
    path = tmp_path_factory.mktemp("logs") / "synth.log"
    with open(path, "wb") as f:
        subprocess.run([TOOL, "synth", "--count", "2000", "--seed", "5"], stdout=f, check=True)
    return str(path)


def lines_by_type(path):
    """Each message line, read here on its own: {name: [(msecs, sequence, payload)]}."""
    found = {}
    for text in open(path, encoding="utf-8-sig"):
        fields = text.split("#")[0].split()
        if len(fields) == 4:
            time, sequence, id, payload = fields
            msecs = round(float(time) * 1000)
            found.setdefault(vorlink.message(int(id, 16)).name, []).append(
                (msecs, int(sequence), b"" if payload == "-" else bytes.fromhex(payload)))
    return found


@pytest.mark.parametrize("which", ["bus.log", "synth", "file object"])
def test_every_value_of_every_table_is_what_decode_gives_for_its_line(which, synth_log):
    path = synth_log if which == "synth" else BUS_LOG
    log = vorlink.read_log(open(path, "rb") if which == "file object" else path)
    expected = lines_by_type(path)
    tables = log.tables()
    assert list(tables) == sorted(expected, key=lambda n: vorlink.message(n).id)
    for name, table in tables.items():
        kind = vorlink.message(name)
        unread = ["unread"] if kind.payload_size > kind.wire_size else []
        assert list(table.columns) == ["time", "sequence", *(f.name for f in kind.fields), *unread]
        assert [str(table[f.name].dtype) for f in kind.fields] == [kind.dtype[f.name].name for f in kind.fields]
        assert str(table["time"].dtype) == "datetime64[ns, UTC]" and table["sequence"].dtype == numpy.uint16
        lines = expected[name]
        assert len(table) == len(lines)
        assert (table["time"].astype("int64") // 1_000_000).tolist() == [m for m, _, _ in lines]
        assert table["sequence"].tolist() == [s for _, s, _ in lines]
        for row, (_, _, payload) in zip(table.itertuples(index=False), lines):
            record = vorlink.decode(name, payload)
            got = row[2:]
            assert all(a == b or (a != a and b != b) for a, b in zip(got, record)), (name, got, record)
            assert not unread or row[-1] == record.unread


@needs_tool
@pytest.mark.parametrize("selection", [
    {"message": "Td"}, {"message": ["0x2600", "AlarmStatusData", "MSG_ID_TD_EVENT"]},
    {"start": "2023-11-14T22:13:22.5Z", "end": "1700000023.9"}, {"message": "Dd", "start": 1700000021.25}])
def test_selection_gives_the_lines_the_tools_selection_gives(selection):
    args = [TOOL, "stats", "--format", "json", BUS_LOG]
    for key in [selection["message"]] if isinstance(selection.get("message"), str) else selection.get("message", []):
        args += ["--message", key]
    for option, key in (("--from", "start"), ("--to", "end")):
        if key in selection:
            args += [option, str(selection[key])]
    tool = json.loads(subprocess.run(args, capture_output=True, check=True).stdout)
    stats = vorlink.read_log(BUS_LOG, **selection).stats()
    assert stats["message"].tolist() == [m["message"] for m in tool["messages"]]
    assert stats["count"].tolist() == [m["count"] for m in tool["messages"]]
    assert stats["bytes"].tolist() == [m["payloadBytes"] for m in tool["messages"]]
    assert stats["unread"].tolist() == [m["withUnreadBytes"] for m in tool["messages"]]
    assert [t.isoformat(timespec="milliseconds").replace("+00:00", "Z") for t in stats["first"]] == \
        [m["first"] for m in tool["messages"]]
    assert stats["rate_hz"].fillna(-1).round(9).tolist() == [round(m["rateHz"], 9) if m["rateHz"] is not None
                                                            else -1 for m in tool["messages"]]


@needs_tool
def test_bad_lines_raise_or_are_collected_as_the_tool_reports_them():
    tool = subprocess.run([TOOL, "decode", MALFORMED], capture_output=True, text=True)
    reported = [line for line in tool.stderr.splitlines() if line.startswith(MALFORMED + ":")]
    with pytest.raises(vorlink.LogError) as raised:
        vorlink.read_log(MALFORMED)
    assert str(raised.value) == reported[0] and isinstance(raised.value, ValueError)
    log = vorlink.read_log(MALFORMED, errors="collect")
    assert [f"{MALFORMED}:{line}: {reason}" for line, _, reason in log.errors] == reported
    assert [cause for _, cause, _ in log.errors][:2] == ["payload too short", "unknown id"]
    assert sum(len(t) for t in log.tables().values()) == tool.stdout.count("\n")


@pytest.mark.parametrize("packer", ["gzip", "xz", "zstd"])
def test_a_compressed_log_reads_as_the_plain_one_by_path_and_as_a_file_object(packer, tmp_path):
    with open(BUS_LOG, "rb") as f:
        packed = subprocess.run([packer, "-c"], stdin=f, capture_output=True, check=True).stdout
    path = tmp_path / "bus.log.1"
    path.write_bytes(packed)
    want = vorlink.read_log(BUS_LOG).tables()
    for source in (str(path), open(path, "rb")):
        got = vorlink.read_log(source).tables()
        assert list(got) == list(want) and all(got[name].equals(want[name]) for name in want)
    path.write_bytes(packed[:len(packed) // 2])
    with pytest.raises(vorlink.LogError, match=rf"bus.log.1:\d+: {packer} data ends early \(the file is truncated\), "
                                               rf"at byte {len(packed) // 2}$"):
        vorlink.read_log(path)


def test_misuse_is_named():
    with pytest.raises(KeyError, match="no message 'DdTemprature'; nearest: DdTemperatureData"):
        vorlink.read_log(BUS_LOG, message="DdTemprature")
    with pytest.raises(ValueError, match="start: 'soon' is neither"):
        vorlink.read_log(BUS_LOG, start="soon")
    with pytest.raises(ValueError, match="start is later than end"):
        vorlink.read_log(BUS_LOG, start=1700000030, end=1700000020)
    with pytest.raises(TypeError, match="start: time is an aware datetime, .* or seconds since 1970, not list"):
        vorlink.read_log(BUS_LOG, start=[1])
    by_text = vorlink.read_log(BUS_LOG, end="2023-11-14T22:13:23.25Z").stats()
    aware = datetime.datetime(2023, 11, 14, 23, 13, 23, 250000, tzinfo=datetime.timezone(datetime.timedelta(hours=1)))
    assert 100 < len(by_text) < 474 and vorlink.read_log(BUS_LOG, end=aware).stats().equals(by_text)
    with pytest.raises(FileNotFoundError):
        vorlink.read_log(BUS_LOG + ".missing")
    log = vorlink.read_log(io.BytesIO(b"1.5 1 0x0300 07000000\n1.6 2 0x0100 -\n"), message=0x0300)
    assert log.table("AlarmCleared")["alarmName"].tolist() == [7] and log.messages == ["AlarmCleared"]


def test_long_form_holds_every_value_once_in_time_order():
    log = vorlink.read_log(BUS_LOG, message=["AlarmStatusData", "DdTemperatureData"])
    long = log.long()
    assert long["time"].is_monotonic_increasing and long["value"].dtype == numpy.float64
    wide = log.table("DdTemperatureData")
    got = long[(long["message"] == "DdTemperatureData") & (long["field"] == "d4Temp")]["value"].tolist()
    assert got == wide["d4Temp"].astype(float).tolist()
    assert len(long) == sum(len(t) * (len(t.columns) - 2) for t in log.tables().values())


def test_ctrl_c_stops_a_read_that_waits_on_a_quiet_pipe(tmp_path):
    fifo = str(tmp_path / "live.log")
    os.mkfifo(fifo)

    def machine():   # one message, then quiet for three seconds
        with open(fifo, "w") as f:
            f.write("1700000000.000 1 0x0300 07000000\n")
            f.flush()
            time.sleep(3)

    threading.Thread(target=machine, daemon=True).start()
    threading.Timer(0.3, _thread.interrupt_main).start()
    start = time.monotonic()
    with pytest.raises(KeyboardInterrupt):
        vorlink.read_log(fifo)
    assert time.monotonic() - start < 1.5


def readers(graph):
    """The partition readers in a (fused) graph."""
    import vorlink.dask
    for task in dict(graph).values():
        stack = [task]
        while stack:
            x = stack.pop()
            if isinstance(x, vorlink.dask._ReadPartition):
                yield x
            elif isinstance(x, (tuple, list)):
                stack += x
            elif isinstance(x, dict):
                stack += x.values()
            elif hasattr(x, "dsk"):
                stack += dict(x.dsk).values()


def test_dask_on_two_process_workers_equals_pandas(tmp_path):
    import dask
    distributed = pytest.importorskip("distributed")
    import vorlink.dask
    paths = []
    for k, start in enumerate(("1700000000", "1700000100")):
        path = tmp_path / f"machine{k}.log"
        with open(BUS_LOG) as src, open(path, "w") as out:
            for line in src:
                parts = line.split()
                if len(parts) >= 4 and not line.startswith("#"):
                    parts[0] = f"{float(parts[0]) - 1700000000 + float(start):.3f}"
                out.write(" ".join(parts) + "\n")
        paths.append(str(path))
    expected = pandas.concat([vorlink.read_log(p).table("DdTemperatureData") for p in paths], ignore_index=True)
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None) as cluster, \
            distributed.Client(cluster):
        frame = vorlink.dask.read_logs(str(tmp_path), "DdTemperatureData", include_path_column=True)
        assert frame.npartitions == 2
        got = frame.compute().reset_index(drop=True)
        pandas.testing.assert_frame_equal(got.drop(columns="path"), expected)
        assert got.groupby("path")["d4Temp"].count().to_dict() == {p: 1 for p in paths}
        pruned = vorlink.dask.read_logs(paths, "DdTemperatureData")[["time", "d4Temp"]]
        assert {frozenset(f.columns) for f in readers(dask.optimize(pruned)[0].__dask_graph__())} == {frozenset({"time", "d4Temp"})}
        chosen = vorlink.dask.read_logs(paths, "DdTemperatureData", columns=["d4Temp", "time"], include_path_column="machine")
        assert list(chosen.columns) == ["d4Temp", "time", "machine"]
        with open(tmp_path / "machine2.log", "w") as f:   # collected: a bad line is left out, the good ones kept
            f.write("yesterday 1 0x2600 00\n" + [line for line in open(paths[0]) if " 0x2600 " in line][0])
        kept, rejected = vorlink.dask.read_logs(str(tmp_path / "machine[0-9].log"), 0x2600, columns=["d4Temp"],
                                                errors="collect")
        assert (len(kept.compute()), len(rejected.compute())) == (3, 1)
        pandas.testing.assert_frame_equal(chosen.compute().reset_index(drop=True),
                                          expected[["d4Temp", "time"]].assign(machine=pandas.Series(paths, dtype=object)))
