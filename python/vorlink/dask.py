"""A fleet's bus logs as one Dask DataFrame: ``vorlink.dask.read_logs``.

One partition per file, each read by ``vorlink.read_log`` in a worker; the
frame's meta is exact before anything is read, and only the columns a
computation uses are handed on from the workers.
"""
import glob as _glob
import os as _os

__all__ = ["read_logs"]


class _ReadPartition:
    """Reads one file's table of one message type: a callable that Dask can
    narrow to the columns a graph needs, and that pickles for process workers."""

    def __init__(self, message, columns, path_column):
        self.message, self._columns, self.path_column = message, columns, path_column

    @property
    def columns(self):
        return self._columns

    def project_columns(self, columns):
        return self if columns == self._columns else _ReadPartition(self.message, list(columns), self.path_column)

    def __call__(self, path):
        import pandas
        from .logs import read_log
        frame = read_log(path, message=self.message, errors="collect").table(self.message)
        if self.path_column:
            frame[self.path_column] = pandas.Series([path] * len(frame), index=frame.index, dtype=object)
        return frame[self._columns]


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


def read_logs(paths, message, columns=None, *, include_path_column=False):
    """One message type of many bus logs as a ``dask.dataframe.DataFrame``.

    paths    a file, a folder (its files), a glob pattern, or a list of these
    message  one message type: what ``vorlink.message`` takes
    columns  the columns to keep (time, sequence, field names); all by default
    include_path_column
             True or a column name ("path" for True): a column with each row's
             file, for grouping by machine

    Lines a file rejects are left out, as ``read_log(..., errors="collect")``
    does; read such a file on its own to see them.
    """
    import pandas
    import dask.dataframe as dd
    from . import message as _message
    from .logs import _empty
    kind = _message(message)
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
    return dd.from_map(_ReadPartition(kind.name, columns, path_column), files, meta=meta[columns],
                       label=f"read-vorlink-{kind.name}", enforce_metadata=False)
