"""What the viewer's page asks for, computed from one recording in memory.

The recording is read once; every answer is then a binary search on the
sample times and a pass over the samples of the asked span.  A wide span is
reduced to the smallest and largest value of every pixel column, so that an
answer holds at most a few thousand points whatever the span, and shows
every excursion and every gap that the undecimated samples would.

Arrays go out as base64 text of their little-endian bytes (``{"dtype":
"f4", "b64": ...}``): exact, compact and quick to make and to read.
"""
from __future__ import annotations

import base64
import math
import os

import numpy as np

#: The most pixel columns (and so points per series) one answer may ask for.
MAX_COLUMNS = 4000
#: A span with at most this many samples per column is sent as the samples.
SAMPLES_PER_COLUMN = 2
#: The most fixations and saccades the scanpath of one span receives.
MAX_SCANPATH = 600
#: Events of a span merged so that at most about one shade starts per column;
#: a merged shade lists its events when it holds at most this many.
MAX_LISTED = 4

SERIES = ("gaze_x", "gaze_y", "pupil_size")
EYES = ("left", "right")
KINDS = ("fixations", "saccades", "blinks")
MODELS = {1: "", 2: "MK", 3: "HQ"}

# Content bits of an event: its start, end and average gaze, and the two
# ways a gaze position is stored.
_START_GAZE, _END_GAZE, _AVG_GAZE, _GAZE_WORDS = 0x0008, 0x0010, 0x0020, 0x1400
_AVG_PUPIL = 0x0104


class RequestError(ValueError):
    """A request the data cannot answer: ``status`` is the HTTP status."""

    def __init__(self, status: int, text: str):
        super().__init__(text)
        self.status = status


def encode(a: np.ndarray) -> dict:
    """An array as ``{"dtype", "b64"}``: base64 of its little-endian bytes."""
    a = np.ascontiguousarray(a)
    dtype = a.dtype.newbyteorder("<")
    return {"dtype": dtype.str[1:], "b64": base64.b64encode(a.astype(dtype, copy=False).tobytes()).decode()}


def decode(obj: dict) -> np.ndarray:
    """The array that :func:`encode` gave ``obj`` for."""
    return np.frombuffer(base64.b64decode(obj["b64"]), dtype="<" + obj["dtype"])


def _float32(a) -> np.ndarray:
    """`a` as float32 with the stored missing markers made NaN."""
    a = np.asarray(a, dtype=np.float32)
    missing = (a == -32768.0) | (a == 100000000.0)
    return np.where(missing, np.float32(np.nan), a) if missing.any() else a


def _number(v):
    """A table value as JSON has it: None for NaN, Python numbers, text."""
    if isinstance(v, (np.floating, float)):
        return None if math.isnan(v) else float(v)
    if isinstance(v, (np.integer, int)):
        return int(v)
    return None if v is None else str(v)


