"""The Python module against an independent reading of the message list:
struct's layouts from ZelkoMsgRows.txt, Python's protobuf from the schema."""
import datetime
import logging
import math
import multiprocessing
import os
import pickle
import random
import re
import struct
import subprocess
import sys
import threading

import numpy
import pytest
from hypothesis import given, settings, strategies as st

import vorlink
from conftest import ROWS

CODE = {"U08": "B", "U16": "H", "U32": "I", "S16": "h", "S32": "i", "F32": "f"}
RANGE = {"U08": (0, 255), "U16": (0, 65535), "U32": (0, 2**32 - 1), "S16": (-2**15, 2**15 - 1),
         "S32": (-2**31, 2**31 - 1)}


def read_rows():
    """(id, name, [(field, wire type, held as bool)]) of every line of the message list."""
    rows = []
    for line in open(ROWS):
        if line.strip() and not line.startswith("#"):
            id_, _, name, _, fields = line.split(None, 4)
            out = []
            for token in fields.split() if fields.strip() != "-" else []:
                m = re.match(r"(\w+?)(?:(\d+)\.\.(\d+))?:(\w{3})(=bool)?", token)
                names = [m[1]] if not m[2] else [f"{m[1]}{n}" for n in range(int(m[2]), int(m[3]) + 1)]
                out += [(n, m[4], bool(m[5])) for n in names]
            rows.append((int(id_, 16), name, out))
    return rows


ROW_LIST = read_rows()


def test_dictionary_matches_the_message_list():
    types = vorlink.messages()
    assert [(t.id, t.name) for t in types] == [(r[0], r[1]) for r in ROW_LIST] and len(types) == 474
    for t, (id_, name, fields) in zip(types, ROW_LIST):
        fmt = "<" + "".join(CODE[f[1]] for f in fields)
        assert t.wire_size == struct.calcsize(fmt) == t.dtype.itemsize
        if fields:   # the dtype reads the wire bytes
            assert numpy.frombuffer(struct.pack(fmt, *range(len(fields))), t.dtype)[0].tolist() == tuple(range(len(fields)))
        assert [(f.name, f.wire_type, f.offset, f.size) for f in t.fields] == \
            [(n, w, struct.calcsize(fmt[:i + 1]), struct.calcsize("<" + CODE[w])) for i, (n, w, _) in
             enumerate(fields)]
        assert [f.schema_type for f in t.fields] == \
            ["bool" if b else {"S": "int32", "F": "float"}.get(w[0], "uint32") for _, w, b in fields]
        assert t.enumerator.startswith("MSG_ID_") and t.proto_name == "zelko.messages." + name
    td_event = vorlink.message("TDEVENT")
    assert (td_event.payload_size, td_event.wire_size) == (20, 12)
    for key in (0x1700, "MSG_ID_TD_EVENT", "zelko.messages.tdevent", td_event, td_event.record):
        assert vorlink.message(key) is td_event
    for key in ("0x1700", "5888", "TdEventPayload"):   # as --message takes them
        assert vorlink.message(key) is td_event
    with pytest.raises(KeyError, match="nearest: AlarmStatusData, "):
        vorlink.message("AlarmStatusDat")
    with pytest.raises(KeyError, match="'Fp' names the .* messages of a node"):
        vorlink.message("Fp")
    with pytest.raises(KeyError, match="0x0001"):
        vorlink.message(1)
    for key in (0x10100, -1, 2**64):   # not cut to the low 16 bits of an id
        for call in (vorlink.message, lambda k: vorlink.decode(k, bytes(14)), lambda k: vorlink.encode(k, fill=0),
                     lambda k: vorlink.to_protobuf(k, bytes(14), time=0, sequence=0)):
            with pytest.raises(KeyError, match=f"^'{key} is no message id \\(0 to 0xFFFF\\)'$"):
                call(key)


EDGES = {"F32": [0.0, -0.0, float("inf"), float("-inf"), float("nan"), 3.4028234663852886e+38, 1e-45]}


def draw_value(rng, wire):
    """A value of the wire type: often an edge of its range, else anywhere in it."""
    if wire == "F32":
        if rng.random() < 0.3:
            return rng.choice(EDGES["F32"])
        return struct.unpack("<f", struct.pack("<f", rng.uniform(-1e6, 1e6) * 10 ** rng.randint(-30, 30) / 1e6
                                               if rng.random() < 0.5 else rng.uniform(-1e3, 1e3)))[0]
    low, high = RANGE[wire]
    return rng.choice([low, high, 0, 1]) if rng.random() < 0.3 else rng.randint(low, high)


