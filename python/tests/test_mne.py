"""Recording.to_mne() and write_fif(): the hand-off to MNE-Python.

Needs the extra ``orbapi[mne]`` (MNE-Python, which brings matplotlib)."""
from __future__ import annotations

import subprocess
import sys

import numpy as np
import pytest

import orbapi
import orbwriter
from orbapi.toolkits import write_fif

mne = pytest.importorskip("mne")
eyetracking = mne.preprocessing.eyetracking

EVENT_DESCRIPTIONS = {"fixations": "fixation", "saccades": "saccade", "blinks": "BAD_blink"}


def first_and_last(rec):
    """The span the grid must cover: samples, event starts and ends, messages."""
    times = [rec.samples.time, rec.messages.time]
    for table in (rec.fixations, rec.saccades, rec.blinks):
        times += [table.start_time, table.end_time]
    times = [np.asarray(t, float) for t in times if len(t)]
    return min(t.min() for t in times), max(t.max() for t in times)


def cells_of(times, t0, sfreq):
    return np.floor((np.asarray(times, float) - t0) * sfreq / 1000 + 0.5).astype(int)


def by_description(raw, description):
    a = raw.annotations
    pick = a.description == description
    return a.onset[pick], a.duration[pick], [a.ch_names[i] for i in np.flatnonzero(pick)]


@pytest.mark.parametrize("rate, eyes", [(1000, "both"), (500, "left"), (2000, "right")])
def test_channels_hold_the_samples_on_the_grid(make_recording, rate, eyes):
    rec = orbapi.read(make_recording(rate=rate, eyes=eyes, trials=3))
    raw = rec.to_mne()
    recorded = ["left", "right"] if eyes == "both" else [eyes]
    assert raw.ch_names == [f"{c}_{e}" for e in recorded for c in ("xpos", "ypos", "pupil")]
    assert raw.info["sfreq"] == rate
    for ch in raw.info["chs"]:
        eye = -1 if ch["ch_name"].endswith("_left") else 1
        assert ch["loc"][3] == eye
        if ch["ch_name"].startswith("pupil"):
            assert ch["coil_type"] == mne.io.constants.FIFF.FIFFV_COIL_EYETRACK_PUPIL
            assert ch["unit"] == mne.io.constants.FIFF.FIFF_UNIT_NONE
        else:
            assert ch["unit"] == mne.io.constants.FIFF.FIFF_UNIT_PX
            assert ch["loc"][4] == (-1 if ch["ch_name"].startswith("x") else 1)

    t0, t_end = first_and_last(rec)
    assert raw.n_times == cells_of(t_end, t0, rate) + 1
    cells = cells_of(rec.samples.time, t0, rate)
    assert len(np.unique(cells)) == len(cells)  # no two samples share a cell
    np.testing.assert_allclose(raw.times[cells] * 1000 + t0, rec.samples.time, atol=500 / rate)
    data = raw.get_data()
    empty = np.ones(raw.n_times, bool)
    empty[cells] = False
    assert empty.any()  # the gaps between the blocks
    for row, name in enumerate(raw.ch_names):
        kind, eye = name.split("_")
        column = {"xpos": "gaze_x", "ypos": "gaze_y", "pupil": "pupil_size"}[kind] + "_" + eye
        np.testing.assert_array_equal(data[row, cells], rec.samples[column].to_numpy())
        assert np.isnan(data[row, empty]).all()
    assert np.isnan(data).any() and not np.isnan(data[:, cells]).all()


def test_channels_and_annotations_are_as_mne_makes_them(make_recording):
    """The channel types and the annotations are handed to MNE without its
    own functions; they must be what those functions make."""
    raw = orbapi.read(make_recording(rate=500, trials=2)).to_mne()
    typed = raw.copy()
    eyetracking.set_channel_types_eyetrack(typed, {
        name: ("eyegaze", "px", name.split("_")[1], name[0]) if name[1:4] == "pos"
        else ("pupil", "au", name.split("_")[1]) for name in raw.ch_names})
    for ours, theirs in zip(raw.info["chs"], typed.info["chs"]):
        assert (ours["kind"], ours["coil_type"], ours["unit"]) == (
            theirs["kind"], theirs["coil_type"], theirs["unit"])
        np.testing.assert_array_equal(ours["loc"], theirs["loc"])

    a = raw.annotations
    made = mne.Annotations(a.onset, a.duration, list(a.description), ch_names=list(a.ch_names))
    assert made == a and len(a.extras) == len(a) and a.description.dtype == made.description.dtype
    assert [tuple(c) for c in made.ch_names] == [tuple(c) for c in a.ch_names]
    a.extras[0]["note"] = "first"  # each annotation has extras of its own
    assert a.extras[1] == {}
    a.append(0.0, 0.0, "added")
    assert len(a) == len(made) + 1 and "added" in a.description


