"""Frames an analyst can rely on: theirs to change, across processes, with the log's own time,
sequence and unread bytes, and Dask that never hides a bad file."""
import concurrent.futures
import datetime
import decimal
import io
import json
import multiprocessing
import os
import pickle
import re
import subprocess
import sys
import time

import numpy
import pandas
import pytest

import vorlink
import vorlink.dask

TOOL = os.environ.get("VORLINK_TOOL")
needs_tool = pytest.mark.skipif(not TOOL, reason="VORLINK_TOOL names the vorlink tool")
EVENT, PARAMETER = vorlink.message("TdEvent"), vorlink.message("TdSetTreatmentParameter")

# Times past the millisecond, sequences past 32767, payloads with bytes behind the record.
LINES = [
    "1700000000.123456 36855 0x0100 02000000010000003c0000000500",
    f"1700000000.123999 65535 0x{EVENT.id:04X} 0900000001000000020000002a00000003000000",
    "1700000000.5 0 0x0100 03000000010000003c0000000500",
    f"1700000001.000000001 40000 0x{EVENT.id:04X} 0a0000000100000002000000000000ffffffff00",
    f"1700000001.25 32768 0x{PARAMETER.id:04X} 05000000cdcc8c3f",
    "1700000002.999999999 12 0x0300 07000000",
]


@pytest.fixture
def log_path(tmp_path):
    path = tmp_path / "fine.log"
    path.write_text("\n".join(LINES) + "\n")
    return str(path)


def nanos(text):
    return int(decimal.Decimal(text) * 10**9)


def iso(ns):
    seconds, past = divmod(ns, 10**9)
    digits = 3 if past % 10**6 == 0 else 6 if past % 1000 == 0 else 9
    return time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(seconds)) + "." + f"{past:09d}"[:digits] + "Z"


def expected_rows(name):
    kind = vorlink.message(name)
    rows = []
    for line in LINES:
        t, sequence, id, payload = line.split()
        if int(id, 16) == kind.id:
            rows.append((nanos(t), int(sequence), bytes.fromhex(payload)[kind.wire_size:]))
    return rows


def test_times_sequences_and_unread_bytes_are_the_lines_own(log_path):
    log = vorlink.read_log(log_path)
    for name in ("AlarmStatusData", "TdEvent", "TdSetTreatmentParameter", "AlarmCleared"):
        table, rows = log.table(name), expected_rows(name)
        assert table["time"].astype("int64").tolist() == [t for t, _, _ in rows], name
        assert table["sequence"].tolist() == [s for _, s, _ in rows], name
        kind = vorlink.message(name)
        if kind.payload_size > kind.wire_size:
            assert list(table.columns[-1:]) == ["unread"] and table["unread"].tolist() == [u for _, _, u in rows]
        else:
            assert "unread" not in table
    assert log.long()["time"].astype("int64").tolist()[:2] == [nanos("1700000000.123456")] * 2
    stats = log.stats().set_index("message")
    assert stats.loc["TdEvent", "first"].value == nanos("1700000000.123999")
    assert stats.loc["TdEvent", "last"].value == nanos("1700000001.000000001")
    # Bounds to the nanosecond: the first alarm is a nanosecond before the window.
    window = vorlink.read_log(log_path, start=1700000000.123457, end="2023-11-14T22:13:21.000000001Z")
    assert window.table("AlarmStatusData")["sequence"].tolist() == [0]
    assert window.table("TdEvent")["sequence"].tolist() == [65535, 40000]


@needs_tool
def test_the_tool_writes_the_same_times_sequences_and_unread_bytes(log_path):
    def tool(*args):
        return subprocess.run([TOOL, *args, log_path], capture_output=True, text=True, check=True).stdout

    for name in ("TdEvent", "AlarmStatusData", "TdSetTreatmentParameter"):
        csv = tool("decode", "--format", "csv", "--message", name).splitlines()
        assert not any(c.startswith(("data1_", "data2_")) for c in csv[0].split(","))
        got = [(row.split(",")[0], int(row.split(",")[3]), row.split(",")[-1]) for row in csv[1:]]
        unread = vorlink.message(name).payload_size > vorlink.message(name).wire_size
        assert csv[0].endswith(",unread") == unread
        assert got == [(iso(t), s, u.hex() if unread else row.split(",")[-1])
                       for (t, s, u), row in zip(expected_rows(name), csv[1:])]
    dump = tool("decode").splitlines()
    assert [line.split()[0] for line in dump] == [iso(nanos(line.split()[0])) for line in LINES]
    stats = {m["message"]: m for m in json.loads(tool("stats", "--format", "json"))["messages"]}
    assert (stats["TdEvent"]["first"], stats["TdEvent"]["last"]) == (iso(nanos("1700000000.123999")),
                                                                      iso(nanos("1700000001.000000001")))
    chosen = tool("decode", "--from", "1700000000.123457", "--to", "2023-11-14T22:13:21.000000001Z").splitlines()
    assert [line.split()[0] for line in chosen] == [iso(nanos(line.split()[0])) for line in LINES[1:4]]
    # The protobuf Header holds milliseconds, cut: 123999 µs is .123.
    header = json.loads(tool("decode", "--format", "json", "--message", "TdEvent").splitlines()[0])["header"]
    assert (header["timestamp"], header["sequence"]) == ("2023-11-14T22:13:20.123Z", -1)


