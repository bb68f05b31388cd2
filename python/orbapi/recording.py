"""A whole recording as tables: ``orbapi.read()`` and :class:`Recording`."""
from __future__ import annotations

import os
import re
from collections.abc import Iterable, Mapping, Sequence
from typing import Any

import numpy as np

from . import _arrow, _core
from ._facts import EBLINK, EFIX, ESACC, EYES_OF_MASK, MESSAGE
from ._optional import require
from ._source import Source, resolve
from .trials import trial_table

_END_KINDS = {"fixations": EFIX, "saccades": ESACC, "blinks": EBLINK}

#: The tables of a Recording, in the order they are listed.
TABLES = ("samples", "events", "messages", "blocks", "trials", "fixations", "saccades", "blinks")

Columns = dict[str, np.ndarray]


def read(path: Source, *, consistency: int = 0, events: bool = True, samples: bool = True,
         velocities: bool = False, camera: bool = False, trial_start: str | None = "TRIALID",
         trial_end: str | None = None, variables: Sequence[str] | str | None = None,
         variable_prefix: str = "", sentinels: bool = False) -> "Recording":
    """Reads a whole recording into tables.

    `path` is a file path, or the recording's bytes (``bytes``, ``bytearray``
    or ``memoryview``). `consistency` is the library's consistency word (0 as
    stored, 1 check, 2 check and repair; +4 tolerant scan, +8 no time-offset
    removal); `events` and `samples` choose what is indexed; `velocities`
    adds the 24 velocity columns to the samples; `camera` adds the raw pupil
    and corneal-reflection values. `trial_start` and `trial_end` are the texts
    of the messages that start and end a trial. `variables` lists the keys of
    ``KEY VALUE`` messages that become columns of the trials table (``"all"``
    for every such message); with `variable_prefix` only messages that begin
    with that text are variables, the key following it (see
    :mod:`orbapi.trials`). With `sentinels` the stored missing markers
    -32768.0 and 100000000.0 stay as stored instead of becoming NaN.

    The file is read with the GIL released, so recordings read on several
    threads are read in parallel. Raises FileNotFoundError for a missing
    file and :class:`orbapi.OrbError` with the library's reason for a file it
    refuses. The library's log lines go to the ``logging`` logger
    ``"orbapi"`` as warnings. A read that stops before the end of the file's
    bytes (an item tag or event type of 0, damage under a tolerant scan, the
    inflating limit) raises nothing: its line is one of those warnings and
    ``info["ended_early"]`` tells the reason and the position (None when
    every byte was read).

    Example::

        rec = orbapi.read("run1.orb", velocities=True, variables=["condition"])
        rec.samples[["time", "gaze_x_left", "gaze_vel_x_left"]]
        rec.trials.groupby("condition").duration.mean()
    """
    fpath, data, name = resolve(path)
    flags = (_core.VELOCITIES if velocities else 0) | (_core.CAMERA if camera else 0)
    cols = _core.read_columns(fpath, data, int(consistency), bool(events), bool(samples), flags,
                              trial_start, trial_end, bool(sentinels))
    rec = Recording._from_columns(cols, variables=variables, prefix=variable_prefix, path=name)
    rec.sentinels = bool(sentinels)
    return rec