def same(a, b):
    return type(a) is type(b) and (a == b or (isinstance(a, float) and math.isnan(a) and math.isnan(b)))


@settings(max_examples=6, deadline=None, derandomize=True)
@given(seed=st.integers(0, 2**64))
def test_every_row_decodes_encodes_and_converts(seed, pb2):
    rng = random.Random(seed)
    for id_, name, fields in ROW_LIST:
        fmt = "<" + "".join(CODE[f[1]] for f in fields)
        payload = struct.pack(fmt, *(draw_value(rng, w) for _, w, _ in fields))
        tail = rng.randbytes(rng.choice([0, 0, 1, 8]))
        expected = struct.unpack_from(fmt, payload + tail)
        record = vorlink.decode(id_, memoryview(payload + tail))
        assert type(record).__name__ == name and record.keys() == tuple(f[0] for f in fields)
        assert all(map(same, record, expected)) and record.unread == tail, name
        assert vorlink.encode(name, record) == vorlink.encode(name.upper(), **dict(record)) == payload, name

        sequence, msecs = rng.randint(0, 65535), rng.randint(-2**40, 2**40)
        proto = vorlink.to_protobuf(id_, bytearray(payload + tail), time=msecs / 1000, sequence=sequence)
        message = getattr(pb2, name).FromString(proto)
        header = message.header
        assert (header.msgId, header.sequence) == (id_, sequence - 65536 if sequence > 32767 else sequence)
        assert header.timestamp.seconds * 1000 + header.timestamp.nanos // 1000000 == msecs
        as_schema = [bool(v) if b else v for v, (_, _, b) in zip(expected, fields)]
        assert all(map(same, [getattr(message, f[0]) for f in fields], as_schema)), name
        back = vorlink.from_protobuf(name, proto)
        assert all(map(same, back, [int(v) if isinstance(v, bool) else v for v in as_schema])), name
        assert vorlink.read_header(proto)[1:] == (header.sequence, id_)


def test_worked_examples():
    payload = bytes.fromhex("02000000010000003c0000000500")
    record = vorlink.decode("AlarmStatusData", payload)
    assert record.dump() == "AlarmStatusDataPayload: alarmState=2, alarmTop=1, silenceExpiresIn=60, alarmsFlags=5"
    assert repr(record) == "AlarmStatusData(alarmState=2, alarmTop=1, silenceExpiresIn=60, alarmsFlags=5)"
    assert record["alarmsFlags"] == record.alarmsFlags == record[3] == 5
    assert vorlink.decode(0, b"xyz").dump() == "UnusedPayload: <none>"
    temps = vorlink.decode("TdRotaryPinchValveSetPosRequest", bytes.fromhex("07000000feff"))
    assert temps.dump() == "TdRotaryPinchValveSetPosRequestPayload: valve=7, stepChange=-2"
    floats = vorlink.encode("DdTemperatureData", d1Temp=1234567, d78Temp=0.1, d4Temp=-37.5, fill=0)
    assert vorlink.decode(0x2600, floats).dump().startswith(
        "DdTemperatureDataPayload: d1Temp=1.23457e+06, d78Temp=0.1, d4Temp=-37.5, d50Temp=0,")
    proto = vorlink.to_protobuf(0x1700, bytes.fromhex("09000000010000000200000" "02a00000003000000"),
                                time=datetime.datetime(2023, 11, 14, 23, 13, 20, 123000,
                                                       datetime.timezone(datetime.timedelta(hours=1))),
                                sequence=0xFFFF)
    assert proto.hex() == "0a1b0a0b0880e2cfaa0610c0a9d33a10ffffffffffffffffff0118802e100918014002"
    header = vorlink.read_header(proto)
    assert header.time == datetime.datetime(2023, 11, 14, 22, 13, 20, 123000, datetime.timezone.utc)
    assert vorlink.read_header(vorlink.to_protobuf(0, b"", time=-1.5, sequence=0)).time == \
        datetime.datetime(1969, 12, 31, 23, 59, 58, 500000, datetime.timezone.utc)


