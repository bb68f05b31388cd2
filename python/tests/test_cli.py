"""The ``orb`` command: info, convert (each format read back and compared
with orbapi.read), failures among good recordings, usage errors, the
registry of subcommands, and the wiring of ``--format fif`` to its module."""

from __future__ import annotations

import io
import json
import sys
import types

import numpy as np
import pandas as pd
import pyarrow.dataset as ds
import pytest

import orbapi
from orbapi import cli, many

from orbwriter import OrbWriter, add_samples, end_block, message, start_block, typical

TABLES = ("samples", "events", "messages", "blocks", "trials")
MISSING_WORDS = {"status": 32768, "input": 32768, "extra_type": -32768}


def run(capsys, *argv):
    code = cli.main(list(argv))
    out, err = capsys.readouterr()
    return code, out, err


def gappy(path):
    """A block whose samples jump from 1009 to 1015 ms: the repair fills in
    placeholders and the library reports the gap."""
    w = OrbWriter()
    start_block(w, 1000, rate=1000)
    w.add(message(1000, "TRIALID 1"))
    add_samples(w, [*range(1000, 1010), *range(1015, 1030)])
    w.add(message(1029, "trial end"))
    end_block(w, 1030)
    return w.write(path)


@pytest.fixture
def study(tmp_path):
    """Three good recordings that differ in rate, eyes, blocks and trial
    variables."""
    d = tmp_path / "study"
    d.mkdir()
    return [
        typical(trials=3, seed=1).write(d / "p01.orb"),
        typical(rate=500, eyes="left", trials=4, blocks=2, seed=2).write(d / "p02.orb"),
        typical(rate=2000, trials=2, seed=3, variables={"rt": [412, 388]}, compressed=True).write(d / "p03.orb"),
    ]


# ---------------------------------------------------------------------------
# orb info


def test_info_text_of_a_good_recording(capsys, study):
    code, out, err = run(capsys, "info", study[1])
    rec = orbapi.read(study[1], consistency=2)
    assert code == 0 and err == ""
    assert out.splitlines()[0] == study[1]
    assert "tracker    revision 3, model 2 (MK)" in out
    blocks = [line for line in out.splitlines() if line.strip().startswith("block")]
    assert len(blocks) == 2 == len(rec.blocks)
    start, end = rec.blocks.time[0], rec.blocks.end_time[0]
    assert f"{start}-{end} ms ({(end - start) / 1000:.3f} s), 500 Hz, left eye" in blocks[0]
    for key, n in [("samples", len(rec.samples)), ("fixations", len(rec.fixations)),
                   ("blinks", len(rec.blinks)), ("messages", len(rec.messages)), ("trials", len(rec.trials))]:
        assert f"  {key:<11}{n:,}\n" in out


def test_info_reports_repairs_and_refusals_in_text_and_json(capsys, tmp_path, study):
    gap = gappy(tmp_path / "gap.orb")
    broken = typical(damage="truncated").write(tmp_path / "broken.orb")

    code, out, err = run(capsys, "info", gap, broken, study[0])
    assert code == 1
    assert "placeholders filled" in out and "Missing" in out
    assert f"{broken}\n  error      " in out and f"orb: {broken}: " in err
    assert out.rstrip().endswith("damage     none reported")  # the good one after both

    code, out, err = run(capsys, "info", "--json", gap, broken, study[0])
    assert code == 1
    gap_info, broken_info, good = json.loads(out)
    samples = orbapi.read(gap, consistency=2).samples
    assert gap_info["placeholder_samples"] == 5 and gap_info["samples"] == len(samples) == 30
    assert any(line.startswith("Missing") for line in gap_info["damage"])
    assert broken_info["error"] and "samples" not in broken_info
    with pytest.raises(orbapi.OrbError) as refused:
        orbapi.read(broken, consistency=2)
    assert broken_info["error"] == many.reason(refused.value)
    assert good["error"] is None and good["damage"] == [] and good["trials"] == 3
    assert good["blocks"][0]["eyes"] == "both" and good["blocks"][0]["sample_rate"] == 1000

    # Read up to the damage: the last block has no end, and the library says why.
    unfinished = typical(damage="no_end").write(tmp_path / "unfinished.orb")
    code, out, _ = run(capsys, "info", unfinished)
    assert code == 1 and "(--consistency 6 reads what comes before damage)" in out
    code, out, _ = run(capsys, "info", "--consistency", "6", unfinished)
    assert code == 0 and ", no block end, 1000 Hz" in out and "End of file" in out.split("damage")[1]


# ---------------------------------------------------------------------------
# orb convert