class Recording:
    """A recording read by :func:`orbapi.read`.

    Tables (pandas DataFrames, built on first use from the numpy columns
    without copying them; rows in delivery order):

    - ``samples``: one row per sample (``time`` in float ms, ``gaze_x_left``,
      ``pupil_size_right``, ..., ``block``, ``trial``);
    - ``events``: one row per event item other than messages (fixation,
      saccade and blink starts and ends, block markers, point events);
    - ``messages``: ``time``, ``text``, ``block``, ``trial``;
    - ``blocks``: one row per recording block, with ``end_time``;
    - ``trials``: one row per trial, then one column per trial variable;
    - ``fixations``, ``saccades``, ``blinks``: the end items of each kind,
      with ``duration``.

    ``info`` is a dict of facts about the file, ``path`` the file it was
    read from (None for bytes). ``columns(table)`` gives the numpy arrays
    themselves; ``to_arrow()`` and ``to_polars()`` give every table in
    those libraries, a missing value there as null (see ``to_arrow``).

    Example::

        rec = orbapi.read("run1.orb")
        rec.info["sample_rate"], len(rec.samples), rec.blinks.duration.mean()
    """

    def __init__(self, tables: Mapping[str, Columns], info: Mapping[str, Any] | None = None,
                 path: str | None = None, *, sentinels: bool = False):
        self._tables: dict[str, Columns] = {name: dict(tables.get(name, {})) for name in TABLES}
        #: Facts about the recording (see :func:`orbapi.read`).
        self.info: dict[str, Any] = dict(info or {})
        #: The file the recording was read from; None when read from bytes.
        self.path: str | None = path
        #: Whether the stored missing markers were kept (``read(sentinels=True)``).
        self.sentinels: bool = bool(sentinels)
        self._frames: dict[str, Any] = {}

    # -- building -----------------------------------------------------------
    @classmethod
    def from_tables(cls, tables: Mapping[str, Any], info: Mapping[str, Any] | None = None,
                    path: str | None = None) -> "Recording":
        """A Recording made of ready tables: each a mapping of column name to
        array, or a pandas DataFrame. Missing tables are empty.

        Example::

            rec = Recording.from_tables({"samples": {"time": np.arange(3.0)}})
        """
        out = {}
        for name, table in tables.items():
            if name not in TABLES:
                raise ValueError(f"unknown table {name!r}; the tables are {', '.join(TABLES)}")
            if hasattr(table, "columns") and hasattr(table, "to_numpy"):  # a DataFrame
                out[name] = {str(c): table[c].to_numpy() for c in table.columns}
            else:
                out[name] = {str(c): np.asarray(v) for c, v in table.items()}
        return cls(out, info, path)

    @classmethod
    def concat(cls, recordings: Iterable["Recording"], *, tag: str = "file",
               names: Sequence[str] | None = None) -> "Recording":
        """One Recording holding the rows of several, each table with a first
        column `tag` naming the recording a row came from: the file name of
        its ``path`` unless `names` are given. A column some recordings lack
        (a trial variable, say) is filled with NaN (None for text) there.
        ``info["recordings"]`` lists the recordings' info dicts.

        Example::

            both = Recording.concat([orbapi.read("a.orb"), orbapi.read("b.orb")])
            both.trials.groupby("file").size()
        """
        recs = list(recordings)
        if names is None:
            names = [os.path.basename(r.path) if r.path else f"recording{i}"
                     for i, r in enumerate(recs)]
        if len(names) != len(recs):
            raise ValueError("one name per recording is needed")
        tables = {}
        for table in TABLES:
            parts = [r._tables[table] for r in recs]
            order: list[str] = []
            for p in parts:
                order += [c for c in p if c not in order and c != tag]
            rows = [_rows(p) for p in parts]
            cols: Columns = {tag: np.repeat(np.array(list(names), dtype=object), rows)}
            for c in order:
                cols[c] = np.concatenate([p[c] if c in p else _filler(parts, c, n)
                                          for p, n in zip(parts, rows)])
            tables[table] = cols
        info = {"recordings": [r.info for r in recs], "files": list(names)}
        return cls(tables, info, None, sentinels=bool(recs) and all(r.sentinels for r in recs))

    @classmethod
    def _from_columns(cls, cols, *, variables, prefix, path) -> "Recording":
        samples = dict(cols.table(_core.SAMPLES))
        if "time" in samples:
            samples["time"] = cols.sample_time()
        allevents = dict(cols.table(_core.EVENTS))
        blocks = dict(cols.table(_core.BLOCKS))
        trials = dict(cols.table(_core.TRIALS))

        is_message = allevents["type"] == MESSAGE
        keep = ~is_message
        events = {k: v[keep] for k, v in allevents.items()
                  if k not in ("message_offset", "message_length")}
        messages = {
            "time": allevents["start_time"][is_message],
            "text": np.array(cols.messages(), dtype=object),
            "block": allevents["block"][is_message],
            "trial": allevents["trial"][is_message],
        }
        tables = {
            "samples": samples,
            "events": events,
            "messages": messages,
            "blocks": _block_table(blocks),
            "trials": trial_table(trials, messages, variables, prefix),
        }
        for name, code in _END_KINDS.items():
            sel = events["type"] == code
            t = {k: v[sel] for k, v in events.items()}
            t["duration"] = t["end_time"].astype(np.int64) - t["start_time"].astype(np.int64)
            tables[name] = t

        starts = tables["blocks"]
        first = {"sample_rate": None, "eyes": None}
        if len(starts["time"]):
            first = {"sample_rate": float(starts["sample_rate"][0]),
                     "eyes": EYES_OF_MASK.get(int(starts["eyes"][0]))}
        # Event items keep their times in start_time and end_time.
        firsts = [a for a in (samples.get("time"), blocks["time"], allevents["start_time"]) if len(a)]
        lasts = firsts + [a for a in (allevents["end_time"],) if len(a)]
        duration = (max(float(a.max()) for a in lasts) - min(float(a.min()) for a in firsts)) \
            if firsts else 0.0
        info = {
            "revision": cols.revision,
            "oculant_revision": cols.oculant_revision,
            "preamble": cols.preamble,
            **first,
            "blocks": int(len(starts["time"])),
            "items": int(cols.items),
            "samples": int(cols.rows(_core.SAMPLES)),
            "duration_ms": duration,
            "library_version": _core.library_version(),
            "ended_early": ended_early(cols.ended_early),
        }
        return cls(tables, info, path)

    # -- tables -------------------------------------------------------------
    def columns(self, table: str = "samples") -> Columns:
        """The columns of `table` as plain numpy arrays, not copied (the
        arrays of the samples point into the memory the library read into and
        keep it alive). Example: ``rec.columns("samples")["gaze_x_left"].mean()``"""
        if table not in TABLES:
            raise ValueError(f"unknown table {table!r}; the tables are {', '.join(TABLES)}")
        return dict(self._tables[table])

    def _frame(self, table: str):
        frame = self._frames.get(table)
        if frame is None:
            pd = require("pandas", "pandas")
            frame = pd.DataFrame(self._tables[table], copy=False)
            self._frames[table] = frame
        return frame

    @property
    def samples(self):
        """One row per sample item (pandas DataFrame).
        Example: ``rec.samples.query("trial == 2").gaze_x_left.mean()``"""
        return self._frame("samples")

    @property
    def events(self):
        """One row per event item other than messages (pandas DataFrame).
        Example: ``rec.events.type.value_counts()``"""
        return self._frame("events")

    @property
    def messages(self):
        """One row per message: ``time``, ``text``, ``block``, ``trial``.
        Example: ``rec.messages[rec.messages.text.str.startswith("stimulus")]``"""
        return self._frame("messages")

    @property
    def blocks(self):
        """One row per recording block, with its ``end_time`` (-1 when the
        block never ends). Example: ``rec.blocks.end_time - rec.blocks.time``"""
        return self._frame("blocks")

    @property
    def trials(self):
        """One row per trial: ``trial``, ``start_time``, ``end_time``,
        ``duration``, ``start_index``, ``end_index``, ``block``, variables.
        Example: ``rec.trials.set_index("trial").duration``"""
        return self._frame("trials")

    @property
    def fixations(self):
        """The fixation end items, one per fixation, with ``duration``.
        Example: ``rec.fixations.groupby("eye").duration.median()``"""
        return self._frame("fixations")

    @property
    def saccades(self):
        """The saccade end items, one per saccade, with ``duration``.
        Example: ``rec.saccades.duration.describe()``"""
        return self._frame("saccades")

    @property
    def blinks(self):
        """The blink end items, one per blink, with ``duration``.
        Example: ``len(rec.blinks)``"""
        return self._frame("blinks")

    def to_arrow(self) -> dict[str, Any]:
        """Every table as a pyarrow Table, numeric columns not copied.

        A missing value is null: the NaN of the float columns, and the
        stored markers of the samples' ``status``, ``input`` and
        ``extra_type``.  Read with ``sentinels=True``, the markers stay as
        stored. Example: ``pq.write_table(rec.to_arrow()["samples"], p)``"""
        return {name: self.arrow_table(name) for name in TABLES}

    def arrow_table(self, table: str = "samples"):
        """One table as :meth:`to_arrow` gives it.
        Example: ``rec.arrow_table("fixations").column("duration")``"""
        if table not in TABLES:
            raise ValueError(f"unknown table {table!r}; the tables are {', '.join(TABLES)}")
        return _arrow.table(self._tables[table], words=table == "samples" and not self.sentinels)

    def to_polars(self) -> dict[str, Any]:
        """Every table as a polars DataFrame, a missing value as null (see
        :meth:`to_arrow`).
        Example: ``rec.to_polars()["samples"].filter(pl.col("trial") == 3)``"""
        pl = require("polars", "polars")
        require("pyarrow", "arrow")
        return {name: pl.from_arrow(t) for name, t in self.to_arrow().items()}

    # -- drawing and the hand-offs to other toolkits ------------------------
    def plot(self, *args, **kwargs):
        """Draws the recording (see :func:`orbapi.plot.plot`).
        Example: ``rec.plot(trial=0)``"""
        from . import plot
        return plot.plot(self, *args, **kwargs)

    def to_mne(self, *args, **kwargs):
        """The recording as an MNE Raw object (see
        :func:`orbapi.toolkits.to_mne`). Example: ``raw = rec.to_mne()``"""
        from . import toolkits
        return toolkits.to_mne(self, *args, **kwargs)

    def to_pymovements(self, *args, **kwargs):
        """The recording as a pymovements Gaze object (see
        :func:`orbapi.toolkits.to_pymovements`).
        Example: ``gaze = rec.to_pymovements()``"""
        from . import toolkits
        return toolkits.to_pymovements(self, *args, **kwargs)

    def __repr__(self) -> str:
        n = {t: _rows(self._tables[t]) for t in ("samples", "events", "messages", "trials")}
        where = self.path or "<bytes>"
        return (f"<Recording {where}: {n['samples']} samples, {n['events']} events, "
                f"{n['messages']} messages, {n['trials']} trials>")