def test_records_compare_pickle_and_stay_fixed():
    a = vorlink.decode(0x0300, bytes.fromhex("07000000") + b"\x01")
    assert a == vorlink.records.AlarmCleared(7) == vorlink.records.AlarmCleared(alarmName=7) != (7,)
    assert a != vorlink.decode(0x0400, bytes.fromhex("07000000")) and hash(a) == hash(vorlink.records.AlarmCleared(7))
    assert repr(a) == "AlarmCleared(alarmName=7, unread=b'\\x01')"
    copy = pickle.loads(pickle.dumps(a))
    assert copy == a and copy.unread == b"\x01" and type(copy) is vorlink.records.AlarmCleared
    with pytest.raises(AttributeError):
        a.alarmName = 8
    with pytest.raises(KeyError, match="alarmName"):
        a["alarmname"]


def test_records_cross_a_process_pool():
    payloads = [(t.id, bytes(range(t.wire_size))) for t in vorlink.messages()[::10]]
    with multiprocessing.get_context("spawn").Pool(2) as pool:
        records = pool.starmap(vorlink.decode, payloads)
        lines = pool.map(vorlink.Record.dump, records)
    assert records == [vorlink.decode(*p) for p in payloads]
    assert lines == [r.dump() for r in records]


def test_short_payload_is_said_in_pythons_words_and_the_library_line_logged(caplog):
    caplog.set_level(logging.DEBUG, logger="vorlink")
    with pytest.raises(vorlink.PayloadTooShort) as raised:
        vorlink.decode(0x0100, bytes(13))
    assert str(raised.value) == "payload of 13 bytes is too short for AlarmStatusData (0x0100), which needs 14"
    assert isinstance(raised.value, ValueError)
    again = pickle.loads(pickle.dumps(raised.value))
    assert type(again) is vorlink.PayloadTooShort and again.args == raised.value.args
    with pytest.raises(vorlink.PayloadTooShort, match="^payload of 1 byte is too short for AlarmStatusData"):
        vorlink.to_protobuf(0x0100, b"\0", time=numpy.datetime64(0, "ms"), sequence=0)
    assert [(r.levelno, r.getMessage()) for r in caplog.records] == [
        (logging.DEBUG, "Not enough data from position 12 to the length of 2 to get data of type "
                        "'N5Bytra5Types3U16E' in buffer " + ".".join(["00"] * 13) + " for value alarmsFlags"),
        (logging.DEBUG, "Not enough data from position 0 to the length of 4 to get data of type "
                        "'N5Bytra5Types3U32E' in buffer 00 for value alarmState")]


REFUSED = [
    ("TdVersionResponse", {"major": 256}, "TdVersionResponse.major: 256 is outside the range; U08 takes 0 to 255"),
    ("AlarmStatusData", {"alarmState": -1}, "alarmState: -1 is outside the range; U32 takes 0 to 4294967295"),
    ("AlarmStatusData", {"alarmState": 2**32}, "4294967296 is outside the range; U32"),
    ("TdRotaryPinchValveSetPosRequest", {"stepChange": 40000}, "stepChange: 40000 is outside the range; S16 takes -32768 to 32767"),
    ("TdBloodPumpSetFlowRateRequest", {"flow": -2**31 - 1}, "flow: -2147483649 is outside the range; S32"),
    ("TdVersionResponse", {"build": 65536}, "build: 65536 is outside the range; U16 takes 0 to 65535"),
    ("AlarmStatusData", {"alarmTop": "1"}, "alarmTop: '1' (str) is not a number; U32 takes"),
    ("AlarmStatusData", {"alarmTop": None}, "alarmTop: None (NoneType) is not a number"),
    ("AlarmStatusData", {"alarmTop": True}, "alarmTop: True is a bool, and this field is a number"),
    ("AlarmStatusData", {"alarmTop": 2.5}, "alarmTop: 2.5 is not a whole number"),
    ("DdTemperatureData", {"d1Temp": 1e39}, "d1Temp: 1e+39 is outside the range; F32 takes"),
    ("DdTemperatureData", {"d1Temp": "warm"}, "d1Temp: 'warm' (str) is not a number"),
    ("AlarmStatusData", {"alarmstate": 1}, "AlarmStatusData has no field 'alarmstate'; the nearest are alarmState, "),
    ("TdSendTestConfiguration", {"payloadPtr": -1}, "U32 held as bool takes False, True or 0 to 4294967295"),
]


