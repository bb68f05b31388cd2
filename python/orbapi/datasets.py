"""Converting and writing datasets: every chosen table of many recordings,
written to a folder.

:func:`to_parquet` writes one Parquet dataset per table; :func:`convert`
does the same in the other formats and is what ``orb convert`` runs.
"""

from __future__ import annotations

import logging
import os
import threading
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable, Sequence

from . import _arrow
from ._optional import require
from ._select import sample_columns, select
from .many import LogCapture, expand_paths, output_names, reason, run_threads

#: The tables a conversion writes (those of orbapi.read() but the three
#: event kinds, which are rows of events).
TABLES = ("samples", "events", "messages", "blocks", "trials")
FORMATS = ("parquet", "csv", "tsv", "fif")

_log = logging.getLogger("orbapi")


@dataclass
class ConvertResult:
    """What :func:`convert` and :func:`to_parquet` did.

    Example::

        >>> res = orbapi.to_parquet(paths, "out")
        >>> for path, why in res.failed.items():
        ...     print(f"{path} skipped: {why}")
    """

    out_dir: str
    #: the recordings converted, in the order given
    converted: list = field(default_factory=list)
    #: recording → the reason it was skipped
    failed: dict = field(default_factory=dict)
    #: recording → the library's log lines while reading it (repairs, damage)
    warnings: dict = field(default_factory=dict)
    #: recording → where and why its read stopped before the end of its bytes
    #: (its ``info["ended_early"]``), for those that did
    ended_early: dict = field(default_factory=dict)
    #: table → rows written
    rows: dict = field(default_factory=dict)
    #: the files written, in no particular order
    files: list = field(default_factory=list)
    seconds: float = 0.0

    @property
    def samples(self) -> int:
        """Sample rows written."""
        return self.rows.get("samples", 0)

    @property
    def ok(self) -> bool:
        return not self.failed


@dataclass
class Progress:
    """Handed to the ``progress`` callback of :func:`convert` after each
    recording, on the calling thread.

    Example::

        >>> orbapi.to_parquet(paths, "out", progress=lambda p: print(f"{p.done}/{p.total} {p.path}"))
    """

    done: int  # recordings finished (converted or failed)
    total: int
    path: str  # the recording just finished
    error: str | None  # why it failed, or None
    samples: int  # sample rows written so far
    seconds: float  # since the start


def to_parquet(
    paths,
    out_dir,
    *,
    jobs: int | None = None,
    tables: Sequence[str] = TABLES,
    columns: Sequence[str] | str | None = None,
    progress: Callable[[Progress], None] | None = None,
    **read_options,
) -> ConvertResult:
    """Writes the chosen tables of every recording as Parquet datasets.

    ``out_dir/samples/``, ``out_dir/events/``, ... each hold one Parquet
    file per recording (named after it), with the columns of
    :func:`orbapi.read` and a ``file`` column (dictionary of strings) naming
    the recording.  A missing value is null (as ``Recording.to_arrow``
    gives it), which the readers skip in aggregates.  pandas, polars,
    DuckDB, Spark, R (arrow) and MATLAB read each folder as one table.
    ``columns`` picks the columns of samples, in the order given (see
    :func:`orbapi.read_many`; ``file`` stays in front).  Recordings that cannot be read are
    skipped and listed in the result's ``failed`` with the library's
    reason; the others are written.  ``jobs`` threads read and write
    (default: one per processor).  ``read_options`` are those of
    :func:`orbapi.read`.

    Example::

        >>> res = orbapi.to_parquet(Path("study").glob("*.orb"), "study-parquet", velocities=True)
        >>> res.failed
        {}
        >>> pd.read_parquet("study-parquet/fixations")  # doctest: +SKIP
    """
    return convert(paths, out_dir, format="parquet", jobs=jobs, tables=tables, columns=columns, progress=progress,
                   **read_options)