_STOPPED = re.compile(r"Reading stopped at byte (\d+) of the (file|inflated body): (.*) "
                      r"\((\d+) (compressed )?bytes not read\)")


def ended_early(text: str) -> dict[str, Any] | None:
    """Where and why a read stopped before the end of the recording's bytes,
    from the library's line that says so; None when it read them all.

    ``reason`` says what ended it ("an item tag of 0", "an event of type 0",
    "a damaged item", "the inflating limit"); ``position`` is the byte where
    that lies, counted in the file or, for a compressed one, in its inflated
    body (``within``); ``bytes_not_read`` counts the bytes after it (of the
    compressed file for the inflating limit); ``line`` is the line itself.

    Example::

        >>> orbapi.read("cut.orb", consistency=4).info["ended_early"]["reason"]
        'a damaged item'
    """
    m = _STOPPED.search(text or "")
    if not m:
        return None
    return {"reason": m.group(3), "position": int(m.group(1)), "within": m.group(2),
            "bytes_not_read": int(m.group(4)), "line": m.group(0)}


def _rows(cols: Columns) -> int:
    return len(next(iter(cols.values()))) if cols else 0


def _filler(parts: list[Columns], column: str, n: int) -> np.ndarray:
    """n missing values for a column some recordings lack."""
    kinds = {p[column].dtype.kind for p in parts if column in p}
    if kinds <= set("iufb"):
        return np.full(n, np.nan)
    return np.full(n, None, dtype=object)


def _block_table(blocks: Columns) -> Columns:
    """One row per block start, with the time of the block's end."""
    state = blocks["state"]
    time = blocks["time"]
    starts = np.flatnonzero(state == 1)
    end_time = np.full(len(starts), -1, dtype=np.int64)
    for i, s in enumerate(starts):
        following = s + 1 + np.flatnonzero(state[s + 1:] != 1)[:1]
        nxt = starts[i + 1] if i + 1 < len(starts) else len(state)
        if len(following) and following[0] < nxt:
            end_time[i] = int(time[following[0]])
    out = {"block": blocks["block"][starts]} if "block" in blocks else {}
    for k, v in blocks.items():
        if k not in ("block", "index"):
            out[k] = v[starts]
    out["end_time"] = end_time
    if "index" in blocks:
        out["index"] = blocks["index"][starts]
    return out
