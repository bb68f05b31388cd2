"""Recording.to_pymovements(): the hand-off to pymovements.

Needs the extra ``orbapi[pymovements]`` (pymovements, which brings polars)."""
from __future__ import annotations

import sys
import warnings

import numpy as np
import pytest

import orbapi
import orbwriter

pm = pytest.importorskip("pymovements")
pl = pytest.importorskip("polars")

SCREEN = dict(width_px=1280, height_px=1024, width_cm=38.0, height_cm=30.0, distance_cm=68.0)


def nested(samples, names):
    """The table's columns as pymovements nests them: rows of lists, None for NaN."""
    values = np.column_stack([samples[n].to_numpy(float) for n in names])
    return [[None if np.isnan(v) else v for v in row] for row in values]


@pytest.mark.parametrize("rate, eyes", [(1000, "both"), (2000, "left"), (250, "right")])
def test_samples_are_the_samples_table(make_recording, rate, eyes):
    rec = orbapi.read(make_recording(rate=rate, eyes=eyes, trials=2))
    gaze = rec.to_pymovements()
    samples, table = gaze.samples, rec.samples
    recorded = ["left", "right"] if eyes == "both" else [eyes]
    assert set(samples.columns) == {"time", "trial", "pixel", "pupil"}
    np.testing.assert_array_equal(samples["time"].to_numpy(), table.time)
    if rate == 2000:
        assert samples["time"].dtype == pl.Float64  # the half milliseconds stay
    np.testing.assert_array_equal(samples["trial"].to_numpy(), table.trial)
    pixel = [f"gaze_{a}_{e}" for e in recorded for a in ("x", "y")]
    assert samples["pixel"].to_list() == nested(table, pixel)
    assert gaze.n_components == len(pixel)
    pupil = [f"pupil_size_{e}" for e in recorded]
    if len(pupil) == 1:
        assert samples["pupil"].to_list() == [r[0] for r in nested(table, pupil)]
        assert samples["pupil"].null_count() > 0  # the blinks
    else:
        assert samples["pupil"].to_list() == nested(table, pupil)
        assert samples["pupil"].explode().null_count() > 0
    # Per-trial detection needs event times of one type (whole ms).
    assert gaze.trial_columns == (["trial"] if rate <= 1000 else None)
    tracker = gaze.experiment.eyetracker
    assert (tracker.sampling_rate, tracker.left, tracker.right) == (
        rate, "left" in recorded, "right" in recorded)


def test_events_and_messages_are_the_recordings_own(make_recording):
    rec = orbapi.read(make_recording(rate=1000, trials=3))
    gaze = rec.to_pymovements()
    frame = gaze.events.frame.sort(["onset", "name", "eye"])
    expected = []
    for name, table in (("fixation", rec.fixations), ("saccade", rec.saccades),
                        ("blink", rec.blinks)):
        assert len(table)
        for row in table.itertuples():
            expected.append((name, row.start_time, row.end_time, ("left", "right")[row.eye],
                             row.trial, row.duration))
    got = list(zip(frame["name"], frame["onset"], frame["offset"], frame["eye"],
                   frame["trial"], frame["duration"]))
    assert got == sorted(expected, key=lambda e: (e[1], e[0], e[3]))
    assert gaze.messages["time"].to_list() == rec.messages.time.tolist()
    assert gaze.messages["content"].to_list() == rec.messages.text.tolist()


SPOTS = [(300, 250), (900, 700), (500, 600), (1000, 200), (200, 800), (700, 300)]
FIXATION_MS, SACCADE_MS = 300, 30


