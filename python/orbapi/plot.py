"""Pictures of a recording: one trial or time span in detail, or the whole
recording at a glance.

matplotlib is optional (``pip install 'orbapi[plot]'``) and imported only
when a picture is drawn.  Drawing never changes the recording: long spans
are reduced for drawing only, to the smallest and largest value of every
pixel column, so the picture of an hour shows every excursion and every gap
an undecimated one would.

Example::

    import orbapi
    rec = orbapi.read("run1.orb")
    fig = rec.plot(trial=3)             # one trial
    fig = rec.plot(start=120000, end=125000, eye="left")
    fig = rec.plot()                    # the overview: every block, a row each
    fig.savefig("trial3.png")

From the command line: ``orb plot run1.orb --trial 3 -o trial3.png``.
"""

from __future__ import annotations

import math
import os
import sys

import numpy as np

__all__ = ["plot", "overview", "add_plot_arguments", "run_plot"]

# Colours that stay apart for the two eyes, also for readers who do not tell
# red from green, and for the shaded events.
EYE_COLOURS = {"left": "#0072B2", "right": "#D55E00"}
SPAN_COLOURS = {"fixation": ("#009E73", 0.10), "saccade": ("#E69F00", 0.30),
                "blink": ("#4D4D4D", 0.35)}
_EYE_INDEX = {"left": 0, "right": 1}
# The left eye's line is drawn first and wider, so that where both eyes
# agree it still shows on both sides of the right eye's.
_LINE_WIDTH = {"left": 1.8, "right": 0.9}
_SELECT = {"left": ("left",), "right": ("right",), "both": ("left", "right")}

# The stored markers of a missing value.
from ._core import MISSING_POSITION, MISSING_VALUE
_MISSING = (MISSING_POSITION, MISSING_VALUE)

# Beyond these the scanpath shows every n-th sample, and numbers and message
# labels are left out so that they do not hide each other.
_SCANPATH_POINTS = 20000
_MAX_NUMBERED = 60
_MAX_LABELS = 40


def _matplotlib():
    try:
        import matplotlib  # noqa: F401
    except ImportError as e:
        raise ImportError(
            "drawing a recording needs matplotlib: pip install 'orbapi[plot]'"
        ) from e
    return matplotlib


# --------------------------------------------------------------------------
# The data a picture needs
# --------------------------------------------------------------------------


def _float(a):
    """A float copy of `a` with the missing markers made NaN."""
    a = np.asarray(a)
    if a.dtype.kind != "f":
        a = a.astype(np.float64)
    missing = (a == _MISSING[0]) | (a == _MISSING[1])
    if missing.any():
        a = np.where(missing, np.nan, a)
    return a


class _Samples:
    """Sample time, block and gaze of a recording, in time order, with
    missing values as NaN."""

    def __init__(self, recording):
        cols = recording.columns("samples")
        self.time = np.asarray(cols["time"], dtype=np.float64)
        self.block = np.asarray(cols["block"])
        self.gaze = {}
        for eye in ("left", "right"):
            x = _float(cols["gaze_x_" + eye])
            y = _float(cols["gaze_y_" + eye])
            if np.isfinite(x).any() or np.isfinite(y).any():
                self.gaze[eye] = (x, y)
        if self.time.size > 1 and (np.diff(self.time) < 0).any():
            order = np.argsort(self.time, kind="stable")
            self.time = self.time[order]
            self.block = self.block[order]
            self.gaze = {e: (x[order], y[order]) for e, (x, y) in self.gaze.items()}

    def eyes(self, eye):
        """The eyes of `eye` ("left", "right" or "both") that have data."""
        if eye not in _SELECT:
            raise ValueError(f"eye must be 'left', 'right' or 'both', not {eye!r}")
        have = [e for e in _SELECT[eye] if e in self.gaze]
        if not have and self.time.size:
            raise ValueError(f"the recording has no gaze of the {eye} eye")
        return have

    def span(self, lo, hi):
        """Index range of the samples from `lo` to `hi` ms."""
        return (int(np.searchsorted(self.time, lo, "left")),
                int(np.searchsorted(self.time, hi, "right")))


def _events(recording, kind, lo, hi, eyes):
    """The rows of the `kind` events (fixation, saccade, blink) of `eyes`
    that overlap `lo`..`hi` ms."""
    table = getattr(recording, kind + "s")
    if len(table) == 0:
        return table
    wanted = [_EYE_INDEX[e] for e in eyes]
    keep = ((table["end_time"] >= lo) & (table["start_time"] <= hi)
            & table["eye"].isin(wanted))
    return table[keep]