def test_a_frame_is_the_callers_to_change(log_path):
    log = vorlink.read_log(log_path)
    before, long, stats = log.tables(), log.long(), log.stats()
    a = log.table("AlarmStatusData")
    a.loc[0, "alarmState"] = 99
    a["alarmTop"] *= 10
    a.loc[0, "time"] = pandas.Timestamp("2000-01-01", tz="UTC")   # before a sort, which copies
    a.loc[0, "sequence"] = 1
    a.sort_values("time", inplace=True, ascending=False)
    log.tables()["TdEvent"]["event"] += 1
    log["TdEvent"].loc[0, "unread"] = b"changed"
    for name, table in log.tables().items():
        pandas.testing.assert_frame_equal(table, before[name])
        pandas.testing.assert_frame_equal(log.table(name), before[name])
    pandas.testing.assert_frame_equal(log.long(), long)
    pandas.testing.assert_frame_equal(log.stats(), stats)
    # Two frames never share a buffer, and frames merge and concatenate as any others.
    b = log.table("AlarmStatusData")
    assert not any(numpy.shares_memory(a[c].to_numpy(), b[c].to_numpy()) for c in ("alarmState", "sequence"))
    both = pandas.concat([log.table(0x0100), vorlink.read_log(log_path).table(0x0100)], ignore_index=True)
    assert both["alarmState"].tolist() == [2, 3, 2, 3]


def test_a_log_pickles_as_its_columns_and_is_a_mapping_of_frames(log_path):
    log = vorlink.read_log(log_path, message=["AlarmStatusData", EVENT, "DdTemperatureData"], end=1700000001)
    again = pickle.loads(pickle.dumps(log))
    assert again.messages == log.messages == ["AlarmStatusData", "TdEvent"] and repr(again) == repr(log)
    for name in log.messages:
        pandas.testing.assert_frame_equal(again[name], log[name])
    pandas.testing.assert_frame_equal(again.long(), log.long())
    pandas.testing.assert_frame_equal(again.stats(), log.stats())
    with pytest.raises(KeyError, match="AlarmCleared was left out by the selection"):
        again.table("AlarmCleared")
    assert len(log) == 2 and list(log) == log.messages and list(dict(log)) == log.messages
    assert "AlarmStatusData" in log and 0x0100 in log and numpy.uint16(EVENT.id) in log and EVENT in log
    assert "DdTemperatureData" not in log and "Nope" not in log and 1.5 not in log
    assert len(log["DdTemperatureData"]) == 0 and log.get("DdTemperatureData") is None
    pandas.testing.assert_frame_equal(log[numpy.int64(0x0100)], log.table("AlarmStatusData"))
    collected = vorlink.read_log(io.BytesIO(b"1 1 0x0100 00\n2 2 0x0300 07000000\n"), errors="collect")
    assert pickle.loads(pickle.dumps(collected)).errors == collected.errors == [
        (1, "payload too short", "payload of 1 bytes is too short for AlarmStatusData (0x0100), which needs 14")]


def test_selection_is_not_absence(log_path):
    log = vorlink.read_log(log_path, message=["Dd", 0x0100])
    with pytest.raises(KeyError, match=r"TdEvent was left out by the selection \(message=\['Dd', 256\]\)"):
        log.table("TdEvent")
    with pytest.raises(KeyError, match="left out"):
        log[EVENT]
    empty = log.table("DdEvent")   # selected, never sent
    assert len(empty) == 0 and list(empty.columns) == ["time", "sequence", "event", "dataType1", "dataType2", "unread"]
    assert [str(t) for t in empty.dtypes] == ["datetime64[ns, UTC]", "uint16", "uint32", "uint32", "uint32", "object"]
    assert vorlink.read_log(log_path).table("DdEvent").dtypes.equals(empty.dtypes)   # not selected away: all read


