"""Every column of every table of ``orbapi.read`` against a full walk of the
C cursor, for recordings of every rate, eye, filter model and container."""
from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

import orbapi
from orbwriter import OrbWriter, add_block, message, typical
from reference import walk

EXAMPLE = Path(__file__).resolve().parents[2] / "examples" / "example.orb"


def two_plain_blocks() -> OrbWriter:
    """As the C++ tests' recordings: blocks of add_block, messages between samples."""
    w = OrbWriter()
    add_block(w, 1000, 60, 500.0, lambda i, t: w.add(message(t, f"TRIALID {i // 20}"))
              if i % 20 == 0 else None)
    w.add(message(1200, "between blocks"))
    add_block(w, 2000, 40, 250.0)
    return w


RECORDINGS = {
    "1000Hz-both": dict(rate=1000),
    "2000Hz-both-high-speed-camera": dict(rate=2000, high_speed=True, camera=True),
    "500Hz-left-compressed": dict(rate=500, eyes="left", compressed=True),
    "250Hz-right-two-blocks": dict(rate=250, eyes="right", trials=4, blocks=2),
    "1000Hz-both-high-speed-no-blinks": dict(rate=1000, high_speed=True, blinks=False),
    "500Hz-both-camera-standard": dict(rate=500, camera=True, trials=2),
    "plain-blocks": two_plain_blocks,
    "example": EXAMPLE,
}
# Read options and how the cursor is opened for the same items.
READS = {
    "as-stored": dict(),
    "repair": dict(consistency=2),
    "one-trial-end": dict(trial_end="trial end"),
}


def trial_of(index: int, trials) -> int:
    """The latest trial whose index span holds `index`, or -1."""
    found = -1
    for k, (first, last) in enumerate(zip(trials.start_index, trials.end_index)):
        if first <= index < last:
            found = k
    return found


def assert_columns(frame, rows: list[dict], columns) -> None:
    assert len(frame) == len(rows)
    for c in columns:
        expected = np.array([r[c] for r in rows])
        np.testing.assert_array_equal(frame[c].to_numpy(), expected, err_msg=c)


@pytest.fixture(scope="module", params=list(RECORDINGS))
def recording(request, tmp_path_factory):
    """(path, the typical() options it was made with, or {})."""
    made = RECORDINGS[request.param]
    if isinstance(made, Path):
        return str(made), {"blinks": False}
    path = tmp_path_factory.mktemp("tables") / f"{request.param}.orb"
    if callable(made):
        return made().write(path), {"blinks": False}
    return typical(**made).write(path), made


@pytest.mark.parametrize("how", list(READS))
def test_every_column_equals_the_cursor_walk(recording, how):
    path, made = recording
    camera = made.get("camera", True)
    rec = orbapi.read(path, velocities=True, camera=camera, **READS[how])
    ref = walk(path, camera=camera, **READS[how])

    # Samples: every member, the half millisecond in the time, NaN for markers.
    samples = rec.samples
    assert set(samples.columns) == set(ref["samples"][0]) | {"trial"}
    assert_columns(samples, ref["samples"], ref["samples"][0].keys())
    assert samples.time.dtype == np.float64
    if made.get("rate") == 2000:
        assert (samples.time % 1 == 0.5).sum() == len(samples) // 2

    events = rec.events
    assert set(events.columns) == set(ref["events"][0]) | {"trial"}
    assert_columns(events, ref["events"], ref["events"][0].keys())
    assert not (events.type == 24).any()

    assert_columns(rec.messages, ref["messages"], ["time", "text", "block"])
    assert_columns(rec.blocks, ref["blocks"], ref["blocks"][0].keys())

    trials = rec.trials
    assert list(trials.trial) == list(range(len(ref["trials"])))
    assert_columns(trials, ref["trials"], ["start_time", "end_time", "duration", "start_index"])
    block_at = {b["time"]: b["block"] for b in ref["blocks"]}
    assert list(trials.block) == [block_at.get(t["block_time"], -1) for t in ref["trials"]]

    # The trial of a row is the trial whose index span holds it.
    for table, rows in (("samples", ref["samples"]), ("events", ref["events"]),
                        ("messages", ref["messages"])):
        expected = [trial_of(r["index"], trials) for r in rows]
        assert list(getattr(rec, table).trial) == expected, table