def assert_same_table(back: pd.DataFrame, expected: pd.DataFrame, exact_types: bool):
    """Rows read back from a file equal the table of orbapi.read.  Text
    formats keep values, not types: compare in the original types.  A
    missing value read back (null, an empty field) stands where the table
    has NaN, or the stored marker of an integer column."""
    assert list(back.columns) == list(expected.columns)
    assert len(back) == len(expected)
    for c in expected.columns:
        want, got = expected[c], back[c].reset_index(drop=True)
        if want.dtype.kind in "iufb":
            if exact_types:
                assert getattr(got.dtype, "numpy_dtype", got.dtype) == want.dtype, c
            missing = got.isna().to_numpy()
            values = want.to_numpy()
            np.testing.assert_array_equal(got[~missing].to_numpy().astype(want.dtype), values[~missing], err_msg=c)
            stored = np.isnan(values) if values.dtype.kind == "f" else values == MISSING_WORDS.get(c)
            assert stored[missing].all(), c
        else:
            assert got.fillna("").astype(str).tolist() == want.fillna("").astype(str).tolist(), c


@pytest.mark.parametrize("fmt", ["parquet", "csv", "tsv"])
def test_convert_writes_every_table_equal_to_read(capsys, tmp_path, study, fmt):
    out_dir = tmp_path / "out"
    code, out, err = run(capsys, "convert", *study, "-o", str(out_dir), "--format", fmt, "--jobs", "2")
    assert code == 0 and err == ""
    assert out.startswith(f"Converted 3 of 3 recordings to {out_dir} ({fmt}):")
    for table in TABLES:
        if fmt == "parquet":
            back = pd.read_parquet(out_dir / table, dtype_backend="numpy_nullable")
            assert back["file"].dtype == "category"
        else:
            back = pd.concat(
                [pd.read_csv(f, sep="\t" if fmt == "tsv" else ",", keep_default_na=False, na_values=[""])
                 for f in sorted((out_dir / table).glob(f"*.{fmt}"))]
            )
        assert sorted(back["file"].unique()) == study
        for path in study:
            expected = getattr(orbapi.read(path), table)
            rows = back[back["file"] == path].drop(columns="file")
            assert_same_table(rows, expected, exact_types=fmt == "parquet")


def test_parquet_folder_is_one_dataset_with_options_applied(capsys, tmp_path, study):
    out_dir = tmp_path / "out"
    code, _, _ = run(capsys, "convert", str(tmp_path / "study"), "-o", str(out_dir),
                     "--tables", "samples,trials", "--velocities", "--variables", "all", "--consistency", "2", "--jobs", "1")
    assert code == 0
    assert sorted(p.name for p in out_dir.iterdir()) == ["samples", "trials"]
    samples = ds.dataset(out_dir / "samples", format="parquet").to_table()
    expected = [orbapi.read(p, velocities=True, consistency=2).samples for p in study]
    assert samples.num_rows == sum(map(len, expected))
    assert "gaze_vel_x_left" in samples.column_names
    # One schema for all trials, though the recordings have different variables.
    trials = ds.dataset(out_dir / "trials", format="parquet").to_table().to_pandas()
    assert {"condition", "difficulty", "rt"} <= set(trials.columns)
    assert trials.loc[trials.file == study[2], "rt"].tolist() == [412, 388]
    assert trials.loc[trials.file == study[0], "rt"].isna().all()


def test_variable_prefix_reaches_the_reader(capsys, tmp_path):
    path = typical(trials=2, messages=False, variable_prefix="var ",
                   variables={"rt": [412, 388]}).write(tmp_path / "prefixed.orb")
    out_dir = tmp_path / "out"
    code, _, _ = run(capsys, "convert", path, "-o", str(out_dir), "--tables", "trials",
                     "--variables", "all", "--variable-prefix", "var ")
    assert code == 0
    trials = pd.read_parquet(out_dir / "trials")
    assert trials.rt.tolist() == [412, 388] and "TRIALID" not in trials.columns


def test_a_damaged_recording_is_reported_and_skipped(capsys, tmp_path, study):
    broken = typical(damage="bad_magic").write(tmp_path / "study" / "p00.orb")
    missing = str(tmp_path / "nowhere.orb")
    out_dir = tmp_path / "out"
    code, out, err = run(capsys, "convert", broken, *study, missing, "-o", str(out_dir))
    assert code == 1
    with pytest.raises(orbapi.OrbError) as refused:
        orbapi.read(broken)
    assert f"orb: {broken}: {many.reason(refused.value)}\n" in err
    assert f"orb: {missing}: no such file: {missing}\n" in err
    assert "Converted 3 of 5 recordings" in out and "2 failed" in out
    assert sorted(p.stem for p in (out_dir / "samples").iterdir()) == ["p01", "p02", "p03"]
    assert len(err.splitlines()) == 2  # not a terminal: errors only


def test_progress_bar_only_on_a_terminal(capsys, monkeypatch, tmp_path, study):
    class Terminal(io.StringIO):
        def isatty(self):
            return True

    term = Terminal()
    monkeypatch.setattr(sys, "stderr", term)
    code = cli.main(["convert", *study, "-o", str(tmp_path / "out")])
    assert code == 0
    shown = term.getvalue()
    assert "3/3 recordings" in shown and "M samples/s" in shown and "left" in shown
    assert shown.endswith("\r\033[K")  # the bar is cleared at the end


