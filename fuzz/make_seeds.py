#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets from the bus's worked examples.

The seeds are committed; run this again only when the input layout of a
target changes:  fuzz/make_seeds.py fuzz/corpus
"""
import os
import struct
import sys

ROWS = os.path.join(os.path.dirname(__file__), "..", "lib", "Vorlink", "src", "ZelkoMsgRows.txt")


def row_index():
    """Row position by id, in the order of zelko::AllRows (the rows file's)."""
    ids = []
    with open(ROWS) as f:
        for line in f:
            if line.strip() and not line.startswith("#"):
                ids.append(int(line.split()[0], 16))
    return {i: n for n, i in enumerate(ids)}


def h(text):
    return bytes.fromhex(text.replace(" ", ""))


T0 = 1700000000123
ALARM_STATUS = h("02 00 00 00 01 00 00 00 3C 00 00 00 05 00")
TD_EVENT = h("09 00 00 00 01 00 00 00 02 00 00 00 2A 00 00 00 03 00 00 00")


def can(msg_id, seq, ms, payload):
    return struct.pack("<HHq", msg_id, seq, ms) + payload


def main(out):
    idx = row_index()
    seeds = {
        "can_conversion": {
            "alarm_status": can(0x0100, 7, T0, ALARM_STATUS),
            "alarm_status_short": can(0x0100, 7, T0, ALARM_STATUS[:13]),
            "alarm_status_long": can(0x0100, 7, T0, ALARM_STATUS + bytes(6)),
            "alarm_status_empty": can(0x0100, 7, T0, b""),
            "td_event": can(0x1700, 0xFFFF, T0, TD_EVENT),
            "unused": can(0x0000, 0, 0, b""),
            "ack": can(0xFFFF, 1, -1500, b"\x01\x02"),
            "unknown_0001": can(0x0001, 0, T0, bytes(8)),
            "unknown_04a7": can(0x04A7, 3, T0, ALARM_STATUS),
            "safety_shutdown": can(0x42A0, 2, T0, struct.pack("<II", 7, 0)),
            "treatment_params": can(0x0A00, 9, T0, bytes(range(48))),
        },
        "proto_record": {
            "alarm_status": struct.pack("<H", idx[0x0100])
            + h("0A 12 0A 0B 08 80 E2 CF AA 06 10 C0 A9 D3 3A 10 07 18 80 02 10 02 18 01 20 3C 28 05"),
            "alarm_status_empty": struct.pack("<H", idx[0x0100]),
            "td_event": struct.pack("<H", idx[0x1700])
            + h("0A 1B 0A 0B 08 80 E2 CF AA 06 10 C0 A9 D3 3A 10 FF FF FF FF FF FF FF FF FF 01 18 80 2E 10 09 18 01 40 02"),
            "td_event_oneof": struct.pack("<H", idx[0x1700]) + h("10 09 28 2A 40 02 55 00 00 80 3F"),
            "unused": struct.pack("<H", idx[0x0000]) + h("0A 02 0A 00"),
            "safety_shutdown_reset": struct.pack("<H", idx[0x42A0]) + h("10 01"),
            "u08_wide": struct.pack("<H", idx[0x0700]) + h("40 AC 02 30 05"),
            "not_protobuf": struct.pack("<H", idx[0x0100]) + h("FF FF FF"),
        },
        "buslog_line": {
            "alarm_status": b"1700000000.123 7 0x0100 02000000010000003C0000000500",
            "td_event": b"1700000000.123\t65535\t1700\t090000000100000002000000\t2a00000003000000",
            "no_payload": b"0.5 0 0 -  # Unused",
            "comment": b"   # a comment",
            "odd_digits": b"1 2 3 abc",
            "crlf": b"253402300799.999 65535 ffff 00\r",
        },
        "json_line": {
            "alarm_status": b'{"header":{"timestamp":"2023-11-14T22:13:20.123Z","sequence":-1,"msgId":256},'
            b'"alarmState":2,"alarmTop":1,"silenceExpiresIn":60,"alarmsFlags":5}',
            "bool_field": b'{"header":{"msgId":512},"almClrTopOnly":true,"alarm":3}',
            "td_event_oneof": b'{"header":{"msgId":5888},"event":9,"dataType1":1,"data1Uint32":42,"dataType2":2}',
            "float_field": b'{"header":{"msgId":1920,"sequence":3},"reset":1,"state":"NaN","index":2}',
            "unknown_id": b'{"header":{"msgId":1}}',
            "blank": b" \t ",
        },
    }
    for target, files in seeds.items():
        d = os.path.join(out, target)
        os.makedirs(d, exist_ok=True)
        for name, data in files.items():
            with open(os.path.join(d, name), "wb") as f:
                f.write(data)


if __name__ == "__main__":
    main(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "corpus"))
