"""Pictures of a recording: a trial, a span, the overview, and `orb plot`.

Drawn with the Agg backend; the checks look at the matplotlib objects.
Needs matplotlib (the `plot` extra)."""
from __future__ import annotations

import argparse
import subprocess
import sys

import numpy as np
import pytest

matplotlib = pytest.importorskip("matplotlib")
matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

import orbapi  # noqa: E402
from orbapi import plot as orbplot  # noqa: E402
from orbapi.cli import plot as plot_command  # noqa: E402


@pytest.fixture(autouse=True)
def _close_figures():
    yield
    plt.close("all")


@pytest.fixture
def rec(make_recording):
    return orbapi.read(make_recording(trials=4, seed=3))


def trial_with_blink(rec):
    blink = rec.blinks.iloc[0]
    trial = rec.trials[(rec.trials.start_time <= blink.start_time)
                       & (rec.trials.end_time >= blink.end_time)].iloc[0]
    return int(trial.trial), blink


def by_gid(artists, gid):
    return [a for a in artists if a.get_gid() == gid]


def span_edges(collection):
    """Start and end (x) of each shaded span."""
    return sorted((p.vertices[:, 0].min(), p.vertices[:, 0].max())
                  for p in collection.get_paths())


def texts(ax):
    return [t.get_text() for t in ax.texts]