def test_annotations_are_the_events_messages_and_gaps(make_recording):
    rec = orbapi.read(make_recording(rate=500, trials=3))
    raw = rec.to_mne()
    t0, _ = first_and_last(rec)
    for table, description in EVENT_DESCRIPTIONS.items():
        events = getattr(rec, table).sort_values("start_time", kind="stable")
        onset, duration, chans = by_description(raw, description)
        assert len(onset) == len(events) > 0
        np.testing.assert_allclose(onset, (events.start_time - t0) / 1000)
        np.testing.assert_allclose(duration, events.duration / 1000)
        eyes = ["left" if e == 0 else "right" for e in events.eye]
        assert [set(c) for c in chans] == [{f"xpos_{e}", f"ypos_{e}", f"pupil_{e}"} for e in eyes]

    messages = raw.annotations[~np.isin(raw.annotations.description,
                                        [*EVENT_DESCRIPTIONS.values(), "BAD_ACQ_SKIP"])]
    assert sorted(messages.description) == sorted(rec.messages.text)
    assert (messages.duration == 0).all()
    np.testing.assert_allclose(sorted(messages.onset), sorted((rec.messages.time - t0) / 1000))

    # Every cell without a sample lies under a BAD_ACQ_SKIP span, and no other.
    onset, duration, chans = by_description(raw, "BAD_ACQ_SKIP")
    covered = np.zeros(raw.n_times, bool)
    for on, du in zip(np.round(onset * 500).astype(int), np.round(duration * 500).astype(int)):
        covered[on:on + du] = True
    has_sample = np.zeros(raw.n_times, bool)
    has_sample[cells_of(rec.samples.time, t0, 500)] = True
    np.testing.assert_array_equal(covered, ~has_sample)
    blocks = rec.blocks
    gap_start = cells_of(blocks.end_time.iloc[0] - 1, t0, 500) + 1  # after block 0's last sample
    assert gap_start * 2 / 1000 in np.round(onset, 6)

    only = rec.to_mne(annotations=("messages",))
    assert set(only.annotations.description) <= set(rec.messages.text) | {"BAD_ACQ_SKIP"}
    with pytest.raises(ValueError, match="annotations="):
        rec.to_mne(annotations=("fixations", "clicks"))


def test_items_outside_the_samples_are_kept(make_recording):
    w = orbwriter.OrbWriter()
    orbwriter.start_block(w, 1000)
    w.add(orbwriter.message(1000, "early"))
    orbwriter.add_sample_run(w, 1010, 1049)
    w.add(orbwriter.EventItem(orbwriter.EFIX, 0).start(1040).end(1060))
    w.add(orbwriter.message(1070, "late"))
    orbwriter.end_block(w, 1071)
    raw = orbapi.read(make_recording(w)).to_mne()
    assert raw.n_times == 71
    a = raw.annotations
    assert dict(zip(a.description, a.onset)) == pytest.approx(
        {"early": 0.0, "late": 0.07, "fixation": 0.04, "BAD_ACQ_SKIP": 0.05})
    onset, duration, _ = by_description(raw, "BAD_ACQ_SKIP")
    np.testing.assert_allclose(np.c_[onset, duration], [[0.0, 0.01], [0.05, 0.021]])
    data = raw.get_data()
    assert np.isnan(data[:, :10]).all() and np.isnan(data[:, 50:]).all()
    assert not np.isnan(data[:2, 10:50]).any()


def test_sentinels_become_nan(make_recording):
    path = make_recording(rate=1000, trials=2)
    kept = orbapi.read(path, sentinels=True)
    assert (kept.samples.pupil_size_left == -32768.0).any()
    np.testing.assert_array_equal(kept.to_mne().get_data(), orbapi.read(path).to_mne().get_data())


def test_interpolate_blinks_fills_the_blinks_only(make_recording):
    rec = orbapi.read(make_recording(rate=1000, trials=3))
    raw = rec.to_mne()
    before = raw.get_data()
    onset, duration, chans = by_description(raw, "BAD_blink")
    eyetracking.interpolate_blinks(raw, buffer=0.0)
    after = raw.get_data()
    for row, name in enumerate(raw.ch_names):
        in_blink = np.zeros(raw.n_times, bool)
        for on, du, ch in zip(onset, duration, chans):
            if name in ch:
                in_blink[int(round(on * 1000)):int(round((on + du) * 1000)) + 1] = True
        assert in_blink.any()
        if name.startswith("pupil"):
            assert np.isnan(before[row, in_blink]).any()
            assert not np.isnan(after[row, in_blink]).any()
        else:
            np.testing.assert_array_equal(after[row, in_blink], before[row, in_blink])
        np.testing.assert_array_equal(after[row, ~in_blink], before[row, ~in_blink])
    assert "blink" in raw.annotations.description


