"""Vorlink from Python: the message dictionary of the machine's CAN bus, its
records, and the protobuf bridge, through the library libVorlink.so.1.

    >>> import vorlink
    >>> vorlink.message("AlarmStatusData").wire_size
    14
    >>> vorlink.decode(0x0100, bytes.fromhex("02000000010000003c0000000500"))
    AlarmStatusData(alarmState=2, alarmTop=1, silenceExpiresIn=60, alarmsFlags=5)

A key names a message by id (int), message name, MSG_ID_ enumerator or schema
name, in any case. The library's log lines go to the logger ``vorlink``.
"""
import datetime as _datetime
import decimal as _decimal
import logging as _logging
import numbers as _numbers
import operator as _operator
from typing import NamedTuple as _NamedTuple

from . import _vorlink, records
from ._vorlink import decode, encode
from .records import Record

__version__ = "1.0.0"
__all__ = ["decode", "encode", "to_protobuf", "from_protobuf", "read_header", "message", "messages",
           "read_log", "Log", "LogError",
           "MessageType", "Field", "Envelope", "Record", "PayloadTooShort", "records", "logger"]

logger = _logging.getLogger("vorlink")


class PayloadTooShort(ValueError):
    """A payload shorter than its record: the message names it, the bytes it needs and the bytes it got."""


class Field(_NamedTuple):
    """One field of a record's wire form."""
    name: str
    wire_type: str      # "U08", "U16", "U32", "S16", "S32" or "F32"
    offset: int         # byte position on the wire
    size: int           # bytes on the wire
    schema_type: str    # "uint32", "int32", "float" or "bool"


class MessageType:
    """One message of the dictionary."""
    __slots__ = ("_id", "_name", "_enumerator", "_proto_name", "_payload_size", "_wire_size", "_fields",
                 "_record", "_dtype")


    id = property(lambda self: self._id, doc="The message id, 0 to 0xFFFF.")
    name = property(lambda self: self._name, doc="The message name, e.g. AlarmStatusData.")
    enumerator = property(lambda self: self._enumerator, doc="The MSG_ID_ enumerator.")
    proto_name = property(lambda self: self._proto_name, doc="The schema message, zelko.messages.<name>.")
    payload_size = property(lambda self: self._payload_size, doc="Bytes a message of this id carries.")
    wire_size = property(lambda self: self._wire_size, doc="Bytes its record reads and writes.")
    fields = property(lambda self: self._fields, doc="The record's fields in wire order.")
    record = property(lambda self: self._record, doc="The record class (in vorlink.records).")

    @property
    def dtype(self):
        """The packed little-endian numpy dtype of the record's wire form."""
        if self._dtype is None:
            import numpy
            kinds = {"U08": "<u1", "U16": "<u2", "U32": "<u4", "S16": "<i2", "S32": "<i4", "F32": "<f4"}
            self._dtype = numpy.dtype({"names": [f.name for f in self._fields],
                                       "formats": [kinds[f.wire_type] for f in self._fields],
                                       "offsets": [f.offset for f in self._fields],
                                       "itemsize": self._wire_size})
        return self._dtype

    def __repr__(self):
        return f"<vorlink.MessageType 0x{self._id:04X} {self._name}, {self._wire_size} bytes>"

    def __reduce__(self):
        return message, (self._id,)


class Envelope(_NamedTuple):
    """The Header of a schema message."""
    time: "_datetime.datetime | None"   # None when the header carries no timestamp
    sequence: int
    msg_id: int


def _message_type(id, enumerator, name, proto_name, payload_size, wire_size, fields):
    t = object.__new__(MessageType)
    t._id, t._enumerator, t._name, t._proto_name = id, enumerator, name, proto_name
    t._payload_size, t._wire_size = payload_size, wire_size
    t._fields = tuple(Field(*f) for f in fields)
    t._record = t._dtype = None
    return t


_types = [_message_type(*row) for row in _vorlink._table()]
_names = {}
for _t in _types:
    _t._record = records._make(_t)
    for _n in (_t.name, _t.enumerator, _t.proto_name):
        _names[_n.lower()] = _t
del _t, _n


def _resolve(key):
    """The row index of a key that is not met yet: any case, numpy integers, a MessageType."""
    if isinstance(key, MessageType):
        return _types.index(key)
    if isinstance(key, str):
        found = _names.get(key.lower())
        if found is not None:
            index = _types.index(found)
        else:
            # The tool's --message vocabulary, read by the log library: ids as
            # text, ...Payload names, and the nearest names when none fits.
            ids = _vorlink._message_ids(key)
            if len(ids) != 1:
                raise KeyError(f"{key!r} names the {len(ids)} messages of a node; give one of them")
            index = _index_of_id(ids[0])
        _keys[key] = index
        return index
    if isinstance(key, bool) or not hasattr(key, "__index__"):
        raise TypeError(f"a message key is an id (int) or a name (str), not {type(key).__name__}")
    id = _operator.index(key)
    index = _index_of_id(id)
    if index is None:
        raise KeyError(f"no message has the id {id:#06x}" if 0 <= id <= 0xFFFF else f"{id} is no message id (0 to 0xFFFF)")
    return index


