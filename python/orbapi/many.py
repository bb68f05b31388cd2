"""Many recordings at once.

:func:`read_many` reads several recordings, on several threads, into one
:class:`~orbapi.Recording` whose tables carry a ``file`` column.  The rest
is what any work over many recordings needs: the recordings a folder holds
(:func:`expand_paths`), an output name for each (:func:`output_names`),
the reason one failed on a line (:func:`reason`), the library's log lines
of each read (:class:`LogCapture`).  Converting and writing datasets is
:mod:`orbapi.datasets` (:func:`~orbapi.datasets.to_parquet`,
:func:`~orbapi.datasets.convert`), still reachable from here by their old
names.
"""

from __future__ import annotations

import logging
import os
import threading
from concurrent.futures import FIRST_COMPLETED, ThreadPoolExecutor, wait
from pathlib import Path
from typing import Callable, Iterable, Sequence

_log = logging.getLogger("orbapi")

# Names that moved to orbapi.datasets, importable from here as before.
_MOVED = ("TABLES", "FORMATS", "PARQUET_OPTIONS", "ConvertResult", "Progress", "convert", "to_parquet")


def __getattr__(name: str):
    if name in _MOVED:
        from . import datasets

        return getattr(datasets, name)
    raise AttributeError(f"module 'orbapi.many' has no attribute {name!r}")


def _default_jobs(count: int) -> int:
    """The number of threads used when ``jobs`` is None: one per processor,
    no more than there are recordings."""
    return max(1, min(count, os.cpu_count() or 1))


def reason(exc: BaseException) -> str:
    """The reason a recording could not be read or written, on one line.

    For an :class:`~orbapi.OrbError` that is the library's own reason.

    Example::

        >>> try:
        ...     orbapi.read("junk.orb")
        ... except Exception as e:
        ...     print(many.reason(e))
        Bad magic.  Corrupt orb file.
    """
    if isinstance(exc, FileNotFoundError):
        return f"no such file: {exc.filename or exc}"
    if isinstance(exc, OSError) and exc.strerror:
        where = f": {exc.filename}" if exc.filename else ""
        return f"{exc.strerror}{where}"
    text = str(getattr(exc, "reason", None) or exc).strip() or type(exc).__name__
    return "; ".join(line.strip() for line in text.splitlines() if line.strip())


class LogCapture(logging.Filter):
    """Collects the library's log lines (logger ``"orbapi"``) per thread,
    instead of letting them through, for the threads that watch: the one
    that enters the context, and any that calls :meth:`watch`.  A thread
    calls :meth:`take` after a read to get that read's lines.  Lines from
    other threads pass as usual.

    Example::

        >>> with many.LogCapture() as capture:
        ...     rec = orbapi.read("gappy.orb", consistency=2)
        ...     lines = capture.take()
        >>> lines[0]
        'Missing 6 samples. Inserting dummy samples'
    """

    def __init__(self):
        super().__init__()
        self._lines = {}  # thread id -> lines not yet taken
        self._guard = threading.Lock()

    def watch(self):
        """Collects the lines of the calling thread from now on."""
        with self._guard:
            self._lines.setdefault(threading.get_ident(), [])

    def filter(self, record):
        with self._guard:
            lines = self._lines.get(record.thread)
            if lines is None:
                return True
            lines.append(record.getMessage().rstrip("\n"))
            return False

    def take(self) -> list[str]:
        """The calling thread's lines since the last take."""
        with self._guard:
            lines = self._lines.get(threading.get_ident()) or []
            self._lines[threading.get_ident()] = []
            return lines

    def __enter__(self):
        _log.addFilter(self)
        self.watch()
        return self

    def __exit__(self, *exc):
        _log.removeFilter(self)


def expand_paths(paths: Iterable) -> list[str]:
    """The recordings named by ``paths``: a folder stands for every ``.orb``
    file below it (sorted), anything else for itself.

    Example::

        >>> many.expand_paths(["study/", "extra/p99.orb"])
        ['study/p01.orb', 'study/p02.orb', 'extra/p99.orb']
    """
    out = []
    for p in paths:
        p = os.fspath(p)
        if os.path.isdir(p):
            found = [
                str(q)
                for q in Path(p).rglob("*")
                if q.suffix.lower() == ".orb" and q.is_file()
            ]
            out.extend(sorted(found))
        else:
            out.append(p)
    return out


def output_names(paths: Sequence[str]) -> list[str]:
    """One output name per recording: the file name without its suffix, with
    ``-2``, ``-3``, ... added where two recordings share a name.

    Example::

        >>> many.output_names(["s1/run.orb", "s2/run.orb"])
        ['run', 'run-2']
    """
    names, used = [], set()
    for p in paths:
        stem = Path(p).stem or "recording"
        name, k = stem, 1
        while name.lower() in used:
            k += 1
            name = f"{stem}-{k}"
        used.add(name.lower())
        names.append(name)
    return names