@pytest.mark.parametrize(
    "argv",
    [
        [],
        ["frobnicate", "x.orb"],
        ["info"],
        ["convert", "x.orb"],
        ["convert", "-o", "out"],
        ["convert", "x.orb", "-o", "out", "--format", "xlsx"],
        ["convert", "x.orb", "-o", "out", "--tables", "samples,gaze"],
        ["convert", "x.orb", "-o", "out", "--jobs", "0"],
        ["convert", "x.orb", "-o", "out", "--consistency", "16"],
        ["convert", "x.orb", "-o", "out", "--format", "fif", "--tables", "samples"],
    ],
)
def test_usage_errors_exit_2(capsys, argv):
    code, out, err = run(capsys, *argv)
    assert code == 2 and out == "" and err


def test_usage_errors_about_files_exit_2(capsys, tmp_path, study):
    empty = tmp_path / "empty"
    empty.mkdir()
    code, _, err = run(capsys, "convert", str(empty), "-o", str(tmp_path / "out"))
    assert code == 2 and "no recordings" in err
    code, _, err = run(capsys, "convert", study[0], "-o", study[1])
    assert code == 2 and "not a folder" in err


@pytest.mark.parametrize("argv", [["--help"], ["convert", "--help"], ["info", "--help"]])
def test_help_explains_with_examples(capsys, argv):
    code, out, _ = run(capsys, *argv)
    assert code == 0 and "examples:" in out
    if "convert" in argv:
        for option in ("--format", "--tables", "--variables", "--velocities", "--camera", "--consistency", "--jobs", "-o"):
            assert option in out


# ---------------------------------------------------------------------------
# modules of other front ends


def test_a_registered_command_runs_and_one_that_cannot_says_what_to_install(capsys, monkeypatch):
    seen = {}
    command = types.ModuleType("fake_command")
    command.EXTRA = "extra-of-it"
    command.configure = lambda p: p.add_argument("file")
    command.run = lambda args: seen.setdefault("file", args.file) and 0
    monkeypatch.setitem(sys.modules, "fake_command", command)
    monkeypatch.setattr(cli, "COMMANDS", (*cli.COMMANDS, ("fake", "fake_command", "does nothing")))
    assert run(capsys, "fake", "a.orb")[0] == 0 and seen == {"file": "a.orb"}
    code, out, _ = run(capsys, "--help")
    assert code == 0 and "does nothing" in out

    def missing(args):
        raise ImportError("it needs a package that is not installed")

    command.run = missing
    code, _, err = run(capsys, "fake", "a.orb")
    assert code == 2 and "orb fake is not available" in err and "pip install 'orbapi[extra-of-it]'" in err

    monkeypatch.setitem(sys.modules, "fake_command", None)  # the module itself cannot be imported
    code, _, err = run(capsys, "fake", "a.orb")
    assert code == 2 and "orb fake is not available" in err


def test_plot_without_matplotlib_names_the_extra(capsys, monkeypatch, study):
    monkeypatch.setitem(sys.modules, "matplotlib", None)
    monkeypatch.setitem(sys.modules, "matplotlib.figure", None)
    code, _, err = run(capsys, "plot", study[0], "-o", "x.png")
    assert code == 2 and "pip install 'orbapi[plot]'" in err


def test_fif_is_written_through_toolkits(capsys, monkeypatch, tmp_path, study):
    fake = types.ModuleType("orbapi.toolkits")
    fake.write_fif = lambda rec, path: open(path, "w").write(str(len(rec.samples)))
    monkeypatch.setitem(sys.modules, "orbapi.toolkits", fake)
    monkeypatch.setattr(orbapi, "toolkits", fake, raising=False)
    out_dir = tmp_path / "fif"
    code, _, _ = run(capsys, "convert", *study, "-o", str(out_dir), "--format", "fif")
    assert code == 0
    assert (out_dir / "p02_raw.fif").read_text() == str(len(orbapi.read(study[1]).samples))

    def no_mne(rec, path):
        raise ImportError("mne is not installed; install it with: pip install 'orbapi[mne]'")

    fake.write_fif = no_mne  # the module is there, MNE is not: a set-up error, not a bad recording
    code, _, err = run(capsys, "convert", *study, "-o", str(out_dir), "--format", "fif")
    assert code == 2 and err.count("orbapi[mne]") == 1

    monkeypatch.setitem(sys.modules, "orbapi.toolkits", None)
    monkeypatch.delattr(orbapi, "toolkits")
    code, _, err = run(capsys, "convert", *study, "-o", str(out_dir), "--format", "fif")
    assert code == 2 and "orbapi[mne]" in err
