"""read_many on threads, to_parquet and the naming of many recordings."""

from __future__ import annotations

import os
import threading

import pandas as pd
import pyarrow.parquet as pq
import pytest

import orbapi
from orbapi import many

from orbwriter import typical

TABLES = ("samples", "events", "messages", "blocks", "trials", "fixations", "saccades", "blinks")


@pytest.fixture
def paths(tmp_path):
    return [
        typical(trials=3, seed=1).write(tmp_path / "a.orb"),
        typical(rate=500, eyes="right", trials=2, blocks=2, seed=2).write(tmp_path / "b.orb"),
        typical(rate=2000, trials=2, seed=3, variables={"rt": [412, 388]}).write(tmp_path / "c.orb"),
        typical(rate=250, trials=1, seed=4, compressed=True).write(tmp_path / "d.orb"),
    ]


def test_read_many_on_two_threads_equals_one_thread_and_each_read(paths):
    one = orbapi.read_many(paths, jobs=1, variables="all")
    two = orbapi.read_many(paths, jobs=2, variables="all")
    for table in TABLES:
        pd.testing.assert_frame_equal(getattr(one, table), getattr(two, table))
    assert one.samples["file"].cat.categories.tolist() == paths
    for path in paths:
        alone = orbapi.read(path, variables="all")
        for table in TABLES:
            got = getattr(two, table)
            got = got[got.file == path].drop(columns="file").reset_index(drop=True)
            want = getattr(alone, table)
            pd.testing.assert_frame_equal(got[list(want.columns)], want, check_dtype=False)
    assert [r["samples"] for r in two.info["recordings"]] == [orbapi.read(p).info["samples"] for p in paths]
    # Rows keep the order of the paths, not of the threads.
    assert two.samples.file.cat.codes.is_monotonic_increasing


def test_read_many_raises_for_the_first_failure(tmp_path, paths):
    broken = typical(damage="bad_magic").write(tmp_path / "broken.orb")
    with pytest.raises(orbapi.OrbError, match="broken.orb: ") as failed:
        orbapi.read_many([*paths, broken], jobs=2)
    assert failed.value.path == broken and failed.value.reason.startswith("Bad magic")
    with pytest.raises(FileNotFoundError):
        orbapi.read_many([paths[0], tmp_path / "missing.orb"])
    with pytest.raises(TypeError):
        orbapi.read_many([b"NORVANE_LAB_COMBFILE\n"])


def test_to_parquet_skips_failures_and_writes_one_dataset_per_table(tmp_path, paths):
    broken = typical(damage="truncated").write(tmp_path / "broken.orb")
    seen = []
    res = orbapi.to_parquet([paths[0], broken, *paths[1:]], tmp_path / "pq", jobs=2,
                            tables=["samples", "trials"], progress=seen.append, variables=["rt"])
    assert res.converted == paths and list(res.failed) == [broken]
    assert res.failed[broken]  # the library's reason
    assert sorted(p.done for p in seen) == [1, 2, 3, 4, 5] and seen[-1].total == 5
    assert res.samples == sum(len(orbapi.read(p).samples) for p in paths)
    assert sorted(os.path.relpath(f, res.out_dir) for f in res.files) == sorted(
        os.path.join(t, f"{n}.parquet") for t in ("samples", "trials") for n in "abcd"
    )
    # The same rows as read_many's, a missing value null as in its Arrow table.
    back = pq.read_table(tmp_path / "pq" / "samples").to_pandas()
    expected = orbapi.read_many(paths).arrow_table("samples").to_pandas()
    assert back.file.tolist() == expected.file.tolist()
    pd.testing.assert_frame_equal(back.drop(columns="file"), expected.drop(columns="file"))
    # Trials of recordings with and without the variable share one schema.
    trials = pq.read_table(tmp_path / "pq" / "trials").to_pandas()
    assert trials.rt.dtype == "float64" and trials.rt.notna().sum() == 2


def test_bad_arguments_raise(tmp_path, paths):
    with pytest.raises(ValueError, match="unknown table"):
        orbapi.to_parquet(paths, tmp_path, tables=["samples", "gaze"])
    with pytest.raises(ValueError, match="unknown format"):
        many.convert(paths, tmp_path, format="xlsx")
    with pytest.raises(ValueError):
        orbapi.read_many(paths, jobs=0)


def test_folders_expand_and_names_stay_apart(tmp_path):
    for sub in ("s1", "s2"):
        (tmp_path / sub).mkdir()
        typical(trials=1).write(tmp_path / sub / "run.orb")
    (tmp_path / "s1" / "notes.txt").write_text("not a recording")
    found = many.expand_paths([tmp_path])
    assert found == [str(tmp_path / "s1" / "run.orb"), str(tmp_path / "s2" / "run.orb")]
    assert many.output_names(found + ["x/RUN.orb"]) == ["run", "run-2", "RUN-3"]
    res = many.convert([tmp_path], tmp_path / "out", tables=["messages"])
    assert sorted(os.path.basename(f) for f in res.files) == ["run-2.parquet", "run.parquet"]
    files = pd.read_parquet(tmp_path / "out" / "messages").file
    assert sorted(files.unique()) == found


def test_library_lines_are_kept_per_recording(tmp_path, paths, caplog):
    from test_cli import gappy

    every = [*paths, gappy(tmp_path / "gap.orb")]
    res = many.convert(every, tmp_path / "out", format="csv", tables=["messages"], jobs=2, consistency=2)
    alone = {}
    with many.LogCapture() as capture:
        for p in every:
            orbapi.read(p, consistency=2)
            alone[p] = capture.take()
    assert res.warnings == {p: lines for p, lines in alone.items() if lines}
    assert any(line.startswith("Missing") for line in res.warnings[every[-1]])
    # A thread that does not watch keeps its lines in the log.
    with many.LogCapture():
        other = threading.Thread(target=orbapi.read, args=(every[-1],), kwargs={"consistency": 2})
        other.start()
        other.join()
    assert [r.getMessage() for r in caplog.records] == res.warnings[every[-1]]
