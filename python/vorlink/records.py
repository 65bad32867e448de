"""The record classes: one per message of the dictionary, named after it.

A record is a tuple of the message's field values in wire order; each field
is also an attribute, and the record reads as a mapping of field names.
``vorlink.decode`` and ``vorlink.from_protobuf`` make them; a script may also
make one by hand, e.g. ``AlarmStatusData(alarmState=2, alarmTop=1,
silenceExpiresIn=60, alarmsFlags=5)``, and encode it with ``vorlink.encode``.
"""
from collections import _tuplegetter  # namedtuple's field accessor

from . import _vorlink

__all__ = ["Record"]


class Record(tuple):
    """Base of every record class."""

    # The payload bytes behind the record, when the payload was longer.
    unread = b""
    _fields = ()
    _index = {}
    message_type = None

    def __new__(cls, *values, **fields):
        if fields:
            if values:
                raise TypeError(f"{cls.__name__}() takes its values by position or by name, not both")
            unknown = set(fields) - set(cls._index)
            if unknown:
                raise ValueError(f"{cls.__name__} has no field {sorted(unknown)[0]!r}; the nearest are "
                                 f"{_nearest(sorted(unknown)[0], cls._fields)}")
            missing = [n for n in cls._fields if n not in fields]
            if missing:
                raise ValueError(f"{cls.__name__}: no value for {', '.join(missing)}")
            values = tuple(fields[n] for n in cls._fields)
        elif len(values) != len(cls._fields):
            raise ValueError(f"{cls.__name__} takes {len(cls._fields)} values in wire order, not {len(values)}")
        return tuple.__new__(cls, values)

    def __getitem__(self, key):
        if key.__class__ is str:
            try:
                key = self._index[key]
            except KeyError:
                raise KeyError(f"{type(self).__name__} has no field {key!r}; the nearest are "
                               f"{_nearest(key, self._fields)}") from None
        return tuple.__getitem__(self, key)

    def keys(self):
        return self._fields

    def items(self):
        return zip(self._fields, self)

    def __eq__(self, other):
        return type(other) is type(self) and tuple.__eq__(self, other)

    def __ne__(self, other):
        return not self.__eq__(other)

    def __hash__(self):
        return hash((type(self).__name__, tuple(self)))

    def __setattr__(self, name, value):
        raise AttributeError(f"{type(self).__name__} is a record: its fields cannot be set "
                             f"(make a new one, or encode with changed values)")

    def __delattr__(self, name):
        self.__setattr__(name, None)

    def __repr__(self):
        body = ", ".join(f"{n}={v!r}" for n, v in zip(self._fields, self))
        tail = f", unread={self.unread!r}" if self.unread else ""
        return f"{type(self).__name__}({body}){tail}" if not tail else f"{type(self).__name__}({body}{tail})"

    def __reduce__(self):
        return _rebuild, (type(self), tuple(self), self.unread)

    def dump(self):
        """The library's dump line of this record (its ``dump()``)."""
        return _vorlink._dump(self)


def _rebuild(cls, values, unread):
    record = tuple.__new__(cls, values)
    if unread:
        object.__setattr__(record, "unread", unread)
    return record


def _nearest(word, names):
    import difflib
    lowered = {n.lower(): n for n in names}
    close = difflib.get_close_matches(word.lower(), list(lowered), n=3, cutoff=0.0)
    return ", ".join(lowered[c] for c in close) or "(none)"


def _make(message_type):
    """The record class of one message type."""
    names = tuple(f.name for f in message_type.fields)
    namespace = {
        "__slots__": (),
        "__module__": __name__,
        "__qualname__": message_type.name,
        "__doc__": f"Record of {message_type.enumerator} (0x{message_type.id:04X}): "
                   f"{', '.join(f'{f.name} {f.wire_type}' for f in message_type.fields) or 'no fields'}.",
        "_fields": names,
        "_index": {n: i for i, n in enumerate(names)},
        "message_type": message_type,
    }
    for i, f in enumerate(message_type.fields):
        namespace[f.name] = _tuplegetter(i, f"{f.wire_type} at byte {f.offset}")
    cls = type(message_type.name, (Record,), namespace)
    globals()[message_type.name] = cls
    __all__.append(message_type.name)
    return cls
