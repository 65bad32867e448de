import os
from typing import Any, Iterable

def read_logs(paths: str | os.PathLike[str] | Iterable[str | os.PathLike[str]], message: Any,
              columns: Iterable[str] | None = None, *, include_path_column: bool | str = False) -> Any: ...
