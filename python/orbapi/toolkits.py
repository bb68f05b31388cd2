"""Hand a recording to the analysis toolkits: MNE-Python and pymovements.

Both conversions work on the tables a :class:`~orbapi.Recording` already
holds; the file is not read again.  Neither toolkit is imported until one of
these functions is called, and a missing toolkit raises an ``ImportError``
that names the extra to install (``orbapi[mne]``, ``orbapi[pymovements]``).
"""

from __future__ import annotations

import warnings

import numpy as np

from ._optional import require

__all__ = ["to_mne", "to_pymovements", "write_fif"]

# The markers a recording stores for a missing value; a recording read with
# ``sentinels=True`` still holds them, the toolkits want NaN.
from ._core import MISSING_POSITION, MISSING_VALUE
_MISSING = (MISSING_POSITION, MISSING_VALUE)

_EYES = ("left", "right")
_EVENT_KINDS = {  # annotations= name -> (table, MNE description, pymovements name)
    "fixations": ("fixations", "fixation", "fixation"),
    "saccades": ("saccades", "saccade", "saccade"),
    "blinks": ("blinks", "BAD_blink", "blink"),
}
_ANNOTATION_KINDS = (*_EVENT_KINDS, "messages")


# --- tables ------------------------------------------------------------------


def _columns(recording, table):
    """The table's columns as a dict of numpy arrays, without copying."""
    return recording.columns(table)


def _float(values):
    """The values as a float array (no copy when they already are one), with
    the stored missing markers as NaN."""
    out = np.asarray(values)
    if out.dtype.kind != "f":
        out = out.astype(np.float64)
    if len(out) and (np.fmin.reduce(out) <= _MISSING[0]
                     or np.fmax.reduce(out) >= _MISSING[1]):
        out = np.where(np.isin(out, _MISSING), np.nan, out)
    return out


def _select_block(cols, block):
    if block is None or not cols:
        return cols
    keep = np.asarray(cols["block"]) == block
    return {name: np.asarray(col)[keep] for name, col in cols.items()}


def _sample_blocks(recording):
    """Numbers, sample rates and eyes (1 left, 2 right, 3 both) of the
    recording's blocks."""
    blocks = _columns(recording, "blocks")
    n = len(blocks.get("sample_rate", ()))
    number = np.asarray(blocks["block"]) if "block" in blocks else np.arange(n)
    return (number, np.asarray(blocks.get("sample_rate", ()), np.float64),
            np.asarray(blocks.get("eyes", ()), np.int64))


def _rate_and_eyes(recording, block):
    """The one sample rate and the eyes recorded, of the whole recording or of
    one block; several rates without ``block=`` are an error."""
    number, rates, eyes = _sample_blocks(recording)
    if block is not None:
        pick = number == block
        if not pick.any():
            raise ValueError(
                f"block={block!r}: the recording has no such block "
                f"(blocks: {', '.join(str(int(b)) for b in number) or 'none'})")
        rates, eyes = rates[pick], eyes[pick]
    if len(rates) == 0:
        info = recording.info
        rates = np.array([float(info.get("sample_rate") or 0.0)])
        mask = {"left": 1, "right": 2, "both": 3}.get(info.get("eyes"), 3)
        eyes = np.array([mask])
    distinct = np.unique(rates)
    if len(distinct) > 1:
        listing = ", ".join(f"{r:g} Hz in block {int(b)}"
                            for b, r in zip(number, rates))
        raise ValueError(
            f"the recording's blocks differ in sample rate ({listing}); "
            f"pass block= to convert one block at a time")
    if not distinct[0] > 0:
        raise ValueError("the recording gives no sample rate")
    mask = int(np.bitwise_or.reduce(eyes))
    recorded = [eye for bit, eye in zip((1, 2), _EYES) if mask & bit]
    return float(distinct[0]), recorded or list(_EYES)


def _tables(recording, block):
    """Samples, messages and the three event tables (restricted to one
    block when asked) plus the times of every item."""
    samples = _select_block(_columns(recording, "samples"), block)
    messages = _select_block(_columns(recording, "messages"), block)
    events = {kind: _select_block(_columns(recording, table), block)
              for kind, (table, _, _) in _EVENT_KINDS.items()}
    return samples, messages, events


def _span(samples, messages, events):
    """First and last time (ms) over samples, event starts and ends and
    messages; None for a recording without items."""
    lo, hi = [], []
    for arr in (samples.get("time"), messages.get("time"),
                *(ev.get(k) for ev in events.values()
                  for k in ("start_time", "end_time"))):
        if arr is not None and len(arr):
            lo.append(np.min(arr))
            hi.append(np.max(arr))
    if not lo:
        return None
    return float(min(lo)), float(max(hi))


# --- MNE ---------------------------------------------------------------------


