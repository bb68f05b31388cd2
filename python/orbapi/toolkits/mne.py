"""A recording as an MNE-Python Raw object: :func:`to_mne`, and
:func:`write_fif` to keep it as a FIF file.

MNE-Python is imported when a function here is called; a missing one
raises an ``ImportError`` that names the extra to install (``orbapi[mne]``).
"""

from __future__ import annotations

import gc
import sys
import threading
import warnings

import numpy as np

from .._facts import EYE_NAMES, as_float
from .._optional import require
from ._common import EVENT_KINDS, rate_and_eyes, tables

__all__ = ["to_mne", "write_fif"]

_ANNOTATION_KINDS = (*EVENT_KINDS, "messages")


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


def _channels(eyes):
    """Name, MNE type, eye (-1 left, 1 right) and axis (-1 x, 1 y, None)
    of each channel."""
    out = []
    for eye in eyes:
        side = -1 if eye == EYE_NAMES[0] else 1
        out += [(f"xpos_{eye}", "eyegaze", side, -1), (f"ypos_{eye}", "eyegaze", side, 1),
                (f"pupil_{eye}", "pupil", side, None)]
    return out


def _type_eyetrack(mne, raw, channels):
    """Types the channels as ``set_channel_types_eyetrack`` of
    ``mne.preprocessing.eyetracking`` does (gaze in pixels, pupil in
    arbitrary units, the eye and axis in ``loc``), without importing that
    module: it brings SciPy's signal and statistics packages, which take
    longer to load than the whole conversion takes."""
    fiff = mne.io.constants.FIFF
    for ch, (_, kind, side, axis) in zip(raw.info["chs"], channels):
        gaze = kind == "eyegaze"
        ch["kind"] = fiff.FIFFV_EYETRACK_CH
        ch["coil_type"] = fiff.FIFFV_COIL_EYETRACK_POS if gaze else fiff.FIFFV_COIL_EYETRACK_PUPIL
        ch["unit"] = fiff.FIFF_UNIT_PX if gaze else fiff.FIFF_UNIT_NONE
        loc = np.full(12, np.nan)
        loc[3] = side
        if gaze:
            loc[4] = axis
        ch["loc"] = loc


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
            data[row, cells] = as_float(col)
        filled[cells] = True
        return data, filled
    data = np.empty((len(columns), n))
    spans = list(zip(first.tolist(), stop.tolist(), cells[first].tolist()
                     if len(cells) else []))
    for row, col in enumerate(columns):
        col = as_float(col)
        for a, b, at in spans:
            data[row, at:at + b - a] = col[a:b]
    for a, b, at in spans:
        filled[at:at + b - a] = True
    starts, lengths = _runs(~filled)
    for at, length in zip(starts.tolist(), lengths.tolist()):
        data[:, at:at + length] = np.nan
    return data, filled


def _load_io(mne):
    """Starts loading MNE's io modules on a thread of their own, when they
    are not loaded yet: MNE loads them on first use, which takes longer than
    the rest of a first conversion, and most of the grid's filling runs
    without the interpreter lock beside it.  Returns the thread, or None."""
    if "mne.io.base" in sys.modules:
        return None
    thread = threading.Thread(target=lambda: mne.io.RawArray, name="orbapi-mne-io")
    thread.start()
    return thread