def convert(
    paths,
    out_dir,
    *,
    format: str = "parquet",
    jobs: int | None = None,
    tables: Sequence[str] = TABLES,
    columns: Sequence[str] | str | None = None,
    progress: Callable[[Progress], None] | None = None,
    **read_options,
) -> ConvertResult:
    """Writes the chosen tables of every recording to ``out_dir``.

    ``format``: ``"parquet"`` (one dataset per table, see
    :func:`to_parquet`), ``"csv"`` or ``"tsv"`` (``out_dir/TABLE/NAME.csv``,
    one file per recording and table, with a header line, missing values
    empty), or ``"fif"`` (``out_dir/NAME_raw.fif``, one file per recording,
    through :func:`orbapi.toolkits.mne.write_fif`; ``tables`` and
    ``columns`` do not apply).  A missing value is null in Parquet and an
    empty field in CSV and TSV; with ``sentinels=True`` the stored markers
    are written as stored.  ``columns`` picks the columns of samples (see
    :func:`orbapi.read_many`).  A folder among ``paths`` stands for every ``.orb`` file below it.
    Failures of single recordings are collected in the result, not raised;
    a bad ``format``, table or column name raises ``ValueError``, a missing
    optional package ``ImportError``.

    Example::

        >>> res = orbapi.datasets.convert(["a.orb", "b.orb"], "out", format="csv", tables=["messages"])
        >>> res.files
        ['out/messages/a.csv', 'out/messages/b.csv']
    """
    if format not in FORMATS:
        raise ValueError(f"unknown format {format!r}; choose one of {', '.join(FORMATS)}")
    tables = list(dict.fromkeys(tables))
    unknown = [t for t in tables if t not in TABLES]
    if unknown or not tables:
        raise ValueError(f"unknown table {', '.join(unknown) or '(none)'}; choose from {', '.join(TABLES)}")
    if format == "fif" and columns is not None:
        raise ValueError("columns do not apply to the FIF format (it holds the channels MNE takes)")
    chosen = sample_columns(columns, read_options)
    writer = _FifWriter() if format == "fif" else _TableWriter(format, tables)
    from .recording import read

    paths = expand_paths(paths)
    names = output_names(paths)
    out = Path(out_dir)
    out.mkdir(parents=True, exist_ok=True)
    result = ConvertResult(out_dir=str(out), rows={t: 0 for t in ([] if format == "fif" else tables)})
    start = time.perf_counter()
    lock = threading.Lock()
    done = [0]

    def work(i, path):
        written = []
        capture.watch()
        try:
            rec = select(read(path, **read_options), chosen)
            lines = capture.take()
            ended = rec.info.get("ended_early")
            rows = writer.write(rec, path, names[i], out, written)
            del rec
            return rows, lines, written, ended
        except BaseException:
            capture.take()
            for f in written:
                _remove(f)
            raise

    def on_done(i, res, exc):
        if isinstance(exc, ImportError):
            raise exc  # a missing package, not a bad recording: stop
        path = paths[i]
        if exc is None:
            rows, lines, written, ended = res
            result.converted.append(path)
            if lines:
                result.warnings[path] = lines
            if ended:
                result.ended_early[path] = ended
            with lock:
                result.files.extend(written)
                for t, n in rows.items():
                    result.rows[t] = result.rows.get(t, 0) + n
        else:
            result.failed[path] = reason(exc)
        done[0] += 1
        if progress is not None:
            progress(
                Progress(done[0], len(paths), path, result.failed.get(path), result.rows.get("samples", 0),
                         time.perf_counter() - start)
            )

    with LogCapture() as capture:
        run_threads(paths, work, jobs, on_done)
    for path in paths:
        if path in result.failed:
            _log.warning("%s skipped: %s", path, result.failed[path])
    order = {p: k for k, p in enumerate(paths)}
    result.converted.sort(key=order.__getitem__)
    result.failed = dict(sorted(result.failed.items(), key=lambda kv: order[kv[0]]))
    result.warnings = dict(sorted(result.warnings.items(), key=lambda kv: order[kv[0]]))
    result.ended_early = dict(sorted(result.ended_early.items(), key=lambda kv: order[kv[0]]))
    result.files.extend(writer.finish(out))
    result.seconds = time.perf_counter() - start
    return result


def _remove(path):
    try:
        os.remove(path)
    except OSError:
        pass


class _FifWriter:
    def __init__(self):
        try:
            from .toolkits import write_fif
        except ImportError as e:
            raise ImportError(
                f"writing FIF needs orbapi.toolkits and MNE-Python ({e}); install with: pip install 'orbapi[mne]'"
            ) from e
        self._write_fif = write_fif

    def write(self, rec, path, name, out, written):
        target = out / f"{name}_raw.fif"
        written.append(str(target))
        self._write_fif(rec, str(target))
        return {"samples": len(rec.columns("samples")["time"])}

    def finish(self, out):
        return []


