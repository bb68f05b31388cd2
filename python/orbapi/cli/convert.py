"""``orb convert``: write the tables of recordings as Parquet, CSV or TSV
(or each recording as an MNE FIF file), with a progress bar on a
terminal."""

from __future__ import annotations

import argparse
import os
import shutil
import sys
import threading
import time

from .. import datasets
from .._select import sample_columns
from ..many import LogCapture, expand_paths
from ._common import EXIT_FAILED, EXIT_OK, UsageError, add_consistency, add_files, error, number


EPILOG = """\
examples:
  orb convert data/ -o out/
      every .orb file below data/ to out/samples/, out/events/, ... (Parquet)
  orb convert s01.orb s02.orb -o out/ --tables samples,trials --velocities --variables all --jobs 2
  orb convert data/*.orb -o csv/ --format csv --consistency 2
  orb convert data/ -o out/ --tables samples,trials --columns time,gaze,pupil,block,trial
      samples with time, gaze x/y and pupil size of both eyes, block and trial

Parquet: one folder per table, one file per recording in it, so each folder
is one dataset: pandas.read_parquet("out/samples"), polars.scan_parquet(
"out/samples/*.parquet"), DuckDB "SELECT * FROM 'out/samples/*.parquet'",
R arrow::open_dataset("out/samples"), MATLAB parquetDatastore("out/samples").
CSV and TSV: out/TABLE/NAME.csv, one file per recording and table.  Every
table has a 'file' column naming the recording; the other columns are those
of orbapi.read(), or of samples those --columns names, in that order: column
names, or the short forms gaze (x and y of both eyes), pupil (the size of
both eyes) and stems such as gaze_x (gaze_x_left, gaze_x_right).

A missing value (a lost eye, a blink) is null in Parquet, which readers
skip in aggregates, and an empty field in CSV and TSV; the same holds for
the markers of status, input and extra_type.  --sentinels writes the
markers the recording stores instead (-32768, 100000000, 32768).

Trial variables are the messages 'KEY VALUE' inside a trial; for an
experiment that wrote them behind a fixed text, give that text as
--variable-prefix (e.g. --variable-prefix 'var ' for 'var rt 512').

A recording that cannot be read is reported with the reason and skipped; the
others are converted.  Exit status: 0 all converted, 1 some failed, 2 usage
error.
"""


def _tables(text):
    names = [t.strip() for t in text.split(",") if t.strip()]
    bad = [t for t in names if t not in datasets.TABLES]
    if bad or not names:
        raise argparse.ArgumentTypeError(
            f"unknown table {', '.join(bad) or '(none)'}; choose from {','.join(datasets.TABLES)}"
        )
    return names


def _variables(text):
    if text.strip() == "all":
        return "all"
    names = [t.strip() for t in text.split(",") if t.strip()]
    if not names:
        raise argparse.ArgumentTypeError("name at least one variable, or 'all'")
    return names


def configure(parser):
    parser.description = "Write every chosen table of every recording to a folder."
    parser.epilog = EPILOG
    add_files(parser, "recordings (.orb), or folders holding them")
    parser.add_argument("-o", "--output", required=True, metavar="DIR", help="folder to write to (made if missing)")
    parser.add_argument(
        "--format",
        choices=datasets.FORMATS,
        default="parquet",
        help="parquet (default): one dataset per table; csv, tsv: one file per recording and table; "
        "fif: one MNE raw file per recording (needs orbapi[mne])",
    )
    parser.add_argument(
        "--tables",
        type=_tables,
        default=None,
        metavar="T,T,...",
        help=f"tables to write (default all: {','.join(datasets.TABLES)})",
    )
    parser.add_argument(
        "--columns",
        default=None,
        metavar="C,C,...",
        help="columns of samples to write, in this order (default all): names as in orbapi.read(), or the "
        "short forms gaze, pupil and stems such as gaze_x; e.g. time,gaze,pupil,block,trial",
    )
    parser.add_argument(
        "--variables",
        type=_variables,
        default=None,
        metavar="K,K,...",
        help="trial variables: the keys of 'KEY VALUE' messages inside a trial that become columns of trials, "
        "or 'all' for every such message (default none)",
    )
    parser.add_argument(
        "--variable-prefix",
        default="",
        metavar="TEXT",
        help="only messages that begin with TEXT are trial variables, the key following it (default: none, "
        "every 'KEY VALUE' message is one)",
    )
    parser.add_argument("--velocities", action="store_true", help="add the 24 velocity columns to samples")
    parser.add_argument("--camera", action="store_true", help="add the raw pupil and CR camera values to samples")
    parser.add_argument(
        "--sentinels", action="store_true", help="write the stored markers of missing values instead of nulls"
    )
    add_consistency(parser, 0)
    parser.add_argument(
        "--jobs",
        type=lambda text: number(text, 1),
        default=None,
        metavar="N",
        help="recordings converted at once, each held in memory meanwhile (default: one per processor)",
    )