def test_keys_and_times_in_every_form_python_hands_over(log_path):
    one = vorlink.read_log(log_path, message=vorlink.message(0x0100))
    assert one.messages == ["AlarmStatusData"]
    for key in (numpy.uint16(0x0100), numpy.int64(0x0100), [numpy.int32(0x0100)], vorlink.records.AlarmStatusData):
        assert vorlink.read_log(log_path, message=key).messages == ["AlarmStatusData"], key
    assert vorlink.message(numpy.uint16(0x0100)).name == "AlarmStatusData"
    first = nanos("1700000000.123457")
    forms = [numpy.datetime64(first, "ns"), numpy.datetime64("2023-11-14T22:13:20.123457"),
             pandas.Timestamp(first, tz="UTC"), pandas.Timestamp(first), pandas.Timestamp(first).tz_localize("UTC")
             .tz_convert("Asia/Tokyo"), decimal.Decimal("1700000000.123457"), numpy.float64(1700000000.123457),
             "1700000000.123457", "2023-11-14T23:13:20.123457+01:00"]
    for start in forms:
        got = vorlink.read_log(log_path, start=start, message=0x0100).table(0x0100)
        assert got["sequence"].tolist() == [0], start
    assert vorlink.read_log(log_path, end=numpy.datetime64("2023-11-14", "D")).messages == []
    refused = [(dict(start=[1]), TypeError, "start: time is an aware datetime, a pandas Timestamp"),
               (dict(end=numpy.datetime64("NaT")), ValueError, "end: time is NaT"),
               (dict(message=1.5), TypeError, "message is a key or a list of keys, not float"),
               (dict(message=[object()]), TypeError, "a message key is an id"),
               (dict(message=object()), TypeError, "message is a key or a list of keys, not object"),
               (dict(start=datetime.datetime(2023, 1, 1)), ValueError, "no time zone")]
    for options, kind, said in refused:
        with pytest.raises(kind) as raised:
            vorlink.read_log(log_path, **options)
        assert said in str(raised.value) and not re.search("pybind|C\\+\\+|cast", str(raised.value)), options


def test_errors_cross_process_boundaries(log_path, tmp_path):
    error = pickle.loads(pickle.dumps(vorlink.LogError("a.log", 1, "bad time", "time 'x' is bad")))
    assert (type(error), error.source, error.line, error.cause, error.reason, str(error)) == \
        (vorlink.LogError, "a.log", 1, "bad time", "time 'x' is bad", "a.log:1: time 'x' is bad")
    bad = tmp_path / "bad.log"
    bad.write_text(LINES[0] + "\n" + "yesterday 1 0x0100 00\n")
    context = multiprocessing.get_context("fork")
    with context.Pool(2) as pool:
        logs = pool.map(vorlink.read_log, [log_path, log_path])
        pandas.testing.assert_frame_equal(logs[1].table("TdEvent"), vorlink.read_log(log_path).table("TdEvent"))
        with pytest.raises(vorlink.LogError) as raised:
            pool.map(vorlink.read_log, [log_path, str(bad)])
        assert (raised.value.source, raised.value.line) == (str(bad), 2)
    with concurrent.futures.ProcessPoolExecutor(2, mp_context=context) as pool:
        with pytest.raises(vorlink.LogError, match="bad.log:2: time 'yesterday'"):
            list(pool.map(vorlink.read_log, [log_path, str(bad)]))


def test_progress_is_shown_on_a_long_read(capsys):
    class Slow(io.BytesIO):
        def readinto(self, buffer):
            time.sleep(0.02)
            return super().readinto(buffer[:4096])

    body = "".join(f"{1700000000 + k / 1000:.3f} {k % 65536} 0x0300 07000000\n" for k in range(8000))
    log = vorlink.read_log(Slow(body.encode()), progress=True)
    assert len(log.table("AlarmCleared")) == 8000
    assert "B/s]" in capsys.readouterr().err
    vorlink.read_log(io.BytesIO(body.encode()), progress=True)   # done within a second: nothing shown
    assert capsys.readouterr().err == ""


def fleet(tmp_path, stray=True):
    folder = tmp_path / "fleet"
    folder.mkdir()
    (folder / "a.log").write_text("\n".join(LINES) + "\n")
    (folder / "b.log").write_text(LINES[0] + "\n1700000009 1 0x0100 00\n" + LINES[2] + "\n")
    if stray:
        (folder / "notes.txt").write_text("machine b serviced on Monday\n")
    return folder


