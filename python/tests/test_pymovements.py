"""Recording.to_pymovements(): the hand-off to pymovements.

Needs the extra ``orbapi[pymovements]`` (pymovements, which brings polars)."""
from __future__ import annotations

import sys

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
    assert gaze.trial_columns == ["trial"]
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


def steady_gaze(make_recording):
    """Three 300 ms fixations joined by 20 ms saccades, both eyes, 1000 Hz."""
    w = orbwriter.OrbWriter()
    orbwriter.start_block(w, 1000, flags=orbwriter.SAMPLE_BIT | orbwriter.LEFT
                          | orbwriter.RIGHT | orbwriter.GAZE | orbwriter.PUPIL)
    spots = [(300, 250), (900, 700), (500, 600)]
    t = 1000
    for k, (x, y) in enumerate(spots):
        for i in range(320 if k < 2 else 300):
            if i < 300:
                at = (x + i % 3, y + i % 2)
            else:  # on the way to the next spot
                nx, ny = spots[k + 1]
                at = (x + (nx - x) * (i - 299) // 20, y + (ny - y) * (i - 299) // 20)
            s = orbwriter.sample_at(t, orbwriter.PUPIL)
            s.gaze = [list(at), list(at)]
            s.pupil = [900, 910]
            w.add(s)
            t += 1
    orbwriter.end_block(w, t)
    return orbapi.read(make_recording(w))


def test_pixels_to_degrees_velocities_and_detection_run(make_recording):
    rec = steady_gaze(make_recording)
    gaze = rec.to_pymovements(screen=SCREEN)
    screen = gaze.experiment.screen
    assert (screen.width_px, screen.height_px, screen.distance_cm, screen.origin) == (
        1280, 1024, 68.0, "upper left")
    gaze.pix2deg()
    gaze.pos2vel()
    gaze.detect("ivt")
    assert {"position", "velocity"} <= set(gaze.samples.columns)
    position = gaze.samples["position"].list.get(0)
    # The first spot lies 340 px left of the screen's centre.
    assert position.min() == pytest.approx(-np.degrees(np.arctan(340 * 38 / 1280 / 68)), abs=0.1)
    fixations = gaze.events.frame.filter(pl.col("name") == "fixation")
    assert len(fixations) == 3
    np.testing.assert_allclose(fixations["onset"].to_numpy(), [1000, 1320, 1640], atol=5)

    with pytest.raises(ValueError, match="distance_cm"):
        rec.to_pymovements(screen={k: v for k, v in SCREEN.items() if k != "distance_cm"})


def test_missing_extra_is_named(make_recording, monkeypatch):
    rec = orbapi.read(make_recording(trials=1))
    monkeypatch.setitem(sys.modules, "pymovements", None)
    with pytest.raises(ImportError, match=r"orbapi\[pymovements\]"):
        rec.to_pymovements()