class _ProgressBar:
    """Recordings done, samples per second and time left, redrawn in place
    on a terminal.  Time left is estimated from the sizes of the files: the
    bytes converted so far took the time so far."""

    def __init__(self, paths, stream):
        self.stream = stream
        self.sizes = {p: _size(p) for p in paths}
        self.total_bytes = sum(self.sizes.values())
        self.done_bytes = 0
        self.total = len(paths)
        self.done = 0
        self.samples = 0
        self.start = time.perf_counter()
        self.finish_at = None
        self.lock = threading.Lock()
        self.stopped = threading.Event()
        self.ticker = threading.Thread(target=self._tick, daemon=True)
        self.ticker.start()
        self.draw()

    def _tick(self):
        while not self.stopped.wait(0.5):
            self.draw()

    def update(self, p: datasets.Progress):
        with self.lock:
            self.done = p.done
            self.samples = p.samples
            size = self.sizes.get(p.path, 0)
            if p.error:
                self.total_bytes -= size  # nothing more to do for it
            else:
                self.done_bytes += size
            if self.done_bytes:
                self.finish_at = self.start + p.seconds * self.total_bytes / self.done_bytes
        if p.error:
            self.say(f"orb: {p.path}: {p.error}")
        else:
            self.draw()

    def say(self, text):
        with self.lock:
            self.stream.write("\r\033[K" + text + "\n")
        self.draw()

    def draw(self):
        with self.lock:
            now = time.perf_counter()
            elapsed = now - self.start
            width = max(10, min(30, shutil.get_terminal_size().columns - 60))
            fill = int(width * self.done / self.total)
            rate = self.samples / elapsed if elapsed > 0 else 0.0
            if self.done == self.total:
                eta = _clock(elapsed)
            elif self.finish_at is None:
                eta = ""
            else:
                eta = f"{_clock(max(0.0, self.finish_at - now))} left"
            self.stream.write(
                f"\r\033[K[{'#' * fill}{'.' * (width - fill)}] {self.done}/{self.total} recordings  "
                f"{rate / 1e6:.1f} M samples/s  {eta}"
            )
            self.stream.flush()

    def close(self):
        self.stopped.set()
        self.ticker.join()
        with self.lock:
            self.stream.write("\r\033[K")
            self.stream.flush()


def _size(path):
    try:
        return os.path.getsize(path)
    except OSError:
        return 0


def _clock(seconds):
    s = int(seconds + 0.5)
    return f"{s // 3600}:{s // 60 % 60:02d}:{s % 60:02d}" if s >= 3600 else f"{s // 60}:{s % 60:02d}"


def run(args) -> int:
    paths = expand_paths(args.files)
    if not paths:
        raise UsageError("no recordings: the folders given hold no .orb files")
    if os.path.exists(args.output) and not os.path.isdir(args.output):
        raise UsageError(f"{args.output} exists and is not a folder")
    if args.format == "fif" and args.tables is not None:
        raise UsageError("--tables does not apply to --format fif (one file per recording)")
    if args.format == "fif" and args.columns is not None:
        raise UsageError("--columns does not apply to --format fif (one file per recording)")
    options = dict(
        consistency=args.consistency, velocities=args.velocities, camera=args.camera, variables=args.variables,
        variable_prefix=args.variable_prefix, sentinels=args.sentinels,
    )
    try:
        columns = sample_columns(args.columns, options)
    except ValueError as e:
        raise UsageError(str(e))
    bar = _ProgressBar(paths, sys.stderr) if sys.stderr.isatty() else None

    def progress(p):
        if bar is not None:
            bar.update(p)
        elif p.error:
            error(f"{p.path}: {p.error}")

    try:
        with LogCapture():  # failures are reported here, not logged
            result = datasets.convert(
                paths,
                args.output,
                format=args.format,
                jobs=args.jobs,
                tables=args.tables or datasets.TABLES,
                columns=columns,
                progress=progress,
                **options,
            )
    except ImportError as e:
        raise UsageError(str(e))
    finally:
        if bar is not None:
            bar.close()
    print(_summary_line(result, args.format, len(paths)), flush=True)
    return EXIT_FAILED if result.failed else EXIT_OK


def _summary_line(result: datasets.ConvertResult, fmt: str, total: int) -> str:
    seconds = max(result.seconds, 1e-9)
    text = (
        f"Converted {len(result.converted)} of {total} recording{'s' if total != 1 else ''} to "
        f"{result.out_dir} ({fmt}): {result.samples:,} samples in {result.seconds:.1f} s "
        f"({result.samples / seconds / 1e6:.1f} M samples/s)."
    )
    if result.failed:
        text += f" {len(result.failed)} failed."
    if result.warnings:
        n = len(result.warnings)
        text += f" {n} recording{'s' if n != 1 else ''} reported damage (see orb info)."
    ended = list(result.ended_early.items())
    if ended:
        named = "; ".join(f"{os.path.basename(p)}: {e['line'][0].lower()}{e['line'][1:]}" for p, e in ended[:3])
        more = f"; and {len(ended) - 3} more" if len(ended) > 3 else ""
        n = len(ended)
        text += f" {n} recording{'s' if n != 1 else ''} ended early ({named}{more})."
    return text