@pytest.mark.parametrize("key, fields, message", REFUSED)
def test_encode_refuses_what_the_wire_cannot_hold(key, fields, message):
    with pytest.raises(ValueError) as raised:
        vorlink.encode(key, fill=0, **fields)
    assert message in str(raised.value)


def test_encode_needs_every_field_once_and_takes_the_edges():
    with pytest.raises(ValueError, match=r"AlarmStatusData: no value for alarmTop, alarmsFlags \(give every field"):
        vorlink.encode(0x0100, alarmState=1, silenceExpiresIn=2)
    with pytest.raises(ValueError, match="alarmState is given twice"):
        vorlink.encode(0x0100, {"alarmState": 1}, alarmState=1, fill=0)
    with pytest.raises(ValueError, match="takes 4 values in wire order, not 3"):
        vorlink.encode(0x0100, [1, 2, 3])
    edges = vorlink.encode("TdRotaryPinchValveSetPosRequest", valve=2**32 - 1, stepChange=-32768)
    assert edges == struct.pack("<Ih", 2**32 - 1, -32768)
    assert vorlink.encode("TdSendTestConfiguration", payloadPtr=True) == struct.pack("<I", 1)
    assert vorlink.encode("TdVersionResponse", {"major": 255, "build": 7.0}, fill=0)[:5] == bytes([255, 0, 0, 7, 0])
    assert vorlink.encode(0x2600, fill=float("-inf"))[:4] == struct.pack("<f", float("-inf"))


def test_log_lines_reach_logging_and_not_standard_error(caplog):
    caplog.set_level(logging.DEBUG, logger="vorlink")
    vorlink.to_protobuf("DdEvent", bytes(20), time=0, sequence=0)
    worker = threading.Thread(target=lambda: pytest.raises(KeyError, vorlink.to_protobuf, 0x04A7, b"", time=0,
                                                           sequence=0))
    worker.start()
    worker.join()
    assert [(r.name, r.levelno, r.category, r.getMessage()) for r in caplog.records] == [
        ("vorlink", logging.DEBUG, "default",
         "WARNING: MsgId=DdEvent contains union/oneof field(s); protobuf serialization is partial"),
        ("vorlink", logging.DEBUG, "default", "WARNING: MsgId=0x04a7 not handled")]
    run = subprocess.run([sys.executable, "-c", "import vorlink; vorlink.to_protobuf(0x1700, bytes(20), time=0, "
                          "sequence=0); vorlink.from_protobuf('TdEvent', b'')"], capture_output=True, text=True,
                         env=dict(os.environ), check=True)
    assert run.stderr == ""


def test_the_stub_matches_the_module_and_types_records():
    env = dict(os.environ, MYPYPATH="")
    check = os.path.join(os.environ.get("TMPDIR", "/tmp"), "vorlink_typing_check.py")
    with open(check, "w") as f:
        f.write("import vorlink\nr = vorlink.decode('AlarmStatusData', b'')\nreveal_type(r.alarmState)\n"
                "reveal_type(vorlink.from_protobuf(0x2600, b'').d1Temp)\nr.alarmStat\n")
    typed = subprocess.run([sys.executable, "-m", "mypy", "--no-incremental", "--cache-dir=/dev/null", check],
                           capture_output=True, text=True, env=env)
    assert 'Revealed type is "builtins.int"' in typed.stdout and 'Revealed type is "builtins.float"' in typed.stdout
    assert '"AlarmStatusData" has no attribute "alarmStat"' in typed.stdout
    stubtest = subprocess.run([sys.executable, "-m", "mypy.stubtest", "vorlink"], capture_output=True, text=True,
                              env=env)
    assert stubtest.returncode == 0, stubtest.stdout[-3000:]


def test_readme_example_prints_what_the_readme_shows():
    root = os.path.join(os.path.dirname(__file__), "..", "..")
    readme = open(os.path.join(root, "README.md")).read()
    command = "$ PYTHONPATH=build/python /usr/bin/python3 examples/from_python.py\n"
    shown = readme.split(command, 1)[1].split("```", 1)[0]
    run = subprocess.run([sys.executable, os.path.join(root, "examples", "from_python.py")], capture_output=True,
                         text=True, check=True)
    assert run.stdout == shown
