"""Bus logs into pandas: ``vorlink.read_log`` and the ``Log`` it gives.

The log is read in C++ by the same reader as the ``vorlink`` tool, with the
GIL released; every column is a numpy array over the memory that reader
filled, one value per message in its field's own type. No Python object is
made per message or per value.
"""
import datetime as _datetime
import os as _os

from . import _vorlink

__all__ = ["read_log", "Log", "LogError"]


class LogError(ValueError):
    """A rejected line of a log read with errors="raise"."""

    def __init__(self, source, line, cause, reason):
        super().__init__(f"{source}:{line}: {reason}")
        self.source, self.line, self.cause, self.reason = source, line, cause, reason


def _span_end(value, what):
    if value is None or isinstance(value, str):
        return value
    from . import _msecs
    try:
        return _msecs(value)
    except (TypeError, ValueError) as e:
        raise type(e)(f"{what}: {e}") from None


def read_log(source, *, message=None, start=None, end=None, errors="raise"):
    """Reads a bus log into a Log of tables, one per message type.

    source   a path, "-" for standard input, or a binary file object
    message  what ``vorlink decode --message`` takes, or a list of such keys:
             an id, a message name, a MSG_ID_ enumerator, a node prefix (Td, Dd,
             Fp, Ui); None for every message
    start, end
             inclusive bounds: an aware datetime, seconds since 1970, or the
             text ``--from`` and ``--to`` take
    errors   "raise": LogError at the first bad line, naming its number and
             reason; "collect": every good line is kept and the bad ones are
             listed in ``Log.errors``
    """
    if errors not in ("raise", "collect"):
        raise ValueError(f'errors must be "raise" or "collect", not {errors!r}')
    keys = [] if message is None else [message] if isinstance(message, (str, int)) else list(message)
    keys = [f"0x{k:04X}" if isinstance(k, int) and not isinstance(k, bool) else k for k in keys]
    if source == "-":
        pass
    elif isinstance(source, (str, bytes, _os.PathLike)):
        source = _os.fsdecode(source)
    elif not hasattr(source, "readinto"):
        raise TypeError(f"source is a path, '-' or a binary file object, not {type(source).__name__}")
    log = _vorlink._read_log(source, keys, _span_end(start, "start"), _span_end(end, "end"), errors == "raise")
    if errors == "raise" and log.errors:
        line, cause, reason = log.errors[0]
        raise LogError(log.name, line, cause, reason)
    return Log(log)


class Log:
    """The messages of one bus log, by message type."""

    def __init__(self, log):
        from . import message as _message
        self._log = log
        self._tables = {}
        for id, time, sequence, fields, tally in log._tables():
            self._tables[_message(id).name] = (_message(id), time, sequence, fields, tally)

    @property
    def errors(self):
        """The rejected lines, as (line, cause, reason)."""
        return self._log.errors

    @property
    def messages(self):
        """The names of the message types present, in id order."""
        return list(self._tables)

    def table(self, key):
        """One message type's messages as a DataFrame: time (UTC), sequence, then one column
        per field in its own dtype. A type with no messages in the log gives an empty table."""
        from . import message as _message
        kind = _message(key)
        entry = self._tables.get(kind.name)
        if entry is None:
            return _empty(kind)
        return _frame(*entry[:4])

    def tables(self):
        """A DataFrame per message type present, by name, in id order."""
        return {name: _frame(*entry[:4]) for name, entry in self._tables.items()}

    def long(self):
        """Every field of every message as one row: time, message, field, value (float64, which
        holds every wire value exactly)."""
        import numpy
        import pandas
        times, messages, fields, values = [], [], [], []
        names, field_codes = list(self._tables), {}
        for m, (kind, time, _, columns, _) in enumerate(self._tables.values()):
            for f, column in zip(kind.fields, columns):
                times.append(time)
                messages.append(numpy.full(len(time), m, numpy.int32))
                fields.append(numpy.full(len(time), field_codes.setdefault(f.name, len(field_codes)), numpy.int32))
                values.append(column.astype(numpy.float64))
        if not times:
            return pandas.DataFrame({"time": _utc(numpy.empty(0, numpy.int64)),
                                     "message": pandas.Categorical([]), "field": pandas.Categorical([]),
                                     "value": numpy.empty(0)})
        order = numpy.argsort(numpy.concatenate(times), kind="stable")
        return pandas.DataFrame({
            "time": _utc(numpy.concatenate(times)[order]),
            "message": pandas.Categorical.from_codes(numpy.concatenate(messages)[order], names),
            "field": pandas.Categorical.from_codes(numpy.concatenate(fields)[order], list(field_codes)),
            "value": numpy.concatenate(values)[order]}, copy=False)

    def stats(self):
        """What ``vorlink stats`` prints: per message type its id, name, count, first and last
        time, mean rate in Hz, payload bytes and the count of messages with unread bytes."""
        import numpy
        import pandas
        rows = [(kind.id, kind.name, *tally) for kind, _, _, _, tally in self._tables.values()]
        frame = pandas.DataFrame(rows, columns=["id", "message", "count", "first", "last", "bytes", "unread",
                                                "rate_hz"])
        for column in ("first", "last"):
            frame[column] = _utc(frame[column].to_numpy(numpy.int64) * 1_000_000)
        frame["rate_hz"] = frame["rate_hz"].astype(numpy.float64)
        return frame[["id", "message", "count", "first", "last", "rate_hz", "bytes", "unread"]]

    def __repr__(self):
        return (f"<vorlink.Log {self._log.name}: {self._log.messages} messages of {len(self._tables)} types, "
                f"{len(self._log.errors)} lines rejected>")


def _frame(kind, time, sequence, fields):
    import pandas
    columns = {"time": _utc(time), "sequence": sequence}
    columns.update(zip((f.name for f in kind.fields), fields))
    return pandas.DataFrame(columns, copy=False)


def _utc(nanoseconds):
    import pandas
    return pandas.arrays.DatetimeArray(nanoseconds.view("M8[ns]"), dtype=pandas.DatetimeTZDtype(tz="UTC"), copy=False)


def _empty(kind):
    import numpy
    import pandas
    columns = {"time": _utc(numpy.empty(0, numpy.int64)), "sequence": numpy.empty(0, numpy.uint16)}
    columns.update((f.name, numpy.empty(0, kind.dtype[f.name])) for f in kind.fields)
    return pandas.DataFrame(columns, copy=False)