def _mne_channels(eyes):
    names, mapping = [], {}
    for eye in eyes:
        for axis in ("x", "y"):
            name = f"{axis}pos_{eye}"
            names.append(name)
            mapping[name] = ("eyegaze", "px", eye, axis)
        names.append(f"pupil_{eye}")
        mapping[f"pupil_{eye}"] = ("pupil", "au", eye)
    return names, mapping


def _runs(mask):
    """Start and length of each run of True in a boolean array."""
    edges = np.diff(np.concatenate(([False], mask, [False])).astype(np.int8))
    starts = np.flatnonzero(edges == 1)
    return starts, np.flatnonzero(edges == -1) - starts


# Up to this many runs of consecutive cells, the grid is filled run by run
# (slices, fast); past it, by one scatter per channel.
_MAX_RUNS = 4096


def _grid(columns, cells, n):
    """The columns placed at their cells of an (len(columns), n) grid, NaN
    elsewhere, and the mask of the cells that got a sample.  Where two
    samples share a cell the later one stays."""
    brk = np.flatnonzero(np.diff(cells) != 1) + 1
    first = np.concatenate(([0], brk))
    stop = np.concatenate((brk, [len(cells)]))
    filled = np.zeros(n, bool)
    if len(first) > _MAX_RUNS:
        data = np.full((len(columns), n), np.nan)
        for row, col in enumerate(columns):
            data[row, cells] = _float(col)
        filled[cells] = True
        return data, filled
    data = np.empty((len(columns), n))
    spans = list(zip(first.tolist(), stop.tolist(), cells[first].tolist()
                     if len(cells) else []))
    for row, col in enumerate(columns):
        col = _float(col)
        for a, b, at in spans:
            data[row, at:at + b - a] = col[a:b]
    for a, b, at in spans:
        filled[at:at + b - a] = True
    starts, lengths = _runs(~filled)
    for at, length in zip(starts.tolist(), lengths.tolist()):
        data[:, at:at + length] = np.nan
    return data, filled


def to_mne(recording, *,
           annotations=("blinks", "saccades", "fixations", "messages"),
           block=None):
    """The recording as an ``mne.io.RawArray``, ready for MNE's eye-tracking
    functions.

    Channels ``xpos_left``, ``ypos_left``, ``pupil_left`` and the same for
    the right eye, for the eyes recorded, typed with
    ``mne.preprocessing.eyetracking.set_channel_types_eyetrack`` (gaze in
    pixels, pupil in arbitrary units).  ``sfreq`` is the recording's sample
    rate.  The data lie on a regular grid from the recording's first item
    (sample, event start or end, message) to its last: the sample at time
    ``t`` goes to cell ``floor((t - t0) * sfreq / 1000 + 0.5)``.  Missing
    values are NaN; cells without a sample (before the first, between blocks,
    samples lost, after the last) are NaN too and covered by
    ``BAD_ACQ_SKIP`` annotations.

    ``annotations`` picks what else becomes an annotation, in seconds from the
    first cell: ``"fixations"`` (``fixation``), ``"saccades"`` (``saccade``)
    and ``"blinks"`` (``BAD_blink``) with their durations, tied to the
    channels of their eye; ``"messages"``, each with its text as description
    and duration 0.  ``block`` converts the samples, events and messages of
    one block only (a number from ``recording.blocks``).

    Raises ``ValueError`` when the blocks differ in sample rate (pass
    ``block=``), for an unknown block or annotation kind, and for a
    recording without items; ``ImportError`` naming ``orbapi[mne]`` when
    MNE-Python is not installed.

    Example::

        raw = orbapi.read("run1.orb").to_mne()
        mne.preprocessing.eyetracking.interpolate_blinks(raw)
        events, ids = mne.events_from_annotations(raw, regexp="^TRIALID")
        epochs = mne.Epochs(raw, events, tmin=-0.2, tmax=1.0)
    """
    mne = require("mne", "mne")
    unknown = [a for a in annotations if a not in _ANNOTATION_KINDS]
    if isinstance(annotations, str) or unknown:
        raise ValueError(
            f"annotations= takes a sequence of {', '.join(_ANNOTATION_KINDS)}; "
            f"got {annotations!r}")
    sfreq, eyes = _rate_and_eyes(recording, block)
    samples, messages, events = _tables(recording, block)
    span = _span(samples, messages, events)
    if span is None:
        raise ValueError("the recording (or block) holds no items to convert")
    t0, t_end = span
    per_ms = sfreq / 1000.0

    n = int(np.floor((t_end - t0) * per_ms + 0.5)) + 1
    ch_names, mapping = _mne_channels(eyes)
    times = np.asarray(samples.get("time", ()), np.float64)
    cells = np.floor((times - t0) * per_ms + 0.5).astype(np.int64)
    columns = [samples[f"{name}_{eye}"] for eye in eyes
               for name in ("gaze_x", "gaze_y", "pupil_size")]
    data, filled = _grid(columns, cells, n)

    info = mne.create_info(
        ch_names, sfreq,
        ["eyegaze" if kind[0] == "eyegaze" else "pupil"
         for kind in mapping.values()])
    raw = mne.io.RawArray(data, info, copy=None, verbose=False)
    mne.preprocessing.eyetracking.set_channel_types_eyetrack(raw, mapping)

    onset, duration, description, chans = [], [], [], []

    def add(on, dur, desc, ch):
        onset.append(np.asarray(on, np.float64))
        duration.append(np.asarray(dur, np.float64))
        description.append(np.broadcast_to(np.asarray(desc, object), len(on)))
        chans.extend(ch)

    starts, lengths = _runs(~filled)
    add(starts / sfreq, lengths / sfreq, "BAD_ACQ_SKIP", [()] * len(starts))
    eye_channels = [tuple(c for c in ch_names if c.endswith("_" + eye))
                    for eye in _EYES]
    for kind, (_, desc, _) in _EVENT_KINDS.items():
        if kind not in annotations:
            continue
        ev = events[kind]
        start = np.asarray(ev.get("start_time", ()), np.float64)
        end = np.asarray(ev.get("end_time", ()), np.float64)
        eye = np.asarray(ev.get("eye", np.zeros(len(start))), np.int64)
        ch = [eye_channels[e] if e in (0, 1) else () for e in eye.tolist()]
        add((start - t0) / 1000.0, (end - start) / 1000.0, desc, ch)
    if "messages" in annotations:
        texts = list(messages.get("text", ()))
        at = np.asarray(messages.get("time", ()), np.float64)
        add((at - t0) / 1000.0, np.zeros(len(at)), texts, [()] * len(at))

    onset = np.concatenate(onset)
    duration = np.concatenate(duration)
    # MNE keeps annotations ordered by onset, then duration, and sorts them
    # with Python's sort; handed over in that order they cost it one pass.
    order = np.lexsort((duration, onset))
    description = np.concatenate(description)[order]
    # One call appending every annotation to the Raw's own (empty) ones: MNE
    # checks each annotation once, in Python (most of this function's time
    # for an hour's worth of events).  Building an Annotations object and
    # handing it to set_annotations() checks them just as often and then
    # copies and crops the whole object, more than doubling that time.
    raw.annotations.append(
        onset[order], duration[order],
        description.astype(str) if len(order) else [],
        ch_names=[chans[i] for i in order.tolist()])
    return raw


