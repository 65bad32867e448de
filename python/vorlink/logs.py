"""Bus logs into pandas: ``vorlink.read_log`` and the ``Log`` it gives.

The log is read in C++ by the same reader as the ``vorlink`` tool, with the
GIL released, into one column per field in its field's own type; no Python
object is made per message or per value. The Log keeps those columns
read-only; every frame it hands out holds its own copy, the caller's to change.
"""
import collections.abc as _abc
import numbers as _numbers
import os as _os
import stat as _stat

from . import _vorlink

__all__ = ["read_log", "Log", "LogError"]


class LogError(ValueError):
    """A rejected line of a log: the file (source), its line number, the kind of fault (cause) and
    what is wrong (reason)."""

    def __init__(self, source, line, cause, reason):
        super().__init__(f"{source}:{line}: {reason}")
        self.source, self.line, self.cause, self.reason = source, line, cause, reason

    def __reduce__(self):
        return type(self), (self.source, self.line, self.cause, self.reason)


def _span_end(value, what):
    """None, the text --from and --to take, or (milliseconds, nanoseconds past them)."""
    if value is None or isinstance(value, str):
        return value
    from . import _nanos
    try:
        nanos = _nanos(value)
    except (TypeError, ValueError) as e:
        raise type(e)(f"{what}: {e}") from None
    return divmod(nanos, 10**6)


def _key_texts(message):
    """A key or keys of a selection as the log reader takes them: text as --message takes it, and
    anything else that names one message (an id, a numpy integer, a MessageType, a record
    class) as its id."""
    from . import MessageType, message as _message
    if message is None:
        return []
    single = isinstance(message, (str, MessageType, type, _numbers.Integral))
    keys = [message] if single else message
    try:
        keys = list(keys)
    except TypeError:
        raise TypeError(f"message is a key or a list of keys, not {type(message).__name__}") from None
    return [k if isinstance(k, str) else f"0x{_message(k).id:04X}" for k in keys]


def read_log(source, *, message=None, start=None, end=None, errors="raise", progress=False):
    """Reads a bus log into a Log of tables, one per message type.

    source   a path, "-" for standard input, or a binary file object
    message  what ``vorlink decode --message`` takes, or a list of such keys:
             an id, a message name, a MSG_ID_ enumerator, a node prefix (Td, Dd,
             Fp, Ui), a MessageType or record class; None for every message
    start, end
             inclusive bounds, to the nanosecond: an aware datetime, a pandas
             Timestamp or numpy.datetime64 (UTC when they carry no zone),
             seconds since 1970, or the text ``--from`` and ``--to`` take
    errors   "raise": LogError at the first bad line, naming its number and
             reason; "collect": every good line is kept and the bad ones are
             listed in ``Log.errors``
    progress True: a progress bar (tqdm) on standard error while a read
             lasts longer than a second
    """
    if errors not in ("raise", "collect"):
        raise ValueError(f'errors must be "raise" or "collect", not {errors!r}')
    keys = _key_texts(message)
    if source == "-":
        pass
    elif isinstance(source, (str, bytes, _os.PathLike)):
        source = _os.fsdecode(source)
    elif not hasattr(source, "readinto"):
        raise TypeError(f"source is a path, '-' or a binary file object, not {type(source).__name__}")
    span = _span_end(start, "start"), _span_end(end, "end")
    bar = _progress_bar(source) if progress else None
    try:
        log = _vorlink._read_log(source, keys, *span, errors == "raise",
                                 None if bar is None else lambda n: bar.update(n - bar.n))
    finally:
        if bar is not None:
            bar.close()
    if errors == "raise" and log.errors:
        line, cause, reason = log.errors[0]
        raise LogError(log.name, line, cause, reason)
    selected = None
    if keys:
        selected = frozenset(i for k in keys for i in _vorlink._message_ids(k))
    described = ", ".join(f"{k}={v!r}" for k, v in (("message", message), ("start", start), ("end", end))
                          if v is not None)
    tables = {}
    from . import message as _message
    for id, time, sequence, fields, ends, data, tally in log._tables():
        kind = _message(id)
        tables[kind.name] = (kind, time, sequence, fields, ends, data, tally)
    counts = (log.messages, log.left_out, log.lines)
    made = Log._make(log.name, tables, log.errors, counts, selected, described)
    made._bytes = (log.value_bytes, log.held_bytes)   # the columns' values and their buffers, for benchmarks
    return made


def _progress_bar(source):
    import tqdm
    total = name = None
    if isinstance(source, str) and source != "-":
        name = _os.path.basename(source)
        try:
            info = _os.stat(source)
            total = info.st_size if _stat.S_ISREG(info.st_mode) else None
        except OSError:
            pass
    return tqdm.tqdm(total=total, desc=name, unit="B", unit_scale=True, unit_divisor=1024, delay=1.0)


