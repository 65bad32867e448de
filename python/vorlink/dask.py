"""A fleet's bus logs as one Dask DataFrame: ``vorlink.dask.read_logs``.

One partition per file, each read by ``vorlink.read_log`` in a worker; the
frame's meta is exact before anything is read, and only the columns a
computation uses are handed on from the workers. A file that is not a log is
an error, never an empty partition.
"""
import glob as _glob
import os as _os

__all__ = ["read_logs"]


def _read(path, message, start, end, errors):
    """One file's log, read with the selection; a file without a single log line is a LogError
    in either mode."""
    from .logs import LogError, read_log
    log = read_log(path, message=message, start=start, end=end, errors=errors)
    messages, left_out, lines = log._counts
    if messages + left_out == 0:
        first = log.errors[0] if log.errors else None
        raise LogError(log.name, first[0] if first else lines,
                       "not a log", "no line is a bus-log message" + (f" ({first[2]})" if first else
                                                                      " (the file is empty)" if lines == 0 else ""))
    return log


class _ReadPartition:
    """Reads one file's table of one message type: a callable that Dask can
    narrow to the columns a graph needs, and that pickles for process workers."""

    def __init__(self, message, columns, path_column, start=None, end=None, errors="raise"):
        self.message, self._columns, self.path_column = message, columns, path_column
        self.start, self.end, self.errors = start, end, errors

    @property
    def columns(self):
        return self._columns

    def project_columns(self, columns):
        if columns == self._columns:
            return self
        return _ReadPartition(self.message, list(columns), self.path_column, self.start, self.end, self.errors)

    def __call__(self, path):
        import pandas
        frame = _read(path, self.message, self.start, self.end, self.errors).table(self.message)
        if self.path_column:
            frame[self.path_column] = pandas.Series([path] * len(frame), index=frame.index, dtype=object)
        return frame[self._columns]


class _ReadRejected:
    """Reads one file's rejected lines: path, line, cause, reason."""

    def __init__(self, message, start, end):
        self.message, self.start, self.end = message, start, end

    def __call__(self, path):
        import pandas
        errors = _read(path, self.message, self.start, self.end, "collect").errors
        return pandas.DataFrame({"path": pandas.Series([path] * len(errors), dtype=object),
                                 "line": pandas.Series([e[0] for e in errors], dtype="int64"),
                                 "cause": pandas.Series([e[1] for e in errors], dtype=object),
                                 "reason": pandas.Series([e[2] for e in errors], dtype=object)})


def _paths(paths):
    if isinstance(paths, (str, _os.PathLike)):
        paths = [_os.fspath(paths)]
    found = []
    for p in paths:
        p = _os.fspath(p)
        if _os.path.isdir(p):
            found += sorted(q for q in _glob.glob(_os.path.join(p, "*")) if _os.path.isfile(q))
        elif any(c in p for c in "*?["):
            found += sorted(_glob.glob(p))
        else:
            found.append(p)
    if not found:
        raise FileNotFoundError(f"no log files in {paths!r}")
    return found


def read_logs(paths, message, columns=None, *, include_path_column=False, start=None, end=None, errors="raise"):
    """One message type of many bus logs as a ``dask.dataframe.DataFrame``.

    paths    a file, a folder (its files), a glob pattern, or a list of these
    message  one message type: what ``vorlink.message`` takes
    columns  the columns to keep (time, sequence, field names); all by default
    include_path_column
             True or a column name ("path" for True): a column with each row's
             file, for grouping by machine
    start, end
             inclusive bounds, the times ``read_log`` takes; each partition
             keeps only the messages of its file in that window
    errors   "raise" (the default): computing raises vorlink.LogError at a
             file's first rejected line, naming file and line. "collect": the
             result is a pair (frame, rejected): the good lines, and a Dask
             DataFrame of the rejected lines (path, line, cause, reason), one
             partition per file, which reads the files again when computed.

    A file with no bus-log line at all (a note, an empty file) raises LogError
    in either mode.
    """
    import io
    import pandas
    import dask.dataframe as dd
    from . import message as _message
    from .logs import _empty, read_log
    if errors not in ("raise", "collect"):
        raise ValueError(f'errors must be "raise" or "collect", not {errors!r}')
    kind = _message(message)
    read_log(io.BytesIO(b""), message=kind.name, start=start, end=end)   # the window's times, checked here
    files = _paths(paths)
    path_column = "path" if include_path_column is True else include_path_column or None
    meta = _empty(kind)
    if path_column:
        meta[path_column] = pandas.Series([], dtype=object)
    if columns is None:
        columns = list(meta.columns)
    else:
        columns = list(columns)
        if path_column and path_column not in columns:
            columns.append(path_column)
        unknown = [c for c in columns if c not in meta.columns]
        if unknown:
            raise KeyError(f"{kind.name} has no column {unknown[0]!r}; it has {', '.join(meta.columns)}")
    frame = dd.from_map(_ReadPartition(kind.name, columns, path_column, start, end, errors), files,
                        meta=meta[columns], label=f"read-vorlink-{kind.name}", enforce_metadata=False)
    if errors == "raise":
        return frame
    rejected_meta = pandas.DataFrame({"path": pandas.Series([], dtype=object), "line": pandas.Series([], dtype="int64"),
                                      "cause": pandas.Series([], dtype=object),
                                      "reason": pandas.Series([], dtype=object)})
    rejected = dd.from_map(_ReadRejected(kind.name, start, end), files, meta=rejected_meta,
                           label=f"rejected-vorlink-{kind.name}", enforce_metadata=False)
    return frame, rejected