class _TableWriter:
    """Writes tables as Parquet, CSV or TSV: ``out/TABLE/NAME.EXT``.

    Trials are held back and written at the end: their variable columns
    differ between recordings, and a dataset needs one schema."""

    def __init__(self, fmt, tables):
        self.pa = require("pyarrow", "arrow")
        if fmt == "parquet":
            self.pq = require("pyarrow.parquet", "arrow")
        else:
            self.csv = require("pyarrow.csv", "arrow")
        self.fmt = fmt
        self.ext = "parquet" if fmt == "parquet" else fmt
        self.tables = tables
        self.trials = []  # (name, table) in completion order
        self.lock = threading.Lock()

    def write(self, rec, path, name, out, written):
        rows = {}
        label = os.fspath(path)
        for t in self.tables:
            words = t == "samples" and not rec.sentinels
            table = _with_file_column(_arrow.table(rec.columns(t), words=words, declare=True), label)
            rows[t] = table.num_rows
            if t == "trials":
                with self.lock:
                    self.trials.append((name, table))
            else:
                written.append(self._write(table, out, t, name))
        return rows

    def finish(self, out):
        if not self.trials:
            return []
        tables = _unify_tables([t for _, t in self.trials])
        return [self._write(t, out, "trials", name) for (name, _), t in zip(self.trials, tables)]

    def _write(self, table, out, t, name):
        folder = out / t
        folder.mkdir(exist_ok=True)
        target = folder / f"{name}.{self.ext}"
        if self.fmt == "parquet":
            self.pq.write_table(table, target, **PARQUET_OPTIONS)
        else:
            self.csv.write_csv(
                _for_text(table),
                target,
                self.csv.WriteOptions(delimiter="\t" if self.fmt == "tsv" else ",", quoting_header="none"),
            )
        return str(target)


#: How Parquet files are written: fast to write and to read.  Dictionary
#: encoding only for the ``file`` column (the other columns are measurements,
#: where trying it costs more time than it saves space), statistics only for
#: the columns one filters on.
PARQUET_OPTIONS = dict(
    compression="snappy",
    use_dictionary=["file"],
    write_statistics=["file", "time", "block", "trial", "type", "start_time", "end_time"],
)


def _with_file_column(table, label: str):
    """``table`` with a first column ``file``: ``label`` on every row, as a
    dictionary of strings."""
    import numpy as np
    import pyarrow as pa

    codes = pa.array(np.zeros(table.num_rows, dtype=np.int32))
    column = pa.DictionaryArray.from_arrays(codes, pa.array([label], pa.string()))
    if "file" in table.column_names:
        table = table.drop(["file"])
    return table.add_column(0, pa.field("file", column.type, nullable=False), column)


def _for_text(table):
    """The table as a text file wants it: dictionaries as plain strings
    (a missing value, null, is written as an empty field)."""
    import pyarrow as pa

    columns = []
    for col in table.columns:
        if pa.types.is_dictionary(col.type):
            col = col.cast(col.type.value_type)
        columns.append(col)
    return pa.table(columns, names=table.column_names)


def _unify_tables(tables: list) -> list:
    """The tables with one schema: a column missing from one is added as
    nulls; integers meeting floats become float64; numbers meeting text
    become text.  Column order: the first table's, then new columns in
    order of appearance."""
    import pyarrow as pa

    names, types = [], {}
    for t in tables:
        for f in t.schema:
            if f.name not in types:
                names.append(f.name)
                types[f.name] = f.type
            else:
                types[f.name] = _common_type(types[f.name], f.type)
    out = []
    for t in tables:
        cols = []
        for n in names:
            if n in t.column_names:
                col = t.column(n)
                if col.type != types[n]:
                    col = col.cast(types[n]) if not pa.types.is_string(types[n]) else _as_text(col)
            else:
                col = pa.nulls(t.num_rows, types[n])
            cols.append(col)
        out.append(pa.table(cols, schema=pa.schema([pa.field(n, types[n]) for n in names])))
    return out


def _common_type(a, b):
    import pyarrow as pa

    if a == b:
        return a
    if pa.types.is_null(a):
        return b
    if pa.types.is_null(b):
        return a
    num = lambda t: pa.types.is_integer(t) or pa.types.is_floating(t)  # noqa: E731
    if num(a) and num(b):
        if pa.types.is_integer(a) and pa.types.is_integer(b):
            return pa.int64()
        return pa.float64()
    if pa.types.is_dictionary(a) and pa.types.is_dictionary(b):
        return a
    return pa.string()


def _as_text(col):
    import pyarrow as pa

    if pa.types.is_dictionary(col.type):
        return col.cast(col.type.value_type).cast(pa.string())
    return col.cast(pa.string())