def _index_of_id(id):
    for index, t in enumerate(_types):
        if t.id == id:
            return index
    return None


_keys = _vorlink._register([t.record for t in _types], _resolve, records._nearest, PayloadTooShort)


def _log(level, category, text):
    if logger.isEnabledFor(level):
        logger.log(level, "%s", text, extra={"category": category})


_vorlink._install_log_handler(_log)


def messages():
    """All message types of the dictionary, in id order."""
    return list(_types)


def message(key):
    """The message type of `key`: an id (int), or text as ``vorlink --message`` takes it for one
    message: an id in hexadecimal (0x0100) or decimal, a message name, its ...Payload name, a
    MSG_ID_ enumerator or a schema name, in any case. KeyError names the three nearest names."""
    return _types[_vorlink._find(key)]


def _nanos(time):
    """Nanoseconds since 1970 of a time given as an aware datetime, a pandas Timestamp or a
    numpy.datetime64 (both read as UTC when they carry no zone), or seconds since 1970."""
    if isinstance(time, _datetime.datetime):
        if hasattr(time, "to_datetime64"):       # a pandas Timestamp: its value is UTC nanoseconds
            if time != time:
                raise ValueError("time is NaT, not a time")
            return int(time.value)
        if time.tzinfo is None or time.utcoffset() is None:
            raise ValueError(f"time {time.isoformat()} has no time zone: give an aware datetime "
                             f"(e.g. tzinfo=datetime.timezone.utc) or seconds since 1970")
        return (time - _EPOCH) // _datetime.timedelta(microseconds=1) * 1000
    if type(time).__name__ == "datetime64" and type(time).__module__ == "numpy":
        import numpy
        if numpy.isnat(time):
            raise ValueError("time is NaT, not a time")
        unit, count = numpy.datetime_data(time.dtype)
        if unit in ("Y", "M"):
            time, unit, count = time.astype("datetime64[D]"), "D", 1
        value = int(time.astype(numpy.int64)) * count
        per = {"W": 604800 * 10**9, "D": 86400 * 10**9, "h": 3600 * 10**9, "m": 60 * 10**9, "s": 10**9,
               "ms": 10**6, "us": 10**3, "ns": 1}
        return value * per[unit] if unit in per else value // {"ps": 10**3, "fs": 10**6, "as": 10**9}[unit]
    if isinstance(time, _decimal.Decimal) and time.is_finite():
        return int((time * 10**9).to_integral_value(_decimal.ROUND_HALF_EVEN))
    if isinstance(time, (bool, str, bytes)) or not isinstance(time, _numbers.Real):
        raise TypeError(f"time is an aware datetime, a pandas Timestamp, a numpy.datetime64 or seconds since "
                        f"1970, not {type(time).__name__}") from None
    if hasattr(time, "__index__"):
        return _operator.index(time) * 10**9
    seconds = float(time)
    if seconds != seconds or seconds in (float("inf"), float("-inf")):
        raise ValueError(f"time {time!r} is not a time")
    # The decimals as written (the float's shortest form), not its binary fraction.
    return int((_decimal.Decimal(repr(seconds)) * 10**9).to_integral_value(_decimal.ROUND_HALF_EVEN))


def _msecs(time):
    """Milliseconds since 1970: the nanoseconds of `_nanos`, the digits past the millisecond cut."""
    return _nanos(time) // 10**6


_EPOCH = _datetime.datetime(1970, 1, 1, tzinfo=_datetime.timezone.utc)


def to_protobuf(key, payload, *, time, sequence):
    """The library's canMessageToProtobufByteArray: the message `key` with `payload`, as its
    schema message's protobuf bytes with a Header of `time` (an aware datetime or seconds
    since 1970, to the millisecond) and `sequence` (0 to 65535, or -32768 to -1)."""
    if isinstance(sequence, bool) or not hasattr(sequence, "__index__"):
        raise TypeError(f"sequence is an int, not {type(sequence).__name__}")
    return _vorlink._to_protobuf(key, payload, _msecs(time), _operator.index(sequence))


def from_protobuf(key, data):
    """The record of `key` read from its schema message's bytes (deserializeProto)."""
    return _vorlink._from_protobuf(key, data)


def read_header(data):
    """The Header of any schema message's bytes, read as an Envelope."""
    has_time, seconds, nanos, sequence, msg_id = _vorlink._read_header(data)
    time = _EPOCH + _datetime.timedelta(seconds=seconds, microseconds=nanos // 1000) if has_time else None
    return Envelope(time, sequence, msg_id)


from .logs import Log, LogError, read_log  # noqa: E402  (needs message() above)
