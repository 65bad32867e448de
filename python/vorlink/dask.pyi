import os
from typing import Any, Iterable, Literal, overload

from .logs import _Key, _Time

_Paths = str | os.PathLike[str] | Iterable[str | os.PathLike[str]]

@overload
def read_logs(paths: _Paths, message: _Key, columns: Iterable[str] | None = None, *,
              include_path_column: bool | str = False, start: _Time = None, end: _Time = None,
              errors: Literal["raise"] = "raise") -> Any: ...   # dask.dataframe.DataFrame
@overload
def read_logs(paths: _Paths, message: _Key, columns: Iterable[str] | None = None, *,
              include_path_column: bool | str = False, start: _Time = None, end: _Time = None,
              errors: Literal["collect"]) -> tuple[Any, Any]: ...