class ViewData:
    """The viewer's answers about one :class:`orbapi.Recording`.

    `damage` lists what the library reported while reading it (None when
    not known), `file` names it in the header.

    Example::

        data = ViewData(orbapi.read("run1.orb", variables="all"))
        data.samples(100000, 160000, 1200)["mode"]      # "minmax"
    """

    def __init__(self, recording, *, damage=None, file=None):
        cols = recording.columns("samples")
        time = np.asarray(cols.get("time", np.zeros(0)), dtype=np.float64)
        order = np.argsort(time, kind="stable") if time.size > 1 and (np.diff(time) < 0).any() else None
        pick = (lambda a: np.asarray(a)[order]) if order is not None else np.asarray
        self.time = pick(time)
        self.block = pick(cols.get("block", np.zeros(time.size, np.int32)))
        self.series: dict[str, np.ndarray] = {}
        for name in SERIES:
            for eye in EYES:
                key = f"{name}_{eye}"
                if key in cols:
                    v = pick(_float32(cols[key]))
                    if np.isfinite(v).any():
                        self.series[key] = v
        self._minmax = _MinMax(self.series)
        steps = np.diff(self.time[:4097])
        steps = steps[steps > 0]
        #: Samples further apart than this (ms) are not joined by a line.
        self.gap = 4 * float(np.median(steps)) if steps.size else math.inf

        self.events = {kind: self._event_table(recording, kind) for kind in KINDS}
        messages = recording.columns("messages")
        mt = np.asarray(messages.get("time", np.zeros(0)), dtype=np.float64)
        morder = np.argsort(mt, kind="stable")
        self.message_time = mt[morder]
        self.message_text = [str(messages["text"][i]) for i in morder]
        self.trials = _trial_rows(recording.columns("trials"))
        self.first, self.last = self._extent(recording)
        self.info = self._info(recording, damage, file)
        self.screen = self._screen()

    # -- building -----------------------------------------------------------
    def _event_table(self, recording, kind) -> dict[str, np.ndarray]:
        """The events of `kind`, ordered by start, with a position each: the
        stored one where the event has it, else the mean (fixations) or the
        first and last (saccades) gaze samples of its span."""
        t = recording.columns(kind)
        start = np.asarray(t.get("start_time", np.zeros(0)), dtype=np.float64)
        order = np.argsort(start, kind="stable")
        out = {"start": start[order],
               "end": np.asarray(t.get("end_time", np.zeros(0)), dtype=np.float64)[order],
               "eye": np.asarray(t.get("eye", np.zeros(0)), dtype=np.int8)[order]}
        n = start.size
        if not n:
            fields = ("x", "y", "pupil") if kind == "fixations" else ("start_x", "start_y", "end_x", "end_y")
            out.update({k: np.zeros(0) for k in ("reach", "row") + fields})
            return out
        contents = np.asarray(t["contents"], dtype=np.int64)[order]
        stored = (contents & _GAZE_WORDS) != 0
        get = lambda c: _float32(t[c])[order].astype(np.float64)  # noqa: E731
        if kind == "fixations":
            x, y = get("avg_gaze_x"), get("avg_gaze_y")
            have = stored & ((contents & _AVG_GAZE) != 0)
            self._fill(x, y, out["eye"], ~have, self._mean_gaze(out["start"], out["end"]))
            pupil = get("avg_pupil")
            pupil[(contents & _AVG_PUPIL) != _AVG_PUPIL] = np.nan
            out.update(x=x, y=y, pupil=pupil)
        else:
            for part, bit, at in (("start", _START_GAZE, out["start"]), ("end", _END_GAZE, out["end"])):
                x, y = get(f"{part}_gaze_x"), get(f"{part}_gaze_y")
                have = stored & ((contents & bit) != 0)
                self._fill(x, y, out["eye"], ~have, self._gaze_at(at))
                out[f"{part}_x"], out[f"{part}_y"] = x, y
        # The latest end of the events so far: the first event that can
        # overlap a span is found by a binary search on it.
        out["reach"] = np.maximum.accumulate(out["end"])
        out["row"] = order
        return out

    def _eye_series(self, eye):
        name = EYES[eye] if 0 <= eye < 2 else "left"
        return self.series.get(f"gaze_x_{name}"), self.series.get(f"gaze_y_{name}")

    def _fill(self, x, y, eyes, lacking, where):
        """Fills `x`, `y` where `lacking` with where(series, rows) of the
        gaze of each row's eye."""
        for eye in np.unique(eyes[lacking]):
            rows = np.flatnonzero(lacking & (eyes == eye))
            for out, v in zip((x, y), self._eye_series(int(eye))):
                out[rows] = np.nan if v is None else where(v, rows)

    def _mean_gaze(self, start, end):
        """where() for _fill: the mean gaze from `start` to `end` ms."""
        def mean(v, rows):
            ok = np.isfinite(v)
            total = np.r_[0.0, np.cumsum(np.where(ok, v, 0.0), dtype=np.float64)]
            count = np.r_[0, np.cumsum(ok)]
            i0 = np.searchsorted(self.time, start[rows], "left")
            i1 = np.searchsorted(self.time, end[rows], "right")
            n = count[i1] - count[i0]
            with np.errstate(invalid="ignore", divide="ignore"):
                return np.where(n > 0, (total[i1] - total[i0]) / n, np.nan)
        return mean

    def _gaze_at(self, at):
        """where() for _fill: the gaze at the first sample at or after `at` ms."""
        def first(v, rows):
            i = np.searchsorted(self.time, at[rows], "left")
            return np.where(i < v.size, v[np.minimum(i, v.size - 1)], np.nan)
        return first

    def _extent(self, recording):
        firsts = [a for a in (self.time[:1], self.message_time[:1]) if a.size]
        lasts = [a for a in (self.time[-1:], self.message_time[-1:]) if a.size]
        for e in self.events.values():
            if e["start"].size:
                firsts.append(e["start"][:1])
                lasts.append(e["reach"][-1:])
        blocks = recording.columns("blocks")
        if len(blocks.get("time", ())):
            firsts.append(np.asarray(blocks["time"], dtype=np.float64))
            lasts.append(np.asarray(blocks["end_time"], dtype=np.float64))
        if not firsts:
            return 0.0, 0.0
        return float(min(a.min() for a in firsts)), float(max(a.max() for a in lasts))

    def _info(self, recording, damage, file) -> dict:
        """The header: what ``orb info`` tells about the recording."""
        info = recording.info
        blocks = recording.columns("blocks")
        samples = recording.columns("samples")
        placeholders = 0
        if "extra_type" in samples and "extra_data_0" in samples:
            placeholders = int(np.count_nonzero((samples["extra_type"] == 32767)
                                                & (samples["extra_data_0"] == 32767)))
        block_list = []
        for k in range(len(blocks.get("time", ()))):
            end = int(blocks["end_time"][k])
            block_list.append({"start_ms": int(blocks["time"][k]), "end_ms": end if end >= 0 else None,
                               "sample_rate": float(blocks["sample_rate"][k]),
                               "eyes": {1: "left", 2: "right", 3: "both"}.get(int(blocks["eyes"][k]), "?")})
        model = int(info.get("oculant_revision") or 0)
        path = file if file is not None else recording.path
        return {
            "file": os.path.basename(path) if path else "recording from memory",
            "path": os.fspath(path) if path else None,
            "revision": info.get("revision"),
            "model": model,
            "model_name": MODELS.get(model, ""),
            "blocks": block_list,
            "samples": int(self.time.size),
            "placeholder_samples": placeholders,
            **{kind: int(self.events[kind]["start"].size) for kind in KINDS},
            "messages": len(self.message_text),
            "trials": len(self.trials),
            "first_ms": self.first,
            "last_ms": self.last,
            "damage": None if damage is None else list(damage),
            "series": list(self.series),
        }

    def _screen(self):
        """The screen area the scanpath shows: from 0 to a little beyond the
        largest gaze position of the recording that is not an outlier, at
        least half as high as wide."""
        out = []
        for axis in ("x", "y"):
            v = [self.series[k] for k in (f"gaze_{axis}_left", f"gaze_{axis}_right") if k in self.series]
            v = np.concatenate(v) if v else np.zeros(0, np.float32)
            v = v[:: max(1, v.size // 500000)]  # a quantile needs no more
            v = v[np.isfinite(v)]
            out.append(max(1.0, float(np.percentile(v, 99.9)) * 1.05 if v.size else 1.0))
        return [out[0], max(out[1], out[0] / 2)]

    # -- answers ------------------------------------------------------------
    def page(self) -> dict:
        """What the page needs once: the header, the trials, the extent."""
        return {"info": self.info, "trials": self.trials, "first": self.first, "last": self.last,
                "screen": self.screen, "max_columns": MAX_COLUMNS}

    def _span(self, start, end, columns=None):
        """Checks a requested span (ms) and number of pixel columns."""
        if not (math.isfinite(start) and math.isfinite(end)) or end <= start:
            raise RequestError(400, f"the span must have start < end, finite numbers of ms (not {start}, {end})")
        if end < self.first or start > self.last:
            raise RequestError(416, f"the span {start:g}-{end:g} ms lies outside the recording "
                                    f"({self.first:g}-{self.last:g} ms)")
        if columns is not None and not 1 <= columns <= MAX_COLUMNS:
            raise RequestError(400, f"columns must be 1 to {MAX_COLUMNS}, not {columns}")

    def samples(self, start: float, end: float, columns: int) -> dict:
        """The samples from `start` to `end` ms for a chart `columns` pixels
        wide: the samples themselves (``mode`` "samples", with the one before
        and the one after the span, and ``breaks``, the positions where a
        pause or a new block begins) when there are at most two a column; else
        (``mode`` "minmax") the smallest and largest value of each series in
        each column, column k holding the samples from start + k * w up to,
        not including, start + (k + 1) * w (the last one up to and including
        `end`), w = (end - start) / columns; NaN where a column has none."""
        self._span(start, end, columns)
        t = self.time
        i0 = int(np.searchsorted(t, start, "left"))
        i1 = int(np.searchsorted(t, end, "right"))
        out = {"start": start, "end": end, "columns": columns, "count": i1 - i0}
        if i1 - i0 <= SAMPLES_PER_COLUMN * columns:
            j0, j1 = max(i0 - 1, 0), min(i1 + 1, t.size)
            tt = t[j0:j1]
            breaks = np.flatnonzero((np.diff(tt) > self.gap) | (np.diff(self.block[j0:j1]) != 0)) + 1
            out.update(mode="samples", time=encode(tt), breaks=breaks.tolist(),
                       series={k: encode(v[j0:j1]) for k, v in self.series.items()})
            return out
        edges = start + (end - start) * (np.arange(columns, dtype=np.float64) / columns)
        first = np.searchsorted(t, edges, "left")
        reduce = self._minmax.columns(first, np.r_[first[1:], i1])
        series = {}
        for k, v in self.series.items():
            lo, hi = reduce(k, v)
            series[k] = {"min": encode(lo), "max": encode(hi)}
        out.update(mode="minmax", series=series)
        return out

    def _overlapping(self, kind, start, end):
        """Positions of the events of `kind` that overlap `start`..`end`."""
        e = self.events[kind]
        return int(np.searchsorted(e["reach"], start, "left")), int(np.searchsorted(e["start"], end, "right"))

    def _events(self, kind, e, rows) -> list[dict]:
        """The events at positions `rows` of `e`, one dict each."""
        eyes = e["eye"][rows].tolist()
        cols = {"start": e["start"][rows], "end": e["end"][rows]}
        cols["duration"] = cols["end"] - cols["start"]
        for k in ("x", "y", "pupil", "start_x", "start_y", "end_x", "end_y"):
            if k in e:
                cols[k] = e[k][rows]
        lists = {k: [None if v != v else v for v in a.tolist()] for k, a in cols.items()}  # NaN: None
        name = kind[:-1]
        return [{"kind": name, "eye": EYES[eye] if 0 <= eye < 2 else str(eye),
                 **{k: lists[k][i] for k in lists}} for i, eye in enumerate(eyes)]

    def events_in(self, start: float, end: float, columns: int) -> dict:
        """The fixations, saccades and blinks from `start` to `end` ms as
        shades, and the messages as ticks, for a chart `columns` pixels wide.
        Events of both eyes whose spans overlap or lie less than a column
        apart are merged into one shade (``n`` events, listed in ``events``
        when they are few and the shade at least a column wide); messages in one column make one tick with the
        first one's text and their number."""
        self._span(start, end, columns)
        width = (end - start) / columns
        spans = {}
        for kind in KINDS:
            e = self.events[kind]
            i0, i1 = self._overlapping(kind, start, end)
            rows = i0 + np.flatnonzero(e["end"][i0:i1] >= start)
            s, f = e["start"][rows], e["end"][rows]
            reach = np.maximum.accumulate(f) if rows.size else f
            firsts = np.flatnonzero(np.r_[True, s[1:] - reach[:-1] >= width]) if rows.size else rows
            counts = np.diff(np.r_[firsts, rows.size])
            ends = np.maximum.reduceat(f, firsts) if rows.size else f
            # A shade lists its events when they are few and it is wide
            # enough to point at; those events are made at once.
            lists = (counts <= MAX_LISTED) & (ends - s[firsts] >= width) if rows.size else counts > 0
            events = iter(self._events(kind, e, rows[np.repeat(lists, counts)]))
            spans[kind] = [
                {"start": a, "end": b, "n": n, "events": [next(events) for _ in range(n)] if show else []}
                for a, b, n, show in zip(s[firsts].tolist(), ends.tolist(), counts.tolist(), lists.tolist())]
        m0 = int(np.searchsorted(self.message_time, start, "left"))
        m1 = int(np.searchsorted(self.message_time, end, "right"))
        column = ((self.message_time[m0:m1] - start) / width).astype(np.int64)
        firsts = np.flatnonzero(np.r_[True, column[1:] != column[:-1]]) if column.size else column
        counts = np.diff(np.r_[firsts, column.size])
        ticks = [{"time": float(self.message_time[m0 + j]), "text": self.message_text[m0 + j], "n": int(n)}
                 for j, n in zip(firsts, counts)]
        return {"start": start, "end": end, "columns": columns, "spans": spans, "messages": ticks}

    def scanpath(self, start: float, end: float) -> dict:
        """The fixations and saccades that overlap `start`..`end` ms, in
        order of their starts, as columns (``start``, ``end``, ``duration``,
        ``eye`` 0 left 1 right, then ``x``, ``y``, ``pupil`` of fixations or
        ``start_x`` ... ``end_y`` of saccades); every n-th only when there
        are more than MAX_SCANPATH (``total`` says how many there are)."""
        self._span(start, end)
        out = {"start": start, "end": end, "screen": self.screen}
        for kind, fields in (("fixations", ("x", "y", "pupil")),
                             ("saccades", ("start_x", "start_y", "end_x", "end_y"))):
            e = self.events[kind]
            i0, i1 = self._overlapping(kind, start, end)
            rows = i0 + np.flatnonzero(e["end"][i0:i1] >= start)
            total = int(rows.size)
            if rows.size > MAX_SCANPATH:
                rows = rows[np.linspace(0, rows.size - 1, MAX_SCANPATH).round().astype(np.int64)]
            cols = {k: encode(e[k][rows]) for k in ("start", "end", "eye") + fields}
            cols["duration"] = encode(e["end"][rows] - e["start"][rows])
            out[kind] = {"total": total, "columns": cols}
        return out

class _MinMax:
    """Smallest and largest value of stretches of samples, from the samples
    themselves, or, where the columns hold more than SAMPLES samples each
    on average,
    mostly from the smallest and largest value of each bucket of BUCKET
    samples, made once: such a column then reads its buckets and the fewer
    than 2 * BUCKET samples at its ends.  A pass over the samples costs per
    sample, the buckets per column: on this machine they cost the same at
    about 1,000 samples a column (an hour at 1,700 columns: 15 ms one way,
    7 ms the other)."""

    BUCKET = 32
    SAMPLES = 1024

    def __init__(self, series):
        b = self.BUCKET
        self.levels = {}
        for k, v in series.items():
            whole = v[: v.size // b * b].reshape(-1, b)
            pad = np.full(1, np.nan, v.dtype)  # so that the index past the last bucket is one
            self.levels[k] = (np.r_[np.fmin.reduce(whole, axis=1), pad], np.r_[np.fmax.reduce(whole, axis=1), pad])

    def _ends(self, starts, stops):
        """A function v -> (fmin, fmax) of v[starts[i]:stops[i]] for each i
        (NaN where empty), for runs shorter than BUCKET: row j of a gather
        holds the j-th sample of every run, or its last one again past its
        end, so that the rows reduce into one another."""
        index = np.maximum(np.minimum(starts[None, :] + np.arange(self.BUCKET)[:, None], stops - 1), 0)
        empty = stops <= starts

        def reduce(v):
            rows = v[index]
            lo, hi = np.fmin.reduce(rows, axis=0), np.fmax.reduce(rows, axis=0)
            lo[empty], hi[empty] = np.nan, np.nan
            return lo, hi
        return reduce

    @staticmethod
    def _adjacent(v, a, b):
        """fmin and fmax of v[a[k]:b[k]] for columns that follow one another:
        reduceat runs each up to the next one that has samples, which is
        where it ends, but the last one up to the end of `v`."""
        lo = np.full(a.size, np.nan, v.dtype)
        hi = lo.copy()
        some = np.flatnonzero(b > a)
        if some.size:
            lo[some], hi[some] = np.fmin.reduceat(v, a[some]), np.fmax.reduceat(v, a[some])
            k = some[-1]
            lo[k], hi[k] = np.fmin.reduce(v[a[k]:b[k]]), np.fmax.reduce(v[a[k]:b[k]])
        return lo, hi

    def columns(self, a, b):
        """A function (name, values) -> (smallest, largest) over v[a[k]:b[k]]
        for each column k; the columns follow one another (b[k] == a[k + 1]
        except for the last)."""
        b_ = self.BUCKET
        if (b[-1] - a[0]) < self.SAMPLES * a.size:
            return lambda name, v: self._adjacent(v, a, b)
        first_full = -(-a // b_)
        past_full = b // b_
        full = past_full > first_full
        head_end = np.minimum(b, first_full * b_)
        tail_start = np.maximum(past_full * b_, head_end)
        pairs = np.empty(2 * a.size, np.int64)
        pairs[0::2], pairs[1::2] = first_full, past_full
        heads, tails = self._ends(a, head_end), self._ends(tail_start, b)

        def reduce(name, v):
            levels_lo, levels_hi = self.levels[name]
            at = np.minimum(pairs, levels_lo.size - 1)
            lo = np.where(full, np.fmin.reduceat(levels_lo, at)[0::2], np.nan)
            hi = np.where(full, np.fmax.reduceat(levels_hi, at)[0::2], np.nan)
            for ends in (heads(v), tails(v)):
                lo, hi = np.fmin(lo, ends[0]), np.fmax(hi, ends[1])
            return lo.astype(v.dtype), hi.astype(v.dtype)
        return reduce


def _trial_rows(trials) -> list[dict]:
    """The trials table as a list of dicts, one per trial."""
    names = list(trials)
    n = len(trials[names[0]]) if names else 0
    return [{k: _number(trials[k][i]) for k in names} for i in range(n)]
