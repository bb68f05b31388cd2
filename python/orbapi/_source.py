"""Where a recording comes from: a file path or bytes in memory."""
from __future__ import annotations

import errno
import os
from typing import Union

#: What ``read()`` and ``open()`` accept: a path, or the recording's bytes.
Source = Union[str, "os.PathLike[str]", bytes, bytearray, memoryview]


def resolve(source: Source) -> tuple[bytes | None, object | None, str | None]:
    """Returns (file path in the file system's encoding, or None; the bytes,
    or None; the path as text, or None for bytes).

    Raises FileNotFoundError for a path that does not exist and
    IsADirectoryError for a directory, before the library sees them.
    """
    if isinstance(source, (bytes, bytearray, memoryview)):
        return None, source, None
    path = os.fspath(source)
    if not os.path.exists(path):
        raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), path)
    if os.path.isdir(path):
        raise IsADirectoryError(errno.EISDIR, os.strerror(errno.EISDIR), path)
    return os.fsencode(path), None, os.fsdecode(path)
