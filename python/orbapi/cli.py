"""The ``orb`` command: look at recordings and convert them.

``orb info FILE...`` summarises recordings, ``orb convert FILE... -o DIR``
writes their tables as Parquet, CSV or TSV, ``orb plot`` draws one.  Exit
status: 0 when everything was done, 1 when some recordings failed, 2 for a
usage error.
"""

from __future__ import annotations

import argparse
import json
import os
import re
import shutil
import sys
import threading
import time

from . import many

EXIT_OK, EXIT_FAILED, EXIT_USAGE = 0, 1, 2

from ._core import BLOCK_EYES as EYES
MODELS = {1: "", 2: "MK", 3: "HQ"}

MAIN_EPILOG = """\
examples:
  orb info run1.orb                      what is in a recording, at a glance
  orb info --json data/*.orb > info.json
  orb convert data/ -o parquet/          every .orb file below data/, to Parquet
  orb plot run1.orb --trial 3 -o t3.png  (see orb plot --help)

Run 'orb COMMAND --help' for the options of a command.
Exit status: 0 all done, 1 some recordings failed, 2 usage error.
"""

INFO_EPILOG = """\
examples:
  orb info run1.orb
  orb info --json --consistency 6 damaged.orb

The text lists the tracker, every recording block (its time span in tracker
milliseconds, sample rate and eyes), the counts of each kind of item, the
placeholder samples the repair filled in, and what the library reported
while reading (damage it met or repaired).
"""

CONVERT_EPILOG = """\
examples:
  orb convert data/ -o out/
      every .orb file below data/ to out/samples/, out/events/, ... (Parquet)
  orb convert s01.orb s02.orb -o out/ --tables samples,trials --velocities --variables all --jobs 2
  orb convert data/*.orb -o csv/ --format csv --consistency 2

Parquet: one folder per table, one file per recording in it, so each folder
is one dataset: pandas.read_parquet("out/samples"), polars.scan_parquet(
"out/samples/*.parquet"), DuckDB "SELECT * FROM 'out/samples/*.parquet'",
R arrow::open_dataset("out/samples"), MATLAB parquetDatastore("out/samples").
CSV and TSV: out/TABLE/NAME.csv, one file per recording and table, missing
values empty.  Every table has a 'file' column naming the recording; the
other columns are those of orbapi.read().

A recording that cannot be read is reported with the reason and skipped; the
others are converted.  Exit status: 0 all converted, 1 some failed, 2 usage
error.
"""


class _UsageError(Exception):
    """A mistake in the command line: reported, exit status 2."""


def _consistency(text):
    try:
        value = int(text, 0)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a number: {text!r}")
    if not 0 <= value <= 15:
        raise argparse.ArgumentTypeError(f"must be 0 to 15, not {value}")
    return value


def _jobs(text):
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a number: {text!r}")
    if value < 1:
        raise argparse.ArgumentTypeError(f"must be at least 1, not {value}")
    return value


def _tables(text):
    names = [t.strip() for t in text.split(",") if t.strip()]
    bad = [t for t in names if t not in many.TABLES]
    if bad or not names:
        raise argparse.ArgumentTypeError(
            f"unknown table {', '.join(bad) or '(none)'}; choose from {','.join(many.TABLES)}"
        )
    return names


def _variables(text):
    if text.strip() == "all":
        return "all"
    names = [t.strip() for t in text.split(",") if t.strip()]
    if not names:
        raise argparse.ArgumentTypeError("name at least one variable, or 'all'")
    return names


def _add_consistency(p, default):
    p.add_argument(
        "--consistency",
        type=_consistency,
        default=default,
        metavar="N",
        help="how the library checks the recording (default %(default)s): 0 reads it as it is, 1 checks it, "
        "2 checks and repairs it (fills sample gaps with placeholder samples, re-times orphaned blinks); "
        "add 4 to read a damaged file up to the damage instead of refusing it, 8 to keep the tracker's "
        "time offset",
    )