def _union(starts, ends):
    """The spans `starts`..`ends` with overlapping ones merged, so that the
    fixation both eyes make shades as one.  Also returns, per merged span,
    the position (in the input) of its first span."""
    starts = np.asarray(starts, dtype=np.float64)
    ends = np.asarray(ends, dtype=np.float64)
    if not starts.size:
        return starts, ends, np.zeros(0, np.int64)
    order = np.argsort(starts, kind="stable")
    s, e = starts[order], ends[order]
    reach = np.maximum.accumulate(e)
    first = np.flatnonzero(np.r_[True, s[1:] > reach[:-1]])
    return s[first], np.maximum.reduceat(e, first), order[first]


def _name(recording):
    path = getattr(recording, "path", None)
    return os.path.basename(str(path)) if path else "recording from memory"


def _breaks(t, ys, gap):
    """`t` and each of `ys` with a NaN put between two samples more than
    `gap` ms apart, so that a line is not drawn across a pause."""
    if t.size < 2:
        return t, ys
    at = np.flatnonzero(np.diff(t) > gap) + 1
    if not at.size:
        return t, ys
    return np.insert(t, at, np.nan), [np.insert(y, at, np.nan) for y in ys]


def _sample_gap(t):
    """Longest step between samples that still counts as continuous."""
    if t.size < 2:
        return math.inf
    steps = np.diff(t[: min(t.size, 4096)])
    steps = steps[steps > 0]
    return 4 * float(np.median(steps)) if steps.size else math.inf


def _minmax(key, ys, columns):
    """Smallest and largest value of each of `ys` per column.  `key` holds
    each sample's column (0 to `columns` - 1, never decreasing).  Returns
    one (min, max) pair of arrays of `columns` per series, a column without
    samples, or with only missing values, NaN; and the columns that have
    samples."""
    starts = np.flatnonzero(np.r_[True, key[1:] != key[:-1]]) if key.size else key
    used = key[starts] if key.size else key
    out = []
    for y in ys:
        lo = np.full(columns, np.nan)
        hi = np.full(columns, np.nan)
        if key.size:
            lo[used] = np.fmin.reduceat(y, starts)
            hi[used] = np.fmax.reduceat(y, starts)
        out.append((lo, hi))
    return out, used


def _interleave(lo, hi):
    """The min, max of each column one after the other, as a line draws
    them: a vertical stroke per column."""
    return np.column_stack([lo, hi]).ravel()


def _reduce(t, ys, lo, hi, columns):
    """`t` and `ys` from `lo` to `hi` ms, reduced to the min and max of each
    of `columns` pixel columns when there are many more samples than that;
    otherwise as they are, with NaN across pauses."""
    if t.size <= 3 * columns or hi <= lo:
        return _breaks(t, ys, _sample_gap(t))
    width = (hi - lo) / columns
    key = np.clip(((t - lo) / width).astype(np.int64), 0, columns - 1)
    pairs, _ = _minmax(key, ys, columns)
    centre = lo + (np.arange(columns) + 0.5) * width
    x = np.repeat(centre, 2)
    return x, [_interleave(a, b) for a, b in pairs]


def _pixel_columns(ax):
    bbox = ax.get_window_extent()
    return max(200, int(bbox.width))


# --------------------------------------------------------------------------
# Figures and axes
# --------------------------------------------------------------------------


def _root(fig):
    """The figure a (sub)figure lies in."""
    while getattr(fig, "figure", fig) is not fig and fig.figure is not None:
        fig = fig.figure
    return fig


def _new_figure(size):
    import matplotlib.pyplot as plt

    return plt.figure(figsize=size, layout="constrained")


def _trial_axes(ax):
    """The gaze-x, gaze-y and scanpath axes to draw a trial into."""
    from matplotlib.axes import Axes

    if ax is None:
        fig = _new_figure((13, 6.5))
        return _split(fig.add_gridspec(1, 1)[0], fig)
    if isinstance(ax, Axes):
        cell = ax.get_subplotspec()
        if cell is None:
            raise ValueError("ax must be an axes of a grid (e.g. from subplots)")
        fig = ax.figure
        ax.remove()
        return _split(cell, fig)
    if hasattr(ax, "add_gridspec"):  # a Figure or SubFigure
        if not ax.axes and hasattr(ax, "set_size_inches"):
            ax.set_size_inches(13, 6.5)
        return _split(ax.add_gridspec(1, 1)[0], ax)
    axes = list(ax)
    if len(axes) != 3 or not all(isinstance(a, Axes) for a in axes):
        raise TypeError("ax must be an Axes, a Figure or three Axes "
                        "(gaze x, gaze y, scanpath)")
    return axes