def write_fif(recording, path, *, overwrite=True):
    """Write the recording as one MNE FIF file: :func:`to_mne` with its
    default annotations, the data as 32-bit floats (which hold the
    recording's values exactly), NaN kept over the ``BAD_ACQ_SKIP`` spans.

    Raises what :func:`to_mne` raises, and ``OSError`` when the file cannot
    be written (or exists and ``overwrite`` is false).

    Example::

        orbapi.toolkits.write_fif(orbapi.read("run1.orb"), "run1_raw.fif")
    """
    raw = to_mne(recording)
    with warnings.catch_warnings():
        # The caller picks the name; MNE's file naming advice does not apply.
        warnings.filterwarnings("ignore", message=".*naming conventions.*")
        # Skips that do not line up with the buffers are written as they are
        # (NaN), which is what we want; MNE warns about it.
        warnings.filterwarnings("ignore", message=".*[Aa]cquisition skips.*")
        raw.save(path, overwrite=overwrite, verbose="error",
                 buffer_size_sec=_unaligned_buffer(raw))


def _unaligned_buffer(raw):
    """A FIF buffer length (seconds) that the ``BAD_ACQ_SKIP`` spans do not
    all line up with: MNE would store aligned spans as skips, which read back
    as zeros instead of NaN."""
    sfreq = raw.info["sfreq"]
    skip = raw.annotations.description == "BAD_ACQ_SKIP"
    starts = np.round(raw.annotations.onset[skip] * sfreq).astype(np.int64)
    stops = starts + np.round(raw.annotations.duration[skip] * sfreq).astype(np.int64)
    size = int(np.ceil(sfreq))
    while len(starts) and not (starts % size).any() and not (
            (stops % size != 0) & (stops != raw.n_times)).any():
        size += 1
    return size / sfreq


# --- pymovements -------------------------------------------------------------


def _experiment(pm, sfreq, eyes, screen):
    tracker = pm.EyeTracker(sampling_rate=sfreq, left="left" in eyes,
                            right="right" in eyes)
    if screen is None:
        return pm.Experiment(eyetracker=tracker)
    wanted = {"width_px", "height_px", "width_cm", "height_cm", "distance_cm"}
    given = dict(screen)
    missing = wanted - given.keys()
    extra = given.keys() - wanted - {"origin"}
    if missing or extra:
        raise ValueError(
            "screen= takes a dict with width_px, height_px, width_cm, height_cm, "
            "distance_cm (and optionally origin); "
            f"missing: {sorted(missing)}, unknown: {sorted(extra)}")
    given.setdefault("origin", "upper left")
    return pm.Experiment(screen=pm.Screen(**given), eyetracker=tracker)