def test_trial_panels_spans_messages_and_scanpath(rec, tmp_path):
    n, _ = trial_with_blink(rec)
    trial = rec.trials.set_index("trial").loc[n]
    fig = rec.plot(trial=n)
    ax_x, ax_y, ax_scan = fig.axes
    assert ax_x.get_shared_x_axes().joined(ax_x, ax_y)
    assert (ax_x.get_ylabel(), ax_y.get_ylabel(), ax_y.get_xlabel()) == \
        ("gaze x (px)", "gaze y (px)", "time (ms)")
    assert (ax_scan.get_xlabel(), ax_scan.get_ylabel()) == ("gaze x (px)", "gaze y (px)")
    assert ax_scan.yaxis_inverted()  # screen coordinates: y grows downwards
    assert ax_x.get_xlim() == (trial.start_time, trial.end_time)
    title = fig.get_suptitle()
    assert rec.path.split("/")[-1] in title and f"trial {n}" in title
    assert f"{trial.start_time} to {trial.end_time} ms" in title

    # The eyes in two colours, and the events shaded on both time panels
    # where the tables put them (both eyes' spans merged).
    lines = {ln.get_gid(): ln for ln in ax_x.lines}
    assert {"gaze_x_left", "gaze_x_right"} <= set(lines)
    assert lines["gaze_x_left"].get_color() != lines["gaze_x_right"].get_color()
    for kind, table in (("fixation", rec.fixations), ("saccade", rec.saccades),
                        ("blink", rec.blinks)):
        inside = table[(table.end_time >= trial.start_time)
                       & (table.start_time <= trial.end_time)]
        want = sorted(set(zip(inside.start_time.astype(float), inside.end_time.astype(float))))
        for ax in (ax_x, ax_y):
            (spans,) = by_gid(ax.collections, kind)
            assert span_edges(spans) == want, (kind, ax)
    legend = [t.get_text() for t in ax_x.get_legend().get_texts()]
    assert legend == ["left eye", "right eye", "fixation", "saccade", "blink", "message"]

    # Messages: a dotted tick on both panels, labelled on the upper one;
    # those at the trial's start (a few pixels apart) share one label.
    msgs = rec.messages[(rec.messages.time >= trial.start_time)
                        & (rec.messages.time <= trial.end_time)]
    assert msgs.time.iloc[-2] - trial.start_time <= 2
    assert texts(ax_x) == [" | ".join(msgs.text.iloc[:-1]), "trial end"]
    for ax in (ax_x, ax_y):
        (ticks,) = by_gid(ax.collections, "messages")
        assert len(ticks.get_segments()) == len(msgs)

    # Fixations: one circle each, area growing with the duration, numbered
    # from 1 in the order they began.
    fix = rec.fixations[(rec.fixations.end_time >= trial.start_time)
                        & (rec.fixations.start_time <= trial.end_time)]
    (circles,) = by_gid(ax_scan.collections, "fixations_left")
    left = fix[fix.eye == 0].sort_values("start_time")
    sizes = circles.get_sizes()
    assert len(sizes) == len(left)
    assert list(np.argsort(sizes, kind="stable")) == \
        list(np.argsort(left.duration.to_numpy(), kind="stable"))
    np.testing.assert_allclose(circles.get_offsets(), left[["avg_gaze_x", "avg_gaze_y"]])
    assert [t.get_text() for t in ax_scan.texts][: len(left)] == \
        [str(i) for i in range(1, len(left) + 1)]

    fig.savefig(tmp_path / "trial.png")
    assert (tmp_path / "trial.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


def test_blink_leaves_a_gap(rec):
    n, blink = trial_with_blink(rec)
    fig = rec.plot(trial=n)
    for ax, gid in ((fig.axes[0], "gaze_x_left"), (fig.axes[1], "gaze_y_right"),
                    (fig.axes[2], "scanpath_left")):
        (line,) = by_gid(ax.lines, gid)
        y = np.asarray(line.get_ydata(), dtype=float)
        # No value drawn at the missing markers or at zero, ...
        assert np.nanmin(y) > 0 and np.nanmax(y) < 10000
        if ax is fig.axes[2]:
            assert np.isnan(y).any()
            continue
        # ... and no value drawn while the eye was closed.
        x = np.asarray(line.get_xdata(), dtype=float)
        closed = (x >= blink.start_time) & (x <= blink.end_time)
        assert closed.any() and np.isnan(y[closed]).all()
        assert np.isfinite(y[x < blink.start_time]).any()
        assert np.isfinite(y[x > blink.end_time]).any()


def test_span_of_one_eye_and_its_decimation(make_recording):
    rec = orbapi.read(make_recording(trials=12, seed=5))
    t = rec.columns("samples")["time"]
    gaze = rec.columns("samples")["gaze_x_left"]
    fig = rec.plot(start=float(t[0]), end=float(t[-1]), eye="left")
    ax_x = fig.axes[0]
    assert {ln.get_gid() for ln in ax_x.lines} == {"gaze_x_left"}
    assert "trial" not in fig.get_suptitle()
    (line,) = ax_x.lines
    y = np.asarray(line.get_ydata(), dtype=float)
    # Fewer points than samples (two per pixel column), keeping the extremes
    # and the gaps.
    width = ax_x.get_window_extent().width
    assert len(y) <= 2 * width + 2 < t.size
    assert np.nanmin(y) == np.nanmin(gaze) and np.nanmax(y) == np.nanmax(gaze)
    assert np.isnan(y).any()

    # A short span is drawn sample by sample.
    fig = rec.plot(start=float(t[10]), end=float(t[60]), eye="right")
    (line,) = fig.axes[0].lines
    assert line.get_gid() == "gaze_x_right" and len(line.get_ydata()) == 51


def test_overview_rows_blinks_trials(make_recording, tmp_path):
    rec = orbapi.read(make_recording(trials=3, seed=3))
    fig = rec.plot()  # no trial, no span: the overview
    (ax,) = fig.axes
    assert fig.get_suptitle().startswith(rec.path.split("/")[-1] + " \u2014 overview: "
                                         "3 blocks, 3 trials, ")
    assert [t.get_text() for t in ax.texts if t.get_text().strip().startswith("trial")] == \
        [" trial 0", " trial 1", " trial 2"]
    assert {"0", "1", "2"} <= set(texts(ax))
    assert ax.get_ylim() == (3, 0)
    (trials,) = by_gid(ax.collections, "trials")
    assert len(trials.get_segments()) == 6  # start and end of each
    (blinks,) = by_gid(ax.collections, "blink")
    assert len(blinks.get_paths()) == len(set(zip(rec.blinks.block, rec.blinks.start_time)))
    legend = [t.get_text() for t in ax.get_legend().get_texts()]
    assert legend == ["left eye", "right eye", "blink", "trial start, end"]

    # The traces: one image the size of the axes, with nothing drawn in the
    # middle of a blink.
    (image,) = ax.images
    pixels = image.get_array()
    bbox = ax.get_window_extent()
    assert pixels.shape[:2] == (round(bbox.height), round(bbox.width))
    colours = {tuple(orbplot._rgba(c)) for c in orbplot.EYE_COLOURS.values()}
    drawn = {tuple(p) for p in pixels.reshape(-1, 4) if p[3]}
    assert drawn <= colours and len(drawn) == 2
    blink = rec.blinks.iloc[0]
    row = int(blink.block)
    first = rec.samples.time[rec.samples.block == row].iloc[0]
    x0, x1 = ax.get_xlim()
    mid = ((blink.start_time + blink.end_time) / 2 - first) / 1000
    col = int((mid - x0) / (x1 - x0) * pixels.shape[1])
    per_row = pixels.shape[0] / 3
    assert not pixels[int(row * per_row):int((row + 1) * per_row), col, 3].any()
    assert pixels[int(row * per_row):int((row + 1) * per_row), col + 40, 3].any()
    fig.savefig(tmp_path / "overview.png")


def test_many_blocks_go_in_columns(make_recording):
    rec = orbapi.read(make_recording(trials=130, trial_ms=100, blinks=False, messages=False))
    fig = orbplot.overview(rec, eye="right")
    assert len(fig.axes) == 3
    assert [ax.get_ylim() for ax in fig.axes] == [(44, 0)] * 3
    # Beyond 40 rows a column, every fifth block is labelled.
    assert texts(fig.axes[2]) == [str(b) for b in range(90, 130, 5)]
    legend = [t.get_text() for t in fig.axes[0].get_legend().get_texts()]
    assert legend[0] == "right eye" and "left eye" not in legend


def test_drawing_into_given_axes(rec):
    fig, (a, b) = plt.subplots(1, 2, figsize=(16, 5))
    assert rec.plot(trial=0, ax=b) is fig
    assert a in fig.axes and b not in fig.axes and len(fig.axes) == 4
    axes = plt.figure().subplots(1, 3)
    fig = rec.plot(trial=0, ax=axes)
    assert list(fig.axes) == list(axes) and axes[2].yaxis_inverted()
    fig, ax = plt.subplots()
    assert orbplot.overview(rec, ax=ax) is fig and fig.axes == [ax]


def test_refusals(rec, make_recording):
    with pytest.raises(ValueError, match="no trial 99 .*trials: 0 to 3"):
        rec.plot(trial=99)
    with pytest.raises(ValueError, match="not both"):
        rec.plot(trial=0, start=0)
    with pytest.raises(ValueError, match="empty"):
        rec.plot(start=5000, end=4000)
    with pytest.raises(ValueError, match="'left', 'right' or 'both'"):
        rec.plot(trial=0, eye="cyclops")
    left_only = orbapi.read(make_recording(eyes="left"))
    with pytest.raises(ValueError, match="no gaze of the right eye"):
        left_only.plot(trial=0, eye="right")
    assert {ln.get_gid() for ln in left_only.plot(trial=0).axes[0].lines} == {"gaze_x_left"}


def test_matplotlib_only_when_drawing(rec, monkeypatch):
    loaded = subprocess.run([sys.executable, "-c", "import sys, orbapi.plot; "
                             "print('matplotlib' in sys.modules)"],
                            capture_output=True, text=True, check=True).stdout
    assert loaded.strip() == "False"
    monkeypatch.setitem(sys.modules, "matplotlib", None)
    with pytest.raises(ImportError, match=r"orbapi\[plot\]"):
        rec.plot(trial=0)


def orb_plot(*argv):
    parser = argparse.ArgumentParser(prog="orb plot")
    plot_command.configure(parser)
    return plot_command.run(parser.parse_args([str(a) for a in argv]))


@pytest.mark.parametrize("options, name, magic", [
    (["--trial", "1"], "t.png", b"\x89PNG"),
    (["--start", "100050", "--end", "100300", "--eye", "left"], "s.svg", b"<?xml"),
    ([], "o.pdf", b"%PDF"),
])
def test_orb_plot_writes_the_picture(make_recording, tmp_path, options, name, magic):
    path = make_recording(trials=2)
    assert orb_plot(path, *options, "-o", tmp_path / name) == 0
    assert (tmp_path / name).read_bytes().startswith(magic)


def test_orb_plot_failures(make_recording, tmp_path, capsys):
    path = make_recording(trials=2)
    assert orb_plot(path, "-o", tmp_path / "x.gif") == 2
    assert orb_plot(path, "--trial", "0", "--start", "5", "-o", tmp_path / "x.png") == 2
    assert orb_plot(tmp_path / "absent.orb", "-o", tmp_path / "x.png") == 1
    assert orb_plot(path, "--trial", "7", "-o", tmp_path / "x.png") == 1
    bad = make_recording(damage="bad_magic", name="bad.orb")
    assert orb_plot(bad, "-o", tmp_path / "x.png") == 1
    err = capsys.readouterr().err
    assert ".png, .svg or .pdf" in err and "absent.orb: no such file" in err
    assert "no trial 7" in err and "bad.orb: " in err
    assert not (tmp_path / "x.png").exists()