def _build_parser(command: str | None = None) -> argparse.ArgumentParser:
    """The command-line parser.  ``command`` is the subcommand about to run:
    the options of ``plot`` are loaded only when it is."""
    from . import __version__

    parser = argparse.ArgumentParser(
        prog="orb",
        description="Look at eye-tracker recordings (ORB files) and convert them to tables.",
        epilog=MAIN_EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--version", action="version", version=f"orb {__version__}")
    sub = parser.add_subparsers(dest="command", metavar="COMMAND")

    info = _command(sub, "info", _run_info, "summarise recordings", "Summarise recordings, one after another.",
                    INFO_EPILOG, "recordings (.orb), or folders holding them")
    info.add_argument("--json", action="store_true", help="print a JSON list, one object per recording")
    _add_consistency(info, 2)

    conv = _command(sub, "convert", _run_convert, "write the tables of recordings as Parquet, CSV or TSV",
                    "Write every chosen table of every recording to a folder.", CONVERT_EPILOG,
                    "recordings (.orb), or folders holding them")
    conv.add_argument("-o", "--output", required=True, metavar="DIR", help="folder to write to (made if missing)")
    conv.add_argument(
        "--format",
        choices=many.FORMATS,
        default="parquet",
        help="parquet (default): one dataset per table; csv, tsv: one file per recording and table; "
        "fif: one MNE raw file per recording (needs orbapi[mne])",
    )
    conv.add_argument(
        "--tables",
        type=_tables,
        default=None,
        metavar="T,T,...",
        help=f"tables to write (default all: {','.join(many.TABLES)})",
    )
    conv.add_argument(
        "--variables",
        type=_variables,
        default=None,
        metavar="K,K,...",
        help="trial variables: the keys of 'KEY VALUE' messages inside a trial that become columns of trials, "
        "or 'all' for every such message (default none)",
    )
    conv.add_argument("--velocities", action="store_true", help="add the 24 velocity columns to samples")
    conv.add_argument("--camera", action="store_true", help="add the raw pupil and CR camera values to samples")
    _add_consistency(conv, 0)
    conv.add_argument(
        "--jobs",
        type=_jobs,
        default=None,
        metavar="N",
        help="recordings converted at once, each held in memory meanwhile (default: one per processor)",
    )

    _add_plot(sub, command == "plot")
    from .view import add_command as add_view
    add_view(sub, _add_consistency)
    return parser


def _command(sub, name, run, summary, description, epilog, files):
    p = sub.add_parser(name, help=summary, description=description, epilog=epilog,
                       formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("files", nargs="+", metavar="FILE", help=files)
    p.set_defaults(run=run)
    return p


def _add_plot(sub, wanted):
    text = "draw a recording: gaze, events, trials"
    if not wanted:
        sub.add_parser("plot", help=text, add_help=False)
        return
    try:
        from . import plot
    except ImportError as e:
        missing = str(e)
        p = sub.add_parser("plot", help=text, add_help=False)
        p.add_argument("rest", nargs=argparse.REMAINDER)
        p.set_defaults(run=lambda args: _unavailable("orb plot", missing, "plot"))
        return
    p = sub.add_parser(
        "plot",
        help=text,
        description="Draw a recording.",
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    plot.add_plot_arguments(p)
    p.set_defaults(run=lambda args: _run_optional("orb plot", "plot", plot.run_plot, args))


def _unavailable(what, why, extra):
    hint = "" if "pip install" in why else f"; install it with: pip install 'orbapi[{extra}]'"
    _error(f"{what} is not available: {why}{hint}")
    return EXIT_USAGE


def _run_optional(what, extra, run, args):
    try:
        return run(args)
    except ImportError as e:
        return _unavailable(what, str(e), extra)


def _error(text):
    print(f"orb: {text}", file=sys.stderr, flush=True)


def _command_of(argv):
    for a in argv:
        if not a.startswith("-"):
            return a
    return None


def main(argv=None) -> int:
    """Runs ``orb`` with ``argv`` (default: the command line) and returns the
    exit status.

    Example::

        >>> from orbapi import cli
        >>> cli.main(["convert", "study/", "-o", "out", "--jobs", "2"])
        0
    """
    argv = list(sys.argv[1:] if argv is None else argv)
    parser = _build_parser(_command_of(argv))
    try:
        args = parser.parse_args(argv)
    except SystemExit as e:
        return e.code if isinstance(e.code, int) else EXIT_USAGE
    if not getattr(args, "run", None):
        parser.print_help(sys.stderr)
        return EXIT_USAGE
    try:
        return args.run(args)
    except _UsageError as e:
        _error(str(e))
        return EXIT_USAGE
    except OSError as e:  # the output cannot be written
        _error(many.reason(e))
        return EXIT_FAILED
    except KeyboardInterrupt:
        _error("interrupted")
        return 130


# ---------------------------------------------------------------------------
# orb info


def summarize(path, *, consistency=2, capture=None) -> dict:
    """What ``orb info`` shows about one recording, as a dict (the objects of
    ``orb info --json``).  A recording the library refuses gives
    ``{"file": path, "error": reason, "damage": [...]}``.

    Example::

        >>> cli.summarize("run1.orb")["blocks"][0]
        {'start_ms': 100000, 'end_ms': 100400, 'duration_ms': 400, 'sample_rate': 1000.0, 'eyes': 'both'}
    """
    import numpy as np

    import orbapi

    own = capture is None
    capture = capture or many.LogCapture()
    if own:
        capture.__enter__()
    try:
        try:
            rec = orbapi.read(path, consistency=consistency)
        except Exception as e:  # noqa: BLE001 - any failure is this file's
            why = many.reason(e)
            damage = [x for x in capture.take() if x.strip() not in why]
            return {"file": os.fspath(path), "error": why, "consistency": consistency, "damage": damage}
        damage = capture.take()
    finally:
        if own:
            capture.__exit__(None, None, None)

    info = rec.info
    samples = rec.columns("samples")
    placeholder = (samples["extra_type"] == 32767) & (samples["extra_data_0"] == 32767)
    blocks = rec.columns("blocks")
    block_list = []
    for k in range(len(blocks["time"])):
        start, end = int(blocks["time"][k]), int(blocks["end_time"][k])
        block_list.append(
            {
                "start_ms": start,
                "end_ms": end if end >= 0 else None,  # None: the block never ends
                "duration_ms": end - start if end >= 0 else None,
                "sample_rate": float(blocks["sample_rate"][k]),
                "eyes": EYES.get(int(blocks["eyes"][k]), str(int(blocks["eyes"][k]))),
            }
        )
    return {
        "file": os.fspath(path),
        "error": None,
        "revision": int(info["revision"]),
        "model": int(info["oculant_revision"]),
        "consistency": consistency,
        "blocks": block_list,
        "samples": int(len(samples["time"])),
        "fixations": len(rec.fixations),
        "saccades": len(rec.saccades),
        "blinks": len(rec.blinks),
        "messages": len(rec.messages),
        "trials": len(rec.trials),
        "placeholder_samples": int(np.count_nonzero(placeholder)),
        "duration_ms": int(info["duration_ms"]),
        "damage": damage,
    }


def _run_info(args) -> int:
    status = EXIT_OK
    reports = []
    with many.LogCapture() as capture:
        for k, path in enumerate(many.expand_paths(args.files)):
            r = summarize(path, consistency=args.consistency, capture=capture)
            if r["error"]:
                status = EXIT_FAILED
            if args.json:
                reports.append(r)
                continue
            if k:
                print()
            print(format_summary(r), flush=True)
            if r["error"]:
                _error(f"{path}: {r['error']}")
    if args.json:
        json.dump(reports, sys.stdout, indent=2)
        print()
    return status


def _n(x):
    return f"{x:,}"


def format_summary(r: dict) -> str:
    """The text of ``orb info`` for one summary from :func:`summarize`.

    Example::

        >>> print(cli.format_summary(cli.summarize("run1.orb")))
    """
    lines = [r["file"]]
    row = lambda key, value: lines.append(f"  {key:<11}{value}")  # noqa: E731
    if r["error"]:
        row("error", r["error"])
        if r["damage"]:
            _damage_rows(r["damage"], row)
        if r.get("consistency") is not None and not r["consistency"] & 4:
            row("", f"(--consistency {r['consistency'] | 4} reads what comes before damage)")
        return "\n".join(lines)
    model = MODELS.get(r["model"], "")
    row("tracker", f"revision {r['revision']}, model {r['model']}" + (f" ({model})" if model else ""))
    blocks = r["blocks"]
    shown = range(len(blocks))
    if len(blocks) > 20:
        shown = list(range(10)) + [None] + list(range(len(blocks) - 5, len(blocks)))
    width = len(str(len(blocks)))
    for k in shown:
        if k is None:
            row("", f"... {len(blocks) - 15} more blocks (orb info --json lists them all)")
            continue
        b = blocks[k]
        if b["end_ms"] is None:
            span = f"from {b['start_ms']} ms, no block end"
        else:
            span = f"{b['start_ms']}-{b['end_ms']} ms ({b['duration_ms'] / 1000:.3f} s)"
        row(
            f"block {k + 1:>{width}}" if len(blocks) > 1 else "block",
            f"{span}, {b['sample_rate']:g} Hz, {b['eyes']} eye{'s' if b['eyes'] == 'both' else ''}",
        )
    if not blocks:
        row("blocks", "none")
    filled = r["placeholder_samples"]
    row("samples", _n(r["samples"]) + (f" ({_n(filled)} placeholders filled)" if filled else ""))
    for key in ("fixations", "saccades", "blinks", "messages", "trials"):
        row(key, _n(r[key]))
    _damage_rows(r["damage"], row)
    return "\n".join(lines)


def _damage_rows(damage, row, most=8):
    """The library's lines, those that differ only in their numbers taken
    together: the first of them and how many more."""
    if not damage:
        row("damage", "none reported")
        return
    kinds = {}
    for line in damage:
        kinds.setdefault(re.sub(r"\d+", "#", line), []).append(line)
    for k, lines in enumerate(kinds.values()):
        if k == most:
            row("", f"... {len(kinds) - most} more kinds of lines ({len(damage)} lines in all)")
            break
        more = len(lines) - 1
        row("damage" if k == 0 else "", lines[0] + (f"  (and {more} more like it)" if more else ""))


# ---------------------------------------------------------------------------
# orb convert


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

    def update(self, p: many.Progress):
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


def _run_convert(args) -> int:
    paths = many.expand_paths(args.files)
    if not paths:
        raise _UsageError("no recordings: the folders given hold no .orb files")
    if os.path.exists(args.output) and not os.path.isdir(args.output):
        raise _UsageError(f"{args.output} exists and is not a folder")
    if args.format == "fif" and args.tables is not None:
        raise _UsageError("--tables does not apply to --format fif (one file per recording)")
    options = dict(
        consistency=args.consistency, velocities=args.velocities, camera=args.camera, variables=args.variables
    )
    bar = _ProgressBar(paths, sys.stderr) if sys.stderr.isatty() else None

    def progress(p):
        if bar is not None:
            bar.update(p)
        elif p.error:
            _error(f"{p.path}: {p.error}")

    try:
        with many.LogCapture():  # failures are reported here, not logged
            result = many.convert(
                paths,
            args.output,
                format=args.format,
                jobs=args.jobs,
                tables=args.tables or many.TABLES,
                progress=progress,
                **options,
            )
    except ImportError as e:
        raise _UsageError(str(e))
    finally:
        if bar is not None:
            bar.close()
    print(_summary_line(result, args.format, len(paths)), flush=True)
    return EXIT_FAILED if result.failed else EXIT_OK


def _summary_line(result: many.ConvertResult, fmt: str, total: int) -> str:
    seconds = max(result.seconds, 1e-9)
    text = (
        f"Converted {len(result.converted)} of {total} recording{'s' if total != 1 else ''} to "
        f"{result.out_dir} ({fmt}): {_n(result.samples)} samples in {result.seconds:.1f} s "
        f"({result.samples / seconds / 1e6:.1f} M samples/s)."
    )
    if result.failed:
        text += f" {len(result.failed)} failed."
    if result.warnings:
        n = len(result.warnings)
        text += f" {n} recording{'s' if n != 1 else ''} reported damage (see orb info)."
    return text


if __name__ == "__main__":  # pragma: no cover
    sys.exit(main())