def run_threads(items: Sequence, work: Callable, jobs: int | None, on_done: Callable | None = None):
    """Runs ``work(i, item)`` for every item on ``jobs`` threads and returns
    the results in the items' order.  ``on_done(i, result, exc)`` is called
    on the calling thread as each finishes.  An exception is handed to
    ``on_done`` when it is given, else raised (after cancelling the rest)."""
    results = [None] * len(items)
    if not items:
        return results
    jobs = _default_jobs(len(items)) if jobs is None else int(jobs)
    if jobs < 1:
        raise ValueError("jobs must be at least 1")
    with ThreadPoolExecutor(max_workers=jobs, thread_name_prefix="orbapi") as pool:
        pending = {pool.submit(work, i, item): i for i, item in enumerate(items)}
        try:
            while pending:
                done, _ = wait(pending, return_when=FIRST_COMPLETED)
                for fut in done:
                    i = pending.pop(fut)
                    exc = fut.exception()
                    if exc is None:
                        results[i] = fut.result()
                    elif on_done is None or not isinstance(exc, Exception):
                        raise exc
                    if on_done is not None:
                        on_done(i, results[i], exc)
        except BaseException:
            for fut in pending:
                fut.cancel()
            raise
    return results


# ---------------------------------------------------------------------------
# read_many


def read_many(paths, *, jobs: int | None = None, columns: Sequence[str] | str | None = None, **read_options):
    """Reads several recordings into one :class:`~orbapi.Recording`.

    Every table holds the rows of the first recording, then those of the
    second, and so on, in the order of ``paths``, with a ``file`` column (a
    categorical of the paths as given) in front.  The recordings are read
    on ``jobs`` threads (default: one per processor); the library reads
    them in parallel.  ``read_options`` are those of :func:`orbapi.read`
    and apply to every recording.  ``info["recordings"]`` holds the
    ``info`` of each recording, ``info["files"]`` their paths.

    ``columns`` picks the columns of the samples, in the order given
    (``"file"`` stays in front): names of :func:`orbapi.read`'s samples or
    the short forms ``gaze`` and ``pupil`` (both eyes' x and y, both
    eyes' size) and stems such as ``gaze_x``; an unknown name raises
    ValueError naming the known ones, before any file is read.

    Raises what :func:`orbapi.read` raises for the first recording that
    fails: ``FileNotFoundError``, or :class:`~orbapi.OrbError` whose text
    starts with the path (``e.path``) and whose ``e.reason`` is the
    library's.

    Example::

        >>> rec = orbapi.read_many(sorted(Path("study").glob("*.orb")), jobs=4)
        >>> rec.fixations.groupby("file", observed=True)["duration"].mean()
        >>> orbapi.read_many(paths, columns=["time", "gaze", "trial"]).samples.columns[1:]
        Index(['time', 'gaze_x_left', 'gaze_x_right', 'gaze_y_left', 'gaze_y_right', 'trial'], dtype='object')
    """
    from ._core import OrbError
    from ._select import sample_columns, select
    from .recording import read

    labels = [_label(p) for p in paths]
    chosen = sample_columns(columns, read_options)

    def work(i, path):
        try:
            return select(read(path, **read_options), chosen)
        except OrbError as e:
            err = type(e)(f"{labels[i]}: {reason(e)}")
            err.reason, err.path = getattr(e, "reason", str(e)), labels[i]
            raise err from e

    recordings = run_threads(list(paths), work, jobs)
    return _combine(recordings, labels)


def _label(path) -> str:
    if isinstance(path, (bytes, bytearray, memoryview)):
        raise TypeError("read_many takes paths; read recordings in memory with orbapi.read")
    return os.fspath(path)


def _combine(recordings, labels):
    """One Recording from several, each table with a first column ``file``:
    a categorical whose categories are ``labels`` (the paths as given)."""
    import numpy as np
    import pandas as pd

    from .recording import TABLES as ALL_TABLES
    from .recording import Recording

    merged = Recording.concat(recordings, names=labels)
    categories = list(dict.fromkeys(labels))
    code = np.array([categories.index(label) for label in labels], dtype=np.int32)
    tables = {}
    for table in ALL_TABLES:
        columns = merged.columns(table)
        rows = [len(next(iter(r.columns(table).values()), ())) for r in recordings]
        columns["file"] = pd.Categorical.from_codes(np.repeat(code, rows), categories=categories)
        tables[table] = columns
    return Recording(tables, merged.info, None, sentinels=merged.sentinels)