def _split(cell, fig):
    grid = cell.subgridspec(2, 2, width_ratios=[2.2, 1])
    ax_x = fig.add_subplot(grid[0, 0])
    ax_y = fig.add_subplot(grid[1, 0], sharex=ax_x)
    ax_scan = fig.add_subplot(grid[:, 1])
    return [ax_x, ax_y, ax_scan]


def _spans(ax, starts, ends, kind):
    """Shades `starts`..`ends` over the whole height of `ax`."""
    from matplotlib.collections import PolyCollection

    starts, ends, _ = _union(starts, ends)
    verts = np.empty((starts.size, 4, 2))
    verts[:, :, 0] = np.column_stack([starts, starts, ends, ends])
    verts[:, :, 1] = [0, 1, 1, 0]
    colour, alpha = SPAN_COLOURS[kind]
    spans = PolyCollection(verts, facecolors=colour, alpha=alpha, linewidths=0,
                           transform=ax.get_xaxis_transform(), label=kind,
                           gid=kind)
    ax.add_collection(spans, autolim=False)
    return spans


# --------------------------------------------------------------------------
# One trial or span
# --------------------------------------------------------------------------


def plot(recording, trial=None, *, start=None, end=None, eye="both", ax=None):
    """Draws one trial or a time span of `recording` and returns the figure.

    Two panels share the time axis (ms, the recording's clock): gaze x and
    gaze y of each eye, with fixations, saccades and blinks shaded and the
    messages marked by labelled ticks.  Beside them the scanpath: gaze in
    screen pixels (y downwards, as on the screen), fixations as circles
    sized by their duration and numbered in order.  Missing gaze leaves a
    gap in the lines.

    `trial` is a number of the ``trial`` column of ``recording.trials``;
    otherwise `start` and `end` (ms) bound the span, each defaulting to the
    first or last sample.  Without any of the three the overview of the
    whole recording is drawn (see :func:`overview`).  `eye` is "left",
    "right" or "both" (those of the two that were recorded).  `ax` may be
    an Axes of a grid, whose place the three panels then share, a Figure,
    or three Axes (gaze x, gaze y, scanpath); by default a new figure.

    Raises ValueError for an unknown trial, an empty span, or an eye that
    was not recorded; ImportError, naming the extra ``orbapi[plot]``, when
    matplotlib is missing.

    Example::

        fig = orbapi.read("run1.orb").plot(trial=2, eye="left")
        fig.savefig("trial2.png")
    """
    if trial is None and start is None and end is None:
        return overview(recording, eye=eye, ax=ax)
    _matplotlib()
    samples = _Samples(recording)
    eyes = samples.eyes(eye)
    lo, hi, what = _trial_span(recording, samples, trial, start, end)
    ax_x, ax_y, ax_scan = _trial_axes(ax)
    fig = _root(ax_x.figure)

    i0, i1 = samples.span(lo, hi)
    t = samples.time[i0:i1]
    columns = _pixel_columns(ax_x)
    for e in eyes:
        x, y = (a[i0:i1] for a in samples.gaze[e])
        tt, (xx, yy) = _reduce(t, [x, y], lo, hi, columns)
        colour = EYE_COLOURS[e]
        lw = _LINE_WIDTH[e]
        ax_x.plot(tt, xx, color=colour, lw=lw, label=f"{e} eye", gid=f"gaze_x_{e}")
        ax_y.plot(tt, yy, color=colour, lw=lw, label=f"{e} eye", gid=f"gaze_y_{e}")
        _scanpath(ax_scan, t, x, y, colour, e)

    for kind in ("fixation", "saccade", "blink"):
        ev = _events(recording, kind, lo, hi, eyes)
        if len(ev):
            for a in (ax_x, ax_y):
                _spans(a, ev["start_time"], ev["end_time"], kind)
    _fixation_circles(ax_scan, _events(recording, "fixation", lo, hi, eyes))
    _messages(recording, (ax_x, ax_y), lo, hi)

    ax_x.set_xlim(lo, hi)
    ax_x.set_ylabel("gaze x (px)")
    ax_y.set_ylabel("gaze y (px)")
    ax_y.set_xlabel("time (ms)")
    ax_y.xaxis.set_major_formatter(_thousands())
    ax_x.tick_params(labelbottom=False)
    ax_scan.set_xlabel("gaze x (px)")
    ax_scan.set_ylabel("gaze y (px)")
    ax_scan.set_title("scanpath", fontsize="medium")
    ax_scan.set_aspect("equal", adjustable="datalim")
    if not ax_scan.yaxis_inverted():
        ax_scan.invert_yaxis()
    ax_x.legend(loc="lower left", bbox_to_anchor=(0, 1.01), ncol=6,
                frameon=False, fontsize="small", borderaxespad=0)
    fig.suptitle(f"{_name(recording)} \u2014 {what}{lo:.0f} to {hi:.0f} ms "
                 f"({(hi - lo) / 1000:.3g} s)")
    return fig