def to_pymovements(recording, *, screen=None, block=None):
    """The recording as a ``pymovements.Gaze``.

    Its samples are a polars frame with ``time`` (milliseconds), the pixel
    columns of the recorded eyes nested into ``pixel`` (left eye before
    right), ``pupil`` (a ``[left, right]`` list for both eyes) and ``trial``
    as the trial column (-1 outside a trial).  Its experiment carries the
    sample rate and the eyes recorded; ``screen=dict(width_px=, height_px=,
    width_cm=, height_cm=, distance_cm=)`` (plus ``origin``, by default
    ``"upper left"``) adds the screen geometry that ``pix2deg()`` needs.
    Its events are the recording's own fixations, saccades and blinks (names
    ``fixation``, ``saccade``, ``blink``; ``onset`` and ``offset`` in
    milliseconds; ``eye`` and ``trial``), its messages the recording's
    messages (``time``, ``content``).  ``block`` converts one block only.

    Raises ``ValueError`` when the blocks differ in sample rate (pass
    ``block=``) or ``screen`` lacks a value; ``ImportError`` naming
    ``orbapi[pymovements]`` when pymovements is not installed.

    Example::

        gaze = orbapi.read("run1.orb").to_pymovements(screen=dict(
            width_px=1920, height_px=1080, width_cm=53, height_cm=30,
            distance_cm=70))
        gaze.pix2deg(); gaze.pos2vel(); gaze.detect("ivt")
    """
    pm = require("pymovements", "pymovements")
    pl = require("polars", "pymovements")
    sfreq, eyes = _rate_and_eyes(recording, block)
    samples, messages, events = _tables(recording, block)

    pixel = [f"gaze_{axis}_{eye}" for eye in eyes for axis in ("x", "y")]
    pupil = [f"pupil_size_{eye}" for eye in eyes]
    frame = pl.DataFrame({
        "time": np.asarray(samples.get("time", ()), np.float64),
        "trial": np.asarray(samples.get("trial", ()), np.int64),
        "pixel": _nested(pl, samples, pixel),
        "pupil": _nested(pl, samples, pupil) if len(pupil) > 1
        else pl.Series(_float(samples[pupil[0]]), nan_to_null=True),
    })

    names, onsets, offsets, eye_of, trials = [], [], [], [], []
    for kind, (_, _, name) in _EVENT_KINDS.items():
        ev = events[kind]
        start = np.asarray(ev.get("start_time", ()), np.float64)
        names.append(np.full(len(start), name, dtype=object))
        onsets.append(start)
        offsets.append(np.asarray(ev.get("end_time", ()), np.float64))
        eye_of.append(np.asarray(ev.get("eye", np.zeros(len(start))), np.int64))
        trials.append(np.asarray(ev.get("trial", np.full(len(start), -1)), np.int64))
    onset = np.concatenate(onsets)
    order = np.argsort(onset, kind="stable")
    eye_names = np.array(["left", "right", ""], dtype=object)
    eye_index = np.concatenate(eye_of)[order]
    event_frame = pl.DataFrame({
        "trial": np.concatenate(trials)[order],
        "name": pl.Series(np.concatenate(names)[order].tolist(), dtype=pl.Utf8),
        "onset": onset[order],
        "offset": np.concatenate(offsets)[order],
        "eye": pl.Series(eye_names[np.where(np.isin(eye_index, (0, 1)), eye_index, 2)]
                         .tolist(), dtype=pl.Utf8),
    })
    message_frame = pl.DataFrame({
        "time": np.asarray(messages.get("time", ()), np.int64),
        "content": pl.Series(list(messages.get("text", ())), dtype=pl.Utf8),
    })
    return pm.Gaze(
        frame,
        experiment=_experiment(pm, sfreq, eyes, screen),
        events=pm.Events(event_frame, trial_columns="trial"),
        messages=message_frame,
        trial_columns="trial",
        time_column="time",
        time_unit="ms",
    )


def _nested(pl, samples, names):
    """The columns as one list column, missing values null: what
    ``Gaze(pixel_columns=...)`` makes of them, built without polars' slow
    row-wise list concatenation."""
    rows = np.empty((len(samples["time"]), len(names)))
    for k, name in enumerate(names):
        rows[:, k] = _float(samples[name])
    flat = pl.Series(rows.ravel(), nan_to_null=True)
    return flat.reshape((len(rows), len(names))).cast(pl.List(pl.Float64))
