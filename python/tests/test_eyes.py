"""Every per-eye structure the package builds holds the eyes the blocks
say were recorded, not those that happen to have values: a binocular
recording whose right eye never gave a valid sample stays binocular, a
one-eye recording stays one eye."""
from __future__ import annotations

import numpy as np
import pytest

import orbapi
import orbwriter


def blind_right_eye(make_recording):
    """Both eyes recorded, the right one missing in every sample."""
    w = orbwriter.OrbWriter()
    orbwriter.start_block(w, 1000, eyes=3)
    for t in range(1000, 1200):
        s = orbwriter.sample_at(t)
        s.gaze = [[1000 + t % 7, 2000], [orbwriter.MISSING_WORD, orbwriter.MISSING_WORD]]
        w.add(s)
    orbwriter.end_block(w, 1200)
    return orbapi.read(make_recording(w))


@pytest.fixture(params=["both-blind-right", "left", "right"])
def case(request, make_recording):
    """A recording and the eyes it recorded."""
    if request.param == "both-blind-right":
        return blind_right_eye(make_recording), ["left", "right"]
    return orbapi.read(make_recording(eyes=request.param, trials=1)), [request.param]


def test_pymovements_pixel_and_pupil(case):
    pytest.importorskip("pymovements")
    rec, eyes = case
    gaze = rec.to_pymovements()
    assert gaze.n_components == 2 * len(eyes)
    pixel = np.array(gaze.samples["pixel"].to_list(), dtype=float)
    expected = np.column_stack([rec.samples[f"gaze_{a}_{e}"] for e in eyes for a in ("x", "y")])
    np.testing.assert_array_equal(pixel, expected)
    pupil = np.array(gaze.samples["pupil"].to_list(), dtype=float).reshape(len(pixel), len(eyes))
    np.testing.assert_array_equal(pupil, np.column_stack([rec.samples[f"pupil_size_{e}"] for e in eyes]))
    tracker = gaze.experiment.eyetracker
    assert (tracker.left, tracker.right) == ("left" in eyes, "right" in eyes)


def test_mne_channels(case):
    pytest.importorskip("mne")
    rec, eyes = case
    raw = rec.to_mne()
    assert raw.ch_names == [f"{c}_{e}" for e in eyes for c in ("xpos", "ypos", "pupil")]


def test_plot_lines(case):
    matplotlib = pytest.importorskip("matplotlib")
    matplotlib.use("Agg")
    rec, eyes = case
    fig = rec.plot(start=float(rec.samples.time.iloc[0]), end=float(rec.samples.time.iloc[-1]))
    assert sorted(line.get_gid() for line in fig.axes[0].lines) == sorted(f"gaze_x_{e}" for e in eyes)