def _trial_span(recording, samples, trial, start, end):
    """From/to ms and a caption of the span to draw."""
    if trial is not None:
        if start is not None or end is not None:
            raise ValueError("give a trial or a start and end, not both")
        trials = recording.trials
        row = trials[trials["trial"] == trial]
        if len(row) == 0:
            have = (f"{int(trials['trial'].min())} to {int(trials['trial'].max())}"
                    if len(trials) else "none")
            raise ValueError(f"no trial {trial} in the recording (trials: {have})")
        row = row.iloc[0]
        return float(row["start_time"]), float(row["end_time"]), f"trial {trial}: "
    first = samples.time[0] if samples.time.size else 0.0
    last = samples.time[-1] if samples.time.size else 0.0
    lo = float(first if start is None else start)
    hi = float(last if end is None else end)
    if hi <= lo:
        raise ValueError(f"the span from {lo:g} to {hi:g} ms is empty")
    return lo, hi, ""


def _short(text, most=30):
    return text if len(text) <= most else text[: most - 1] + "\u2026"


def _thousands():
    """Tick labels of whole milliseconds with thousands separators: the
    recording's clock runs to millions."""
    from matplotlib.ticker import FuncFormatter

    return FuncFormatter(lambda v, _: f"{v:,.0f}")


def _scanpath(ax, t, x, y, colour, eye):
    step = max(1, math.ceil(x.size / _SCANPATH_POINTS))
    t, (x, y) = _breaks(t[::step], [x[::step], y[::step]], step * _sample_gap(t))
    ax.plot(x, y, color=colour, lw=_LINE_WIDTH[eye] * 0.7, alpha=0.7,
            label=f"{eye} eye", gid=f"scanpath_{eye}")


def _fixation_circles(ax, fix):
    """Fixations at their mean gaze, area by duration, numbered per eye."""
    if len(fix) == 0:
        return
    for e, index in _EYE_INDEX.items():
        f = fix[(fix["eye"] == index)].sort_values("start_time", kind="stable")
        x, y = _float(f["avg_gaze_x"]), _float(f["avg_gaze_y"])
        ok = np.isfinite(x) & np.isfinite(y)
        if not ok.any():
            continue
        x, y = x[ok], y[ok]
        duration = np.asarray(f["end_time"] - f["start_time"], dtype=np.float64)[ok]
        area = np.clip(duration * 0.6, 12, 900)  # points squared; 1 s ~ 600
        colour = EYE_COLOURS[e]
        ax.scatter(x, y, s=area, facecolors=colour, edgecolors=colour,
                   alpha=0.3, linewidths=1, zorder=3, gid=f"fixations_{e}")
        if x.size <= _MAX_NUMBERED:
            # Left eye's numbers above left of the centre, right eye's
            # below right: apart where both eyes fixate the same place.
            offset = (-5, 5) if e == "left" else (5, -5)
            for n, (px, py) in enumerate(zip(x, y), 1):
                ax.annotate(str(n), (px, py), xytext=offset, textcoords="offset points",
                            ha="center", va="center", fontsize="small",
                            fontweight="bold", color=colour, zorder=4)