def to_mne(recording, *,
           annotations=("blinks", "saccades", "fixations", "messages"),
           block=None):
    """The recording as an ``mne.io.RawArray``, ready for MNE's eye-tracking
    functions.

    Channels ``xpos_left``, ``ypos_left``, ``pupil_left`` and the same for
    the right eye, for the eyes recorded (those the blocks say, even where
    one of them has no valid value), typed as
    ``mne.preprocessing.eyetracking.set_channel_types_eyetrack`` types them
    (gaze in pixels, pupil in arbitrary units).  ``sfreq`` is the recording's sample
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
    loading = _load_io(mne)
    unknown = [a for a in annotations if a not in _ANNOTATION_KINDS]
    if isinstance(annotations, str) or unknown:
        raise ValueError(
            f"annotations= takes a sequence of {', '.join(_ANNOTATION_KINDS)}; "
            f"got {annotations!r}")
    sfreq, eyes = rate_and_eyes(recording, block)
    samples, messages, events = tables(recording, block)
    span = _span(samples, messages, events)
    if span is None:
        raise ValueError("the recording (or block) holds no items to convert")
    t0, t_end = span
    per_ms = sfreq / 1000.0

    n = int(np.floor((t_end - t0) * per_ms + 0.5)) + 1
    channels = _channels(eyes)
    ch_names = [c[0] for c in channels]
    times = np.asarray(samples.get("time", ()), np.float64)
    cells = np.floor((times - t0) * per_ms + 0.5).astype(np.int64)
    columns = [samples[f"{name}_{eye}"] for eye in eyes
               for name in ("gaze_x", "gaze_y", "pupil_size")]
    data, filled = _grid(columns, cells, n)
    if loading is not None:
        loading.join()

    info = mne.create_info(ch_names, sfreq, [c[1] for c in channels])
    raw = mne.io.RawArray(data, info, copy=None, verbose=False)
    _type_eyetrack(mne, raw, channels)

    onset, duration, description, chans = [], [], [], []
    # The channels an annotation is tied to, by the eye column of events
    # (0 left, 1 right, anything else: none).
    eye_channels = np.empty(3, object)
    eye_channels[:] = [tuple(c for c in ch_names if c.endswith("_" + eye)) for eye in EYE_NAMES] + [()]

    def add(on, dur, desc, eye=None):
        onset.append(np.asarray(on, np.float64))
        duration.append(np.asarray(dur, np.float64))
        description.append(np.broadcast_to(np.asarray(desc, object), len(onset[-1])))
        eye = np.full(len(onset[-1]), 2) if eye is None else np.where(np.isin(eye, (0, 1)), eye, 2)
        chans.append(eye_channels[eye])

    starts, lengths = _runs(~filled)
    add(starts / sfreq, lengths / sfreq, "BAD_ACQ_SKIP")
    for kind, (_, desc, _) in EVENT_KINDS.items():
        if kind not in annotations:
            continue
        ev = events[kind]
        start = np.asarray(ev.get("start_time", ()), np.float64)
        end = np.asarray(ev.get("end_time", ()), np.float64)
        add((start - t0) / 1000.0, (end - start) / 1000.0, desc,
            np.asarray(ev.get("eye", np.zeros(len(start))), np.int64))
    texts = []
    if "messages" in annotations:
        texts = list(messages.get("text", ()))
        at = np.asarray(messages.get("time", ()), np.float64)
        add((at - t0) / 1000.0, np.zeros(len(at)), np.array(texts, object))
    _annotate(mne, raw, np.concatenate(onset), np.concatenate(duration),
              np.concatenate(description), np.concatenate(chans), texts)
    return raw


def _annotate(mne, raw, onset, duration, description, ch_names, texts):
    """Gives the Raw's own, empty annotations these (ch_names: an object
    array of tuples), in MNE's order: by onset, then duration.

    MNE checks each annotation it is handed, one by one in Python: for an
    hour's events most of this function's time, with nothing left to find
    in values made here.  So where the annotations are of the layout this
    MNE keeps (known from one made by MNE itself), the arrays are handed
    over as they are; otherwise, and for a message text MNE would refuse,
    they go through MNE's own append."""
    order = np.lexsort((duration, onset))
    onset, duration = onset[order], duration[order]
    description, ch_names = description[order], ch_names[order]
    target = raw.annotations
    like = mne.Annotations([0.0], [0.0], ["like"], ch_names=[ch_names[0] if len(order) else ()])
    fields = ("_onset", "_duration", "_description", "_ch_names")
    known = (type(target) is type(like) and len(target) == 0
             and all(isinstance(getattr(o, f, None), np.ndarray) for o in (target, like) for f in fields)
             and like._ch_names.dtype == object
             and isinstance(getattr(like, "_extras", []), list) and len(getattr(like, "_extras", [None])) == 1
             and not any("{COLON}" in t for t in texts))
    if not known:
        target.append(onset, duration, description.astype(str) if len(order) else [],
                      ch_names=list(ch_names))
        return
    target._onset = onset
    target._duration = duration
    target._description = description.astype(like._description.dtype)
    target._ch_names = ch_names
    if hasattr(like, "_extras"):
        target._extras = _empty_extras(type(like._extras[0]), len(order))


def _empty_extras(kind, n):
    """n empty extras dicts of MNE's class `kind`, each its own.  Made
    without the class's __init__ and with the cyclic garbage collector
    paused (tens of thousands of new containers would start it over and
    over): otherwise they cost more than all the rest of the annotations."""
    paused = gc.isenabled()
    gc.disable()
    try:
        extras = [object.__new__(kind) for _ in range(n)]
        for e in extras:
            e.data = {}
    finally:
        if paused:
            gc.enable()
    return extras


def write_fif(recording, path, *, overwrite=True):
    """Write the recording as one MNE FIF file: :func:`to_mne` with its
    default annotations, the data as 32-bit floats (which hold the
    recording's values exactly), NaN kept over the ``BAD_ACQ_SKIP`` spans.

    Raises what :func:`to_mne` raises, and ``OSError`` when the file cannot
    be written (or exists and ``overwrite`` is false).

    Example::

        orbapi.toolkits.mne.write_fif(orbapi.read("run1.orb"), "run1_raw.fif")
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