class Log:
    """The messages of one bus log, as a mapping of message name to DataFrame: ``len``, iteration
    and ``in`` cover the types present; ``log[key]`` is ``log.table(key)``, by any key."""

    @classmethod
    def _make(cls, name, tables, errors, counts, selected, described):
        log = cls.__new__(cls)
        log._name, log._tables, log._errors = name, tables, list(errors)
        log._counts, log._selected, log._described = tuple(counts), selected, described
        return log

    def __reduce__(self):
        # As its columns: numpy pickles each array, and the copy it reads back is the new Log's own.
        tables = [(kind.id, *rest) for kind, *rest in self._tables.values()]
        return _restore, (self._name, tables, self._errors, self._counts, self._selected, self._described)

    @property
    def name(self):
        """The file read ("<stdin>" for standard input)."""
        return self._name

    @property
    def errors(self):
        """The rejected lines, as (line, cause, reason)."""
        return list(self._errors)

    @property
    def messages(self):
        """The names of the message types present, in id order."""
        return list(self._tables)

    def table(self, key):
        """One message type's messages as a new DataFrame, the caller's own: time (UTC), sequence,
        one column per field in its own dtype, and unread (bytes) for a message whose payload is
        longer than its record. A type selected but absent gives an empty table of those dtypes; a
        type the selection left out raises KeyError."""
        from . import message as _message
        kind = _message(key)
        entry = self._tables.get(kind.name)
        if entry is not None:
            return _frame(*entry[:6])
        if self._selected is not None and kind.id not in self._selected:
            raise KeyError(f"{kind.name} was left out by the selection ({self._described}); "
                           f"read the log with it selected")
        return _empty(kind)

    def tables(self):
        """A new DataFrame per message type present, by name, in id order."""
        return {name: _frame(*entry[:6]) for name, entry in self._tables.items()}

    def long(self):
        """Every field of every message as one row: time, message, field, value (float64, which
        holds every wire value exactly)."""
        import numpy
        import pandas
        times, messages, fields, values = [], [], [], []
        names, field_codes = list(self._tables), {}
        for m, (kind, time, _, columns, *_) in enumerate(self._tables.values()):
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
        rows = [(kind.id, kind.name, *entry[-1]) for kind, *entry in self._tables.values()]
        frame = pandas.DataFrame(rows, columns=["id", "message", "count", "first", "last", "bytes", "unread",
                                                "rate_hz"])
        for column in ("first", "last"):
            frame[column] = _utc(frame[column].to_numpy(numpy.int64))
        frame["rate_hz"] = frame["rate_hz"].astype(numpy.float64)
        return frame[["id", "message", "count", "first", "last", "rate_hz", "bytes", "unread"]]

    # The mapping of message name to frame.
    def __len__(self):
        return len(self._tables)

    def __iter__(self):
        return iter(list(self._tables))

    def __contains__(self, key):
        from . import message as _message
        try:
            return _message(key).name in self._tables
        except (KeyError, TypeError):
            return False

    def __getitem__(self, key):
        return self.table(key)

    def keys(self):
        return _abc.KeysView(self)

    def items(self):
        return _abc.ItemsView(self)

    def values(self):
        return _abc.ValuesView(self)

    def get(self, key, default=None):
        return self[key] if key in self else default

    def __repr__(self):
        return (f"<vorlink.Log {self._name}: {self._counts[0]} messages of {len(self._tables)} types, "
                f"{len(self._errors)} lines rejected>")


_abc.Mapping.register(Log)


def _restore(name, tables, errors, counts, selected, described):
    from . import message as _message
    return Log._make(name, {_message(id).name: (_message(id), *rest) for id, *rest in tables}, errors, counts,
                     selected, described)


def _frame(kind, time, sequence, fields, ends, data):
    import pandas
    columns = {"time": _utc(time.copy()), "sequence": sequence.copy()}
    columns.update(zip((f.name for f in kind.fields), (f.copy() for f in fields)))
    if ends is not None:
        columns["unread"] = _vorlink._bytes_column(ends, data)
    return pandas.DataFrame(columns, copy=False)


def _utc(nanoseconds):
    import pandas
    return pandas.arrays.DatetimeArray(nanoseconds.view("M8[ns]"), dtype=pandas.DatetimeTZDtype(tz="UTC"), copy=False)


def _empty(kind):
    import numpy
    import pandas
    columns = {"time": _utc(numpy.empty(0, numpy.int64)), "sequence": numpy.empty(0, numpy.uint16)}
    columns.update((f.name, numpy.empty(0, kind.dtype[f.name])) for f in kind.fields)
    if kind.payload_size > kind.wire_size:
        columns["unread"] = numpy.empty(0, object)
    return pandas.DataFrame(columns, copy=False)