def _messages(recording, axes, lo, hi):
    msgs = recording.messages
    if len(msgs) == 0:
        return
    msgs = msgs[(msgs["time"] >= lo) & (msgs["time"] <= hi)]
    if len(msgs) == 0:
        return
    times = np.asarray(msgs["time"], dtype=np.float64)
    for a in axes:
        a.vlines(times, 0, 1, transform=a.get_xaxis_transform(), colors="#333333",
                 linestyles="dotted", linewidths=0.8,
                 label="message" if a is axes[0] else "_message", gid="messages")
    # Messages closer than a few pixels share one label.
    top = axes[0]
    near = 8 * (hi - lo) / _pixel_columns(top)
    order = np.argsort(times, kind="stable")
    times = times[order]
    words = [_short(str(msgs["text"].iloc[i]).strip()) for i in order]
    group = np.r_[0, np.cumsum(np.diff(times) > near)]
    if group[-1] + 1 > _MAX_LABELS:
        return
    for g in range(group[-1] + 1):
        members = np.flatnonzero(group == g)
        t = times[members[0]]
        text = " | ".join(words[i] for i in members)
        # Beside the tick, on the side towards the middle of the span.
        top.text(t, 0.98, text, transform=top.get_xaxis_transform(), rotation=90,
                 ha="left" if t < (lo + hi) / 2 else "right", va="top",
                 fontsize="x-small", color="#333333", clip_on=True)


# --------------------------------------------------------------------------
# The whole recording
# --------------------------------------------------------------------------

# Layout of a new overview (inches): margins, the gap between two columns of
# rows, how many rows one column holds before the next column begins, and
# how many columns at most.
_MARGINS = {"left": 1.0, "right": 0.3, "top": 0.8, "bottom": 0.6}
_PANEL_GAP = 0.9
_PANEL_ROWS = 60
_MAX_PANELS = 4


