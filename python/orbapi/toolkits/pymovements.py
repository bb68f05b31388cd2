"""A recording as a pymovements Gaze object: :func:`to_pymovements`.

pymovements is imported when the function is called; a missing one raises
an ``ImportError`` that names the extra to install
(``orbapi[pymovements]``).
"""

from __future__ import annotations

import numpy as np

from .._facts import EYE_NAMES, as_float
from .._optional import require
from ._common import EVENT_KINDS, rate_and_eyes, tables

__all__ = ["to_pymovements"]


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
    right), the pupil sizes of the recorded eyes in ``pupil`` (one value for
    one eye, a ``[left, right]`` list for both), and ``trial`` (-1 outside a
    trial).  The recorded eyes are those the blocks say, even where one of
    them has no valid value: a one-eye recording is one eye to every
    pymovements function.  ``trial`` is the Gaze's trial column when every
    sample time is a whole millisecond; at higher rates it is an ordinary
    column, since pymovements cannot join the events it detects trial by
    trial when their times fall on half milliseconds in some trials and on
    whole ones in others.  Its experiment carries the
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
    sfreq, eyes = rate_and_eyes(recording, block)
    samples, messages, events = tables(recording, block)

    pixel = [f"gaze_{axis}_{eye}" for eye in eyes for axis in ("x", "y")]
    pupil = [f"pupil_size_{eye}" for eye in eyes]
    frame = pl.DataFrame({
        "time": np.asarray(samples.get("time", ()), np.float64),
        "trial": np.asarray(samples.get("trial", ()), np.int64),
        "pixel": _nested(pl, samples, pixel),
        "pupil": _nested(pl, samples, pupil) if len(pupil) > 1
        else pl.Series(as_float(samples[pupil[0]]), nan_to_null=True),
    })

    names, onsets, offsets, eye_of, trials = [], [], [], [], []
    for kind, (_, _, name) in EVENT_KINDS.items():
        ev = events[kind]
        start = np.asarray(ev.get("start_time", ()), np.float64)
        names.append(np.full(len(start), name, dtype=object))
        onsets.append(start)
        offsets.append(np.asarray(ev.get("end_time", ()), np.float64))
        eye_of.append(np.asarray(ev.get("eye", np.zeros(len(start))), np.int64))
        trials.append(np.asarray(ev.get("trial", np.full(len(start), -1)), np.int64))
    onset = np.concatenate(onsets)
    order = np.argsort(onset, kind="stable")
    eye_names = np.array([*EYE_NAMES, ""], dtype=object)
    eye_index = np.concatenate(eye_of)[order]
    event_frame = pl.DataFrame({
        "trial": np.concatenate(trials)[order],
        "name": pl.Series(np.concatenate(names)[order].tolist(), dtype=pl.Utf8),
        "onset": onset[order],
        "offset": np.concatenate(offsets)[order],
        "eye": pl.Series(eye_names[np.where(np.isin(eye_index, (0, 1)), eye_index, 2)]
                         .tolist(), dtype=pl.Utf8),
    })
    per_trial = ["trial"] if not np.any(frame["time"].to_numpy() % 1) else None
    message_frame = pl.DataFrame({
        "time": np.asarray(messages.get("time", ()), np.int64),
        "content": pl.Series(list(messages.get("text", ())), dtype=pl.Utf8),
    })
    return pm.Gaze(
        frame,
        experiment=_experiment(pm, sfreq, eyes, screen),
        events=pm.Events(event_frame, trial_columns=per_trial),
        messages=message_frame,
        trial_columns=per_trial,
        time_column="time",
        time_unit="ms",
    )


def _nested(pl, samples, names):
    """The columns as one list column, missing values null: what
    ``Gaze(pixel_columns=...)`` makes of them, built without polars' slow
    row-wise list concatenation."""
    rows = np.empty((len(samples["time"]), len(names)))
    for k, name in enumerate(names):
        rows[:, k] = as_float(samples[name])
    flat = pl.Series(rows.ravel(), nan_to_null=True)
    return flat.reshape((len(rows), len(names))).cast(pl.List(pl.Float64))