def fixating(make_recording, rate, eyes, compressed=False):
    """Gaze resting on each of SPOTS for 300 ms, jittering by at most 0.2 px,
    then moving to the next in 30 ms; the recording's own fixation and
    saccade events say so, for each recorded eye.  Two trials of three
    spots, each starting with the first fixation of its spots."""
    bits = {"left": 1, "right": 2, "both": 3}[eyes]
    recorded = [e for e in (0, 1) if bits & (1 << e)]
    flags = (orbwriter.SAMPLE_BIT | orbwriter.GAZE | orbwriter.PUPIL
             | (orbwriter.LEFT if bits & 1 else 0) | (orbwriter.RIGHT if bits & 2 else 0))
    w = orbwriter.OrbWriter()
    if compressed:
        w.compress()
    t0 = 10000
    w.add(orbwriter.block_start(orbwriter.SSAMPLES, t0, rate, flags, 10))
    w.add(orbwriter.block_start(orbwriter.SEVENTS, t0, rate, 0, 10, 10, 0x0312,
                                (0x4000 if bits & 1 else 0) | (0x8000 if bits & 2 else 0)))
    per_ms, step = (2, 1) if rate == 2000 else (1, 1000 // rate)
    t = t0
    for k, (x, y) in enumerate(SPOTS):
        if k % 3 == 0:
            w.add(orbwriter.message(t, f"TRIALID {k // 3 + 1}"))
        last = k == len(SPOTS) - 1
        fix_end = t + FIXATION_MS - step
        for e in recorded:
            w.add(orbwriter.EventItem(orbwriter.SFIX, e).start(t))
        for ms in range(0, FIXATION_MS if last else FIXATION_MS + SACCADE_MS, step):
            for sub in range(per_ms):
                i = ms * per_ms + sub
                if ms < FIXATION_MS:
                    at = (10 * x + (i * 7) % 5 - 2, 10 * y + (i * 3) % 5 - 2)
                else:  # on the way to the next spot
                    nx, ny = SPOTS[k + 1]
                    f = (ms - FIXATION_MS + 1) / SACCADE_MS
                    at = (round(10 * (x + (nx - x) * f)), round(10 * (y + (ny - y) * f)))
                s = orbwriter.SampleItem(flags=flags | orbwriter.FULL_TIME
                                         | (orbwriter.HALF_MS if sub else 0), time=t + ms)
                s.gaze = [list(at), list(at)]
                s.pupil = [900, 910]
                w.add(s)
            if ms == FIXATION_MS - step:
                for e in recorded:
                    w.add(orbwriter.EventItem(orbwriter.EFIX, e).start(t).end(fix_end)
                          .words(42, 10 * x, 10 * y))
                    if not last:
                        w.add(orbwriter.EventItem(orbwriter.SSACC, e).start(fix_end + step))
        if not last:
            for e in recorded:
                w.add(orbwriter.EventItem(orbwriter.ESACC, e).start(fix_end + step)
                      .end(t + FIXATION_MS + SACCADE_MS - step))
        t += FIXATION_MS + SACCADE_MS
    orbwriter.end_block(w, t)
    return orbapi.read(make_recording(w))


@pytest.mark.parametrize("rate, eyes, compressed", [
    (2000, "left", False), (500, "right", True), (1000, "both", False)])
def test_detection_finds_the_recordings_fixations(make_recording, rate, eyes, compressed):
    """pix2deg, pos2vel and detect("ivt") find each of the recording's own
    fixations once, on the eye pymovements picks (the right one of two).
    The count must be exact: the gaze moves at under a third of the
    velocity threshold while fixating and at over ten times it between the
    spots, so no sample lies near the threshold.  The onsets and offsets may
    differ from the recording's by the velocity filter's reach (two samples
    each side) and one more sample."""
    rec = fixating(make_recording, rate, eyes, compressed)
    gaze = rec.to_pymovements(screen=SCREEN)
    screen = gaze.experiment.screen
    assert (screen.width_px, screen.height_px, screen.distance_cm, screen.origin) == (
        1280, 1024, 68.0, "upper left")
    assert gaze.n_components == (4 if eyes == "both" else 2)
    gaze.pix2deg()
    gaze.pos2vel()
    with warnings.catch_warnings():
        warnings.filterwarnings("error", message=".*No events were detected")
        gaze.detect("ivt", clear=True)
    # The leftmost spot lies 440 px left of the screen's centre.
    position = gaze.samples["position"].list.get(0)
    assert position.min() == pytest.approx(-np.degrees(np.arctan(440 * 38 / 1280 / 68)), abs=0.1)

    eye = 1 if eyes in ("right", "both") else 0
    own = rec.fixations[rec.fixations.eye == eye].sort_values("start_time")
    found = gaze.events.frame.filter(pl.col("name") == "fixation").sort("onset")
    assert len(own) == len(SPOTS) and len(found) == len(own)
    reach = 3 * 1000 / rate
    np.testing.assert_allclose(found["onset"].to_numpy(), own.start_time, atol=reach)
    np.testing.assert_allclose(found["offset"].to_numpy(), own.end_time, atol=reach)


def test_screen_needs_every_value(make_recording):
    rec = fixating(make_recording, 1000, "left")
    with pytest.raises(ValueError, match="distance_cm"):
        rec.to_pymovements(screen={k: v for k, v in SCREEN.items() if k != "distance_cm"})


def test_missing_extra_is_named(make_recording, monkeypatch):
    rec = orbapi.read(make_recording(trials=1))
    monkeypatch.setitem(sys.modules, "pymovements", None)
    with pytest.raises(ImportError, match=r"orbapi\[pymovements\]"):
        rec.to_pymovements()