def test_sentinels_keep_the_stored_markers(recording):
    path, made = recording
    rec = orbapi.read(path, velocities=True, sentinels=True)
    ref = walk(path, sentinels=True)
    assert_columns(rec.samples, ref["samples"], [c for c in ref["samples"][0] if c != "trial"])
    assert_columns(rec.events, ref["events"], ref["events"][0].keys())
    floats = rec.samples.select_dtypes("float32")
    assert not floats.isna().any().any()
    if made.get("blinks", True):
        closed = rec.samples[rec.samples.status == 0x0400]
        assert len(closed) and (closed.resolution_x == 1e8).all()
        assert ((closed.gaze_x_left == 1e8) | (closed.gaze_x_right == 1e8)).all()
        assert ((closed.pupil_size_left == -32768.0) & (closed.pupil_size_right == -32768.0)).all()


def test_missing_samples_of_a_blink_are_nan(make_recording):
    rec = orbapi.read(make_recording(rate=500, trials=2))
    inside = np.zeros(len(rec.samples), bool)
    for b in rec.blinks.itertuples():
        inside |= (rec.samples.time >= b.start_time) & (rec.samples.time <= b.end_time)
    assert inside.any()
    closed = rec.samples[inside & (rec.samples.status == 0x0400)]
    assert len(closed) and closed[["gaze_x_left", "gaze_y_right", "pupil_size_left",
                                   "resolution_x"]].isna().all().all()
    assert rec.samples[~inside].gaze_x_left.notna().all()


def test_without_velocities_or_camera_the_columns_are_absent(make_recording):
    rec = orbapi.read(make_recording(camera=True, trials=1))
    names = set(rec.samples.columns)
    assert "gaze_vel_x_left" not in names and "pupil_area_left" not in names
    assert {"gaze_x_left", "pupil_size_right", "resolution_x", "extra_data_7", "extra_type",
            "status", "block", "trial"} <= names


def test_events_and_samples_can_be_left_out(make_recording):
    path = make_recording(trials=1)
    no_events = orbapi.read(path, events=False)
    no_samples = orbapi.read(path, samples=False)
    both = orbapi.read(path)
    # The sample blocks' own markers stay.
    assert set(no_events.events.type) <= {15, 16} and len(no_events.samples) == len(both.samples)
    assert len(no_samples.samples) == 0 and len(no_samples.fixations) == len(both.fixations)


def test_end_items_have_their_durations(make_recording):
    rec = orbapi.read(make_recording(rate=1000, trials=2))
    ends = {"fixations": 8, "saccades": 6, "blinks": 4}
    for table, code in ends.items():
        frame = getattr(rec, table)
        assert len(frame) == (rec.events.type == code).sum() > 0
        assert (frame.duration == frame.end_time.astype("int64") - frame.start_time.astype("int64")).all()
    # Both eyes recorded: every fixation comes once per eye.
    assert sorted(set(rec.fixations.eye)) == [0, 1]


def test_info(make_recording):
    rec = orbapi.read(make_recording(rate=500, eyes="left", trials=2, high_speed=True))
    info = rec.info
    assert info["sample_rate"] == 500.0 and info["eyes"] == "left"
    assert info["blocks"] == 2 == len(rec.blocks)
    assert info["samples"] == len(rec.samples)
    assert info["revision"] == 3 and info["oculant_revision"] == 3
    assert "SOURCE: OCULANT HQ" in info["preamble"]
    assert info["library_version"] == orbapi.__version__
    with orbapi.open(rec.path) as f:
        assert info["items"] == f.items
    # From the first item to the last: here the first block start to the last block end.
    assert info["duration_ms"] == rec.blocks.end_time.iloc[-1] - rec.blocks.time.iloc[0]


def test_blocks_carry_their_end_time(make_recording):
    path = make_recording(trials=3)
    rec = orbapi.read(path)
    assert list(rec.blocks.block) == [0, 1, 2]
    assert (rec.blocks.end_time > rec.blocks.time).all()
    for b in rec.blocks.itertuples():
        inside = rec.samples[rec.samples.block == b.block]
        assert inside.time.min() >= b.time and inside.time.max() < b.end_time
    # A recording cut before its last block end leaves that block open.
    open_end = orbapi.read(make_recording(trials=2, damage="no_end"), consistency=4)
    assert list(open_end.blocks.end_time)[-1] == -1