def overview(recording, *, eye="both", ax=None):
    """Draws the whole of `recording`, one row per block, and returns the
    figure.

    Each row shows a block from its first sample on (time in seconds):
    gaze x of each eye in the upper half of the row and gaze y in the lower
    half, each scaled to the range the gaze covers in the recording, every
    pixel column drawn from the smallest to the largest value that falls in
    it.  Blinks are shaded, trials marked at their start and end, and gaps
    are where the tracker lost the eye.  More than 60 blocks are laid out in
    up to four columns of rows.  `eye` is "left", "right" or "both"; `ax` an
    Axes to draw every row into, or a Figure; by default a new figure sized
    for the rows.

    The traces are drawn as one image the size of the axes in pixels, which
    keeps an hour of samples to about a second; saving at another dpi than
    the figure's scales that image.

    Raises ValueError for an eye that was not recorded; ImportError, naming
    the extra ``orbapi[plot]``, when matplotlib is missing.

    Example::

        from orbapi.plot import overview
        fig = overview(orbapi.read("run1.orb"), eye="left")
        fig.savefig("overview.png")
    """
    _matplotlib()
    samples = _Samples(recording)
    eyes = samples.eyes(eye)
    rows = _Rows(samples)
    trials = _marks(recording.trials, rows, label="trial")
    blinks = _events(recording, "blink", -math.inf, math.inf, eyes)
    start, end, which = _union(blinks["start_time"], blinks["end_time"])
    blinks = _marks({"block": np.asarray(blinks["block"])[which],
                     "start_time": start, "end_time": end}, rows)
    x0 = min(0.0, float(trials["start"].min())) if trials["row"].size else 0.0
    x1 = max(float(np.max(rows.last - rows.first)) / 1000.0, x0 + 0.001)
    pad = (x1 - x0) * 0.005  # marks at the first and last sample stay in view
    x0, x1 = x0 - pad, x1 + pad

    axes, fig = _overview_axes(ax, rows.count)
    per_panel = -(-rows.count // len(axes))
    bbox = axes[0].get_window_extent()
    width, height = max(1, int(round(bbox.width))), max(1, int(round(bbox.height)))
    t = samples.time
    # Each sample's pixel column, counted over all rows; in place, as an
    # hour has millions of samples.
    column = t - rows.first[rows.of_sample]
    column -= x0 * 1000.0
    column *= width / ((x1 - x0) * 1000.0)
    key = column.astype(np.int64)
    np.minimum(key, width - 1, out=key)
    key += rows.of_sample * width
    series = [(e, axis) for e in eyes for axis in (0, 1)]
    pairs, used = _minmax(key, [samples.gaze[e][axis] for e, axis in series],
                          rows.count * width)
    span = _sample_gap(t) * width / ((x1 - x0) * 1000.0)
    pairs = _bridge(pairs, used, width, span)
    scales = [_band_scale([p for p, (_, a) in zip(pairs, series) if a == axis])
              for axis in (0, 1)]

    for k, a in enumerate(axes):
        r0, r1 = k * per_panel, min(rows.count, (k + 1) * per_panel)
        image = np.zeros((height, width, 4), np.uint8)
        for (e, axis), (lo, hi) in zip(series, pairs):
            lo, hi = (v.reshape(rows.count, width)[r0:r1] for v in (lo, hi))
            image.reshape(-1, 4)[_trace(lo, hi, axis, scales[axis], per_panel, height)] = \
                _rgba(EYE_COLOURS[e])
        a.imshow(image, extent=(x0, x1, per_panel, 0), aspect="auto",
                 interpolation="nearest", zorder=2, gid="gaze")
        _overview_blinks(a, _rows_of(blinks, r0, r1))
        _overview_trials(a, _rows_of(trials, r0, r1), labels=rows.count <= 40)
        _overview_rows(a, rows.blocks[r0:r1], per_panel, x0, x1)
    _overview_titles(axes, fig, recording, rows.count, eyes, t)
    return fig


class _Rows:
    """The overview's rows: the blocks that have samples, in order, with
    the time of each one's first and last sample, and each sample's row."""

    def __init__(self, samples):
        b, t = samples.block, samples.time
        if not b.size:
            self.blocks = np.zeros(1, np.int64)
            self.first = self.last = np.zeros(1)
            self.of_sample = np.zeros(0, np.int64)
        else:
            # Blocks follow one another; samples outside every block (-1)
            # may come between them and make one row together.
            starts = np.flatnonzero(np.r_[True, b[1:] != b[:-1]])
            ends = np.r_[starts[1:], b.size] - 1
            self.blocks, run_row = np.unique(b[starts], return_inverse=True)
            self.first = np.full(self.blocks.size, np.inf)
            self.last = np.full(self.blocks.size, -np.inf)
            np.minimum.at(self.first, run_row, t[starts])
            np.maximum.at(self.last, run_row, t[ends])
            self.of_sample = np.repeat(run_row, ends - starts + 1)
        self.count = self.blocks.size

    def place(self, block):
        """Row (-1 for none) and its first sample's time, of items in
        `block`."""
        block = np.asarray(block)
        i = np.clip(np.searchsorted(self.blocks, block), 0, self.count - 1)
        return np.where(self.blocks[i] == block, i, -1), self.first[i]


def _marks(table, rows, label=None):
    """Row, start and end (s from the row's first sample) and, with
    `label`, that column, of the items of `table` (block, start_time,
    end_time) that lie in a row."""
    block = np.asarray(table["block"])
    row, origin = rows.place(block) if block.size else (block, np.zeros(0))
    keep = row >= 0
    out = {"row": row[keep]}
    for name, column in (("start", "start_time"), ("end", "end_time")):
        out[name] = (np.asarray(table[column], np.float64) - origin)[keep] / 1000.0
    if label:
        out["label"] = np.asarray(table[label])[keep]
    return out


def _rows_of(marks, r0, r1):
    """The marks in rows `r0` to `r1` - 1, rows counted from `r0`."""
    sel = (marks["row"] >= r0) & (marks["row"] < r1)
    out = {k: v[sel] for k, v in marks.items()}
    out["row"] = out["row"] - r0
    return out


def _bridge(pairs, used, width, span):
    """Where pixel columns are narrower than the time between two samples,
    the columns between two samples at most `span` columns apart (in one
    row) take the values of the column before, so that a line of sparse
    samples is not broken up."""
    n = pairs[0][0].size if pairs else 0
    has = np.zeros(n, bool)
    has[used] = True
    if has.all() or not has.any():
        return pairs
    i = np.arange(n)
    prev = np.maximum.accumulate(np.where(has, i, -1))
    nxt = np.minimum.accumulate(np.where(has, i, n)[::-1])[::-1]
    fill = ~has & (prev >= 0) & (nxt < n) & (nxt - prev <= span)
    fill &= (prev // width == i // width) & (nxt // width == i // width)
    src = prev[fill]
    out = []
    for lo, hi in pairs:
        lo, hi = lo.copy(), hi.copy()
        lo[fill], hi[fill] = lo[src], hi[src]
        out.append((lo, hi))
    return out


def _trace(lo, hi, axis, scale, rows, height):
    """The pixels (flat positions in an image of `rows` rows and `height`
    pixels) a series covers: in each pixel column of each row, from its smallest to its
    largest value (`lo`, `hi`: one row of columns per block), reaching to
    the neighbouring column's values so that a jump stays joined.  Gaze x
    goes in the upper half of a row, y in the lower."""
    width = lo.shape[1]
    gap = np.full((lo.shape[0], 1), np.nan)
    lo, hi = (np.fmin(lo, np.hstack([gap, hi[:, :-1]])),
              np.fmax(hi, np.hstack([gap, lo[:, :-1]])))
    ok = np.isfinite(lo)
    r, c = np.nonzero(ok)
    vmin, vmax = scale
    row_px = height / rows
    top, bottom = (0.06, 0.47) if axis == 0 else (0.53, 0.94)

    def pixel(v):
        u = np.clip((v[ok] - vmin) / (vmax - vmin), 0.0, 1.0)
        return (r + bottom - u * (bottom - top)) * row_px

    first = np.clip(np.floor(pixel(hi)).astype(np.int64), 0, height - 1)
    last = np.clip(np.maximum(np.ceil(pixel(lo)).astype(np.int64), first + 1), 0, height - 1)
    # The flat image positions of every covered pixel, column run by run.
    runs = last - first + 1
    begin = np.repeat(first * width + c - np.cumsum(runs) * width + runs * width, runs)
    return begin + np.arange(int(runs.sum())) * width


def _rgba(colour):
    from matplotlib.colors import to_rgba

    return np.round(np.array(to_rgba(colour)) * 255).astype(np.uint8)


def _band_scale(pairs):
    """The range of the values in `pairs` that a band shows: the 0.5th to
    99.5th percentile, so that a stray value does not flatten the rest."""
    values = np.concatenate([np.r_[lo, hi] for lo, hi in pairs] or [np.zeros(0)])
    values = values[np.isfinite(values)]
    if not values.size:
        return 0.0, 1.0
    lo, hi = np.percentile(values, [0.5, 99.5])
    if hi <= lo:
        lo, hi = lo - 1.0, hi + 1.0
    return float(lo), float(hi)


def _overview_axes(ax, rows):
    """The axes to draw an overview of `rows` rows in (one per column of
    rows) and the figure."""
    if ax is not None and not hasattr(ax, "add_axes"):
        return [ax], _root(ax.figure)
    panels = min(_MAX_PANELS, -(-rows // _PANEL_ROWS))
    per_panel = -(-rows // panels)
    row_height = max(min(1.6, 8.0 / per_panel), 0.45 * min(1.0, _PANEL_ROWS / per_panel))
    m = _MARGINS
    width = 13.0 if panels == 1 else 6.0 * panels
    size = (width, per_panel * row_height + m["top"] + m["bottom"])
    if ax is None:
        import matplotlib.pyplot as plt

        fig = plt.figure(figsize=size)
    else:
        fig = ax
        if not fig.axes and hasattr(fig, "set_size_inches"):
            fig.set_size_inches(*size)
    w, h = fig.get_size_inches() if hasattr(fig, "get_size_inches") else size
    panel = (w - m["left"] - m["right"] - (panels - 1) * _PANEL_GAP) / panels
    axes = []
    for k in range(panels):
        left = m["left"] + k * (panel + _PANEL_GAP)
        axes.append(fig.add_axes([left / w, m["bottom"] / h, panel / w,
                                  1 - (m["top"] + m["bottom"]) / h]))
    return axes, _root(fig)


def _overview_blinks(ax, blinks):
    from matplotlib.collections import PolyCollection

    if not blinks["row"].size:
        return
    s, e, r = blinks["start"], blinks["end"], blinks["row"].astype(np.float64)
    verts = np.stack([np.column_stack([s, r]), np.column_stack([s, r + 1]),
                      np.column_stack([e, r + 1]), np.column_stack([e, r])], axis=1)
    colour, alpha = SPAN_COLOURS["blink"]
    ax.add_collection(PolyCollection(verts, facecolors=colour, alpha=alpha,
                                     linewidths=0, label="blink", gid="blink",
                                     zorder=1), autolim=False)


def _overview_trials(ax, trials, labels):
    if not trials["row"].size:
        return
    s, e, r = trials["start"], trials["end"], trials["row"].astype(np.float64)
    ax.vlines(np.r_[s, e], np.r_[r, r] + 0.02, np.r_[r, r] + 0.98, colors="#222222",
              linewidths=1.0, label="trial start, end", gid="trials", zorder=3)
    if labels and np.bincount(trials["row"]).max() <= 12:
        for x, y, k in zip(s, r, trials["label"]):
            ax.text(x, y + 0.04, f" trial {k}", ha="left", va="top",
                    fontsize="x-small", color="#222222", clip_on=True, zorder=3)


def _overview_rows(ax, blocks, per_panel, x0, x1):
    """Row labels, as text rather than ticks (a hundred ticks cost
    seconds), every row's up to 40 rows a column and every fifth's beyond,
    and the lines between the rows."""
    ax.set_yticks([])
    size = "small" if per_panel < 40 else "x-small"
    at = ax.get_yaxis_transform()
    every = 1 if per_panel <= 40 else 5
    for i, b in enumerate(blocks):
        if b % every:
            continue
        ax.text(-0.005, i + 0.5, "outside blocks" if b < 0 else str(b), ha="right",
                va="center", fontsize=size, transform=at)
    ax.hlines(np.arange(1, len(blocks) + 1), x0, x1, colors="#999999", linewidths=0.6,
              zorder=3)
    ax.set_xlim(x0, x1)
    ax.set_ylim(per_panel, 0)
    ax.set_xlabel("time from the block's first sample (s)")


def _overview_titles(axes, fig, recording, rows, eyes, t):
    from matplotlib.lines import Line2D
    from matplotlib.patches import Patch

    axes[0].set_ylabel("block (each row: gaze x above, gaze y below, in px)",
                       labelpad=28)
    handles = [Line2D([], [], color=EYE_COLOURS[e], label=f"{e} eye") for e in eyes]
    handles += [Patch(color=SPAN_COLOURS["blink"][0], alpha=SPAN_COLOURS["blink"][1],
                      label="blink"),
                Line2D([], [], color="#222222", label="trial start, end")]
    axes[0].legend(handles=handles, loc="lower left", bbox_to_anchor=(0, 1.0), ncol=4,
                   frameon=False, fontsize="small", borderaxespad=0.2)
    k = len(recording.trials)
    fig.suptitle(f"{_name(recording)} \u2014 overview: {rows} block{'s' * (rows != 1)}, "
                 f"{k} trial{'s' * (k != 1)}, {_duration(t)}")


def _duration(t):
    if not t.size:
        return "no samples"
    s = (t[-1] - t[0]) / 1000.0
    return f"{s / 60:.1f} min" if s >= 120 else f"{s:.1f} s"


# --------------------------------------------------------------------------
# The command line: orb plot
# --------------------------------------------------------------------------


def add_plot_arguments(parser):
    """Adds the arguments of ``orb plot`` to the argparse `parser`:
    FILE, --trial N | --start MS --end MS, --eye, -o OUT."""
    parser.add_argument("file", metavar="FILE", help="the recording")
    parser.add_argument("--trial", type=int, metavar="N",
                        help="draw trial N (0 for the first, as in the trials table)")
    parser.add_argument("--start", type=float, metavar="MS",
                        help="draw the span from MS (ms, the recording's clock; "
                             "default the first sample)")
    parser.add_argument("--end", type=float, metavar="MS",
                        help="... up to MS (default the last sample)")
    parser.add_argument("--eye", choices=("left", "right", "both"), default="both",
                        help="which eye to draw (default: both)")
    parser.add_argument("-o", "--output", required=True, metavar="OUT",
                        help="the picture to write: .png, .svg or .pdf")
    if parser.epilog is None:
        parser.epilog = ("Without --trial, --start or --end: an overview of the whole\n"
                         "recording, one row per block.")


_FORMATS = ("png", "svg", "pdf")


def run_plot(args):
    """Runs ``orb plot`` with the parsed `args`; returns the exit status:
    0 when the picture was written, 1 when the recording could not be read
    or drawn, 2 for arguments that do not go together."""
    def fail(status, text):
        print(f"orb plot: {text}", file=sys.stderr)
        return status

    fmt = os.path.splitext(args.output)[1].lower().lstrip(".")
    if fmt not in _FORMATS:
        return fail(2, f"{args.output}: the picture must end in .png, .svg or .pdf")
    if args.trial is not None and (args.start is not None or args.end is not None):
        return fail(2, "--trial goes without --start and --end")
    from . import OrbError, read

    try:
        _matplotlib()
        from matplotlib.figure import Figure

        recording = read(args.file)
        if args.trial is None and args.start is None and args.end is None:
            fig = Figure()
            overview(recording, eye=args.eye, ax=fig)
        else:
            fig = Figure(layout="constrained")
            plot(recording, args.trial, start=args.start, end=args.end,
                 eye=args.eye, ax=fig)
        fig.savefig(args.output, format=fmt, dpi=100)
    except FileNotFoundError:
        return fail(1, f"{args.file}: no such file")
    except OrbError as e:
        return fail(1, f"{args.file}: {e}")
    except (ImportError, ValueError, OSError) as e:
        return fail(1, str(e))
    return 0
