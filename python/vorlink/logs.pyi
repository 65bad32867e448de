import datetime
import os
from typing import Any, BinaryIO, Literal, Sequence

_Time = datetime.datetime | float | str | None
_Keys = str | int | Sequence[str | int] | None

class LogError(ValueError):
    source: str
    line: int
    cause: str
    reason: str
    def __init__(self, source: str, line: int, cause: str, reason: str) -> None: ...

class Log:
    def __init__(self, log: Any) -> None: ...
    @property
    def errors(self) -> list[tuple[int, str, str]]: ...
    @property
    def messages(self) -> list[str]: ...
    def table(self, key: Any) -> Any: ...          # pandas.DataFrame
    def tables(self) -> dict[str, Any]: ...        # {name: pandas.DataFrame}
    def long(self) -> Any: ...                     # pandas.DataFrame
    def stats(self) -> Any: ...                    # pandas.DataFrame

def read_log(source: str | bytes | os.PathLike[str] | BinaryIO, *, message: _Keys = None, start: _Time = None,
             end: _Time = None, errors: Literal["raise", "collect"] = "raise") -> Log: ...