def test_dask_never_hides_a_bad_file(tmp_path):
    import dask
    folder = fleet(tmp_path)
    with dask.config.set(scheduler="sync"):
        frame = vorlink.dask.read_logs(folder, "AlarmStatusData")
        with pytest.raises(vorlink.LogError, match="b.log:2: payload of 1 bytes is too short"):
            frame.compute()
        frame, rejected = vorlink.dask.read_logs(folder, "AlarmStatusData", errors="collect")
        with pytest.raises(vorlink.LogError, match="notes.txt:1: no line is a bus-log message"):
            frame.compute()
        (folder / "notes.txt").write_text("")
        with pytest.raises(vorlink.LogError, match="notes.txt:0: no line is a bus-log message .the file is empty"):
            frame.compute()
        os.remove(folder / "notes.txt")
        frame, rejected = vorlink.dask.read_logs(folder, "AlarmStatusData", errors="collect")
        got = frame.compute()
        assert got["sequence"].tolist() == [36855, 0, 36855, 0]
        assert rejected.compute().values.tolist() == [
            [str(folder / "b.log"), 2, "payload too short",
             "payload of 1 bytes is too short for AlarmStatusData (0x0100), which needs 14"]]


def test_dask_reads_a_time_window_as_pandas_does(tmp_path):
    import dask
    folder = fleet(tmp_path, stray=False)
    (folder / "b.log").write_text("\n".join(LINES[::-1]) + "\n")
    start, end = numpy.datetime64(nanos("1700000000.123999"), "ns"), pandas.Timestamp(nanos("1700000001.25"), tz="UTC")
    with dask.config.set(scheduler="sync"):
        frame = vorlink.dask.read_logs(folder, "TdEvent", start=start, end=end, include_path_column=True)
        got = frame.compute().reset_index(drop=True)
    whole = pandas.concat([vorlink.read_log(p).table("TdEvent").assign(path=str(p))
                           for p in sorted(folder.iterdir())], ignore_index=True)
    expected = whole[(whole["time"] >= pandas.Timestamp(start).tz_localize("UTC")) & (whole["time"] <= end)]
    pandas.testing.assert_frame_equal(got, expected.reset_index(drop=True))
    assert len(got) == 4 and frame.known_divisions is False
    with pytest.raises(TypeError, match="start: time is an aware datetime"):
        vorlink.dask.read_logs(folder, "TdEvent", start=[1])


def test_log_errors_and_logs_come_back_from_process_workers(log_path, tmp_path):
    distributed = pytest.importorskip("distributed")
    folder = fleet(tmp_path)
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client:
        log = client.submit(vorlink.read_log, log_path).result()
        pandas.testing.assert_frame_equal(log.table("TdEvent"), vorlink.read_log(log_path).table("TdEvent"))
        with pytest.raises(vorlink.LogError) as raised:
            client.submit(vorlink.read_log, str(folder / "notes.txt")).result()
        assert (raised.value.source, raised.value.line) == (str(folder / "notes.txt"), 1)
        with pytest.raises(vorlink.LogError, match="b.log:2: payload"):
            vorlink.dask.read_logs([folder / "a.log", folder / "b.log"], "AlarmStatusData").compute()


def test_stub_types_frames_file_objects_and_the_readme_examples(tmp_path):
    readme = open(os.path.join(os.path.dirname(__file__), "..", "..", "README.md")).read()
    pandas_part = readme.split("### Bus logs into pandas", 1)[1].split("\n## ", 1)[0]
    blocks = re.findall(r"```python\n(.*?)```", pandas_part, re.S)
    assert len(blocks) >= 2
    script = tmp_path / "analyst.py"
    script.write_text("\n".join(f"def example{k}() -> None:\n" + "".join(f"    {line}\n" for line in b.splitlines())
                                for k, b in enumerate(blocks)) + """
import gzip
import numpy
import pandas
import vorlink
import vorlink.dask

def analyst() -> None:
    log = vorlink.read_log(gzip.open("bus.log.gz"), message=[vorlink.message(0x0100), numpy.uint16(0x2600)],
                           start=numpy.datetime64("2023-11-14T22:13:20"), end=pandas.Timestamp("2023-11-15", tz="UTC"))
    frame: pandas.DataFrame = log["AlarmStatusData"]
    names: list[str] = [name for name in log]
    count: int = len(log) + len(log.table(numpy.int64(0x0100)))
    frames, rejected = vorlink.dask.read_logs("fleet/", "AlarmStatusData", errors="collect")
    vorlink.read_log(gzip.open("bus.log.gz"), start=[1])  # refused
""")
    typed = subprocess.run([sys.executable, "-m", "mypy", "--no-incremental", "--cache-dir=/dev/null",
                            "--ignore-missing-imports", str(script)], capture_output=True, text=True,
                           env=dict(os.environ, MYPYPATH=""))
    errors = [line for line in typed.stdout.splitlines() if ": error:" in line]
    assert len(errors) == 1 and '"start" to "read_log"' in errors[0], typed.stdout