@pytest.mark.filterwarnings("ignore:Mean of empty slice")  # blinks inside the epochs
def test_epochs_around_messages_and_gaze_plot(make_recording):
    matplotlib = pytest.importorskip("matplotlib")
    matplotlib.use("Agg")
    rec = orbapi.read(make_recording(rate=1000, trials=3))
    raw = rec.to_mne()
    events, ids = mne.events_from_annotations(raw, regexp="^TRIALID", verbose=False)
    starts = rec.messages[rec.messages.text.str.startswith("TRIALID")]
    t0, _ = first_and_last(rec)
    np.testing.assert_array_equal(events[:, 0], cells_of(starts.time, t0, 1000))
    assert sorted(ids) == sorted(starts.text)
    epochs = mne.Epochs(raw, events, tmin=0.0, tmax=0.3, baseline=None,
                        reject_by_annotation=False, preload=True, verbose=False)
    assert len(epochs) == 3
    np.testing.assert_array_equal(epochs.get_data()[1], raw.get_data()[:, events[1, 0]:events[1, 0] + 301])
    fig = mne.viz.eyetracking.plot_gaze(epochs, width=1280, height=1024, show=False)
    assert fig.axes


def test_fif_round_trip(make_recording, tmp_path):
    rec = orbapi.read(make_recording(rate=500, trials=3))
    raw = rec.to_mne()
    path = tmp_path / "rec_raw.fif"
    write_fif(rec, path)
    back = mne.io.read_raw_fif(path, preload=True, verbose=False)
    assert back.ch_names == raw.ch_names and back.info["sfreq"] == raw.info["sfreq"]
    np.testing.assert_array_equal(back.get_data(), raw.get_data())  # float32 holds them exactly
    for a, b in zip(back.info["chs"], raw.info["chs"]):
        assert (a["kind"], a["coil_type"], a["unit"]) == (b["kind"], b["coil_type"], b["unit"])
        np.testing.assert_array_equal(a["loc"], b["loc"])
    assert list(back.annotations.description) == list(raw.annotations.description)
    # FIF keeps annotation times as 32-bit floats.
    np.testing.assert_allclose(back.annotations.onset, raw.annotations.onset, atol=1e-6)
    np.testing.assert_allclose(back.annotations.duration, raw.annotations.duration, atol=1e-6)
    assert back.annotations.ch_names.tolist() == raw.annotations.ch_names.tolist()


def test_blocks_of_different_rates(make_recording):
    w = orbwriter.OrbWriter()
    orbwriter.add_block(w, 1000, 50, rate=500)
    orbwriter.add_block(w, 2000, 20, rate=250)
    rec = orbapi.read(make_recording(w))
    with pytest.raises(ValueError, match=r"500 Hz.*250 Hz.*block="):
        rec.to_mne()
    raw = rec.to_mne(block=1)
    assert raw.info["sfreq"] == 250 and raw.n_times == 20
    np.testing.assert_array_equal(raw.get_data()[0], rec.samples.gaze_x_left[rec.samples.block == 1])
    with pytest.raises(ValueError, match="block=7"):
        rec.to_mne(block=7)


def test_missing_extra_is_named(make_recording, monkeypatch):
    rec = orbapi.read(make_recording(trials=1))
    monkeypatch.setitem(sys.modules, "mne", None)
    with pytest.raises(ImportError, match=r"orbapi\[mne\]"):
        rec.to_mne()


def test_toolkits_are_not_imported_with_the_package():
    code = ("import sys, orbapi, orbapi.toolkits; "
            "print(sorted({'mne', 'pymovements'} & set(sys.modules)))")
    out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True)
    assert out.stdout.strip() == "[]"


def test_first_conversion_in_a_process_loads_mne_io_beside_the_grid(make_recording):
    """In a fresh process MNE's io modules are not loaded yet; to_mne loads
    them on a thread while it fills the grid, and gives the same Raw."""
    path = make_recording(rate=500, trials=2)
    code = ("import sys, mne, numpy, orbapi; assert 'mne.io.base' not in sys.modules; "
            f"raw = orbapi.read({path!r}).to_mne(); "
            "print(raw.n_times, len(raw.annotations), numpy.nansum(raw.get_data()))")
    out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True)
    raw = orbapi.read(path).to_mne()
    assert out.stdout.split() == [str(raw.n_times), str(len(raw.annotations)),
                                  str(np.nansum(raw.get_data()))]
