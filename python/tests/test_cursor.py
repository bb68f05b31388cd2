"""Item-by-item access: orbapi.open()."""
from __future__ import annotations

import pytest

import orbapi


@pytest.fixture
def path(make_recording):
    return make_recording(rate=1000, trials=3, camera=True)


def test_records_are_read_only_and_named_like_the_columns(path):
    rec = orbapi.read(path, velocities=True, camera=True, sentinels=True)
    with orbapi.open(path) as f:
        items = list(f)
        assert f.next() is None
    kinds = {i.kind for i in items}
    assert kinds == {"sample", "event", "message", "block"}
    sample = next(i for i in items if i.kind == "sample")
    with orbapi.open(path) as f:
        f.next_trial()
        while f.next().kind != "sample":
            pass
        camera = f.camera()
    assert set(sample) | set(camera) == set(rec.samples.columns) - {"index", "block", "trial"}
    assert sample.gaze_x_left == sample["gaze_x_left"] == rec.samples.gaze_x_left.iloc[0]
    with pytest.raises(AttributeError):
        sample.gaze_x_left = 1.0
    with pytest.raises(AttributeError):
        sample.no_such_field
    texts = [i.text for i in items if i.kind == "message"]
    assert texts == list(rec.messages.text) and "TRIALID 1" in texts


def test_trial_navigation(path):
    rec = orbapi.read(path)
    with orbapi.open(path) as f:
        assert f.trial_header() is None
        assert f.trial_count == len(rec.trials) == 3
        assert f.next_trial() and f.trial_header()["start_time"] == rec.trials.start_time[0]
        assert f.jump_to_trial(2) and not f.next_trial()
        assert f.trial_header()["start_time"] == rec.trials.start_time[2]
        assert f.previous_trial() and f.position == rec.trials.start_index[1]
        assert not f.jump_to_trial(3)
        assert f.trial_with_start_time(int(rec.trials.start_time[2]))
        assert f.position == rec.trials.start_index[2]
        assert f.trial_with_end_time(int(rec.trials.end_time[0]))
        assert not f.trial_with_start_time(1)


def test_bookmarks_and_sample_at(path):
    with orbapi.open(path) as f:
        for _ in range(10):
            f.next()
        mark = f.bookmark()
        tenth = f.next()
        for _ in range(100):
            f.next()
        later = f.bookmark()
        assert f.goto(mark) and f.next() == tenth
        assert f.next_bookmark()
        assert f.free(later) and not f.goto(later)
        sample = f.sample_at(100200)
        assert sample.kind == "sample" and sample.time == 100200.0
        assert f.sample_at(5) is None


def test_camera_values_of_the_current_sample(path):
    rec = orbapi.read(path, camera=True)
    with orbapi.open(path) as f:
        first = next(i for i in f if i.kind == "sample")
        cam = f.camera()
        assert first.time == rec.samples.time.iloc[0]
        for name, value in cam.items():
            got = rec.samples[name].iloc[0]
            assert got == value or (value == 1e8 and got != got), name
        f.next_trial()
        f.next()
        if f.current.kind != "sample":
            assert f.camera() is None


def test_file_facts_and_closing(path):
    f = orbapi.open(path)
    assert f.revision == 3 and f.oculant_revision == 2
    assert f.preamble.startswith("** DATE:")
    assert f.items == orbapi.read(path).info["items"]
    f.next()
    f.next()
    assert f.sample_rate == 1000.0
    f.close()
    assert f.closed
    with pytest.raises(RuntimeError):
        f.next()
    f.close()
