"""The same tables through numpy, pandas, Arrow and polars."""
from __future__ import annotations

import gc
import subprocess
import sys

import numpy as np
import pytest

import orbapi
from orbapi.recording import TABLES


@pytest.fixture(scope="module")
def rec(tmp_path_factory):
    from orbwriter import typical
    path = typical(rate=500, trials=3, camera=True).write(tmp_path_factory.mktemp("f") / "a.orb")
    # With the stored markers kept, nothing is missing in Arrow or polars
    # that is present in pandas (the nulls are test_nulls' subject).
    return orbapi.read(path, velocities=True, camera=True, variables="all", sentinels=True)


def plain(values: np.ndarray) -> np.ndarray:
    """Text columns with every kind of missing value as None."""
    if values.dtype.kind in "iuf":
        return values
    return np.array([None if v is None or v != v else str(v) for v in values], dtype=object)


def test_pandas_arrow_and_polars_hold_the_same_values(rec):
    arrow = rec.to_arrow()
    polars = rec.to_polars()
    assert set(arrow) == set(polars) == set(TABLES)
    for table in TABLES:
        frame = getattr(rec, table)
        assert arrow[table].column_names == list(frame.columns) == polars[table].columns
        for c in frame.columns:
            expected = plain(frame[c].to_numpy())
            for other in (arrow[table].column(c).to_numpy(zero_copy_only=False),
                          polars[table][c].to_numpy()):
                if expected.dtype.kind in "iuf":
                    assert other.dtype == expected.dtype, (table, c)
                np.testing.assert_array_equal(plain(other), expected, err_msg=f"{table}.{c}")


def test_columns_are_not_copied_and_outlive_the_recording(tmp_path):
    from orbwriter import typical
    rec = orbapi.read(typical(trials=2).write(tmp_path / "a.orb"))
    cols = rec.columns("samples")
    gaze = cols["gaze_x_left"]
    assert gaze.dtype == np.float32 and not gaze.flags.owndata
    assert np.shares_memory(gaze, rec.samples["gaze_x_left"].to_numpy())
    expected = gaze.copy()
    del rec, cols
    gc.collect()
    junk = [np.ones(len(expected), np.float32) for _ in range(20)]  # reuse freed memory
    np.testing.assert_array_equal(gaze, expected)
    del junk


def test_concat_tags_each_row_with_its_file(make_recording):
    a = orbapi.read(make_recording(trials=2, name="a.orb"), variables=["condition"])
    b = orbapi.read(make_recording(trials=1, name="b.orb", rate=500), variables="all")
    both = orbapi.Recording.concat([a, b])
    assert both.samples.columns[0] == "file"
    assert list(both.samples.file.unique()) == ["a.orb", "b.orb"]
    assert len(both.samples) == len(a.samples) + len(b.samples)
    np.testing.assert_array_equal(both.samples.time[: len(a.samples)], a.samples.time)
    # b has variables a lacks: NaN there.
    assert both.trials.TRIALID.isna().sum() == len(a.trials)
    assert list(both.trials.condition) == list(a.trials.condition) + list(b.trials.condition)
    assert both.info["files"] == ["a.orb", "b.orb"]


def test_from_tables():
    import pandas as pd
    rec = orbapi.Recording.from_tables({"samples": pd.DataFrame({"time": [1.0, 2.0]}),
                                        "messages": {"text": ["hi"], "time": [3]}}, path="x.orb")
    assert list(rec.samples.time) == [1.0, 2.0] and list(rec.messages.text) == ["hi"]
    assert len(rec.events) == 0 and rec.path == "x.orb"
    with pytest.raises(ValueError):
        orbapi.Recording.from_tables({"nonsense": {}})


def test_import_is_light_and_a_missing_extra_is_named():
    code = (
        "import sys, orbapi\n"
        "heavy = [m for m in ('pandas', 'pyarrow', 'polars', 'dask', 'orbapi.many') if m in sys.modules]\n"
        "assert not heavy, heavy\n"
        "sys.modules['pandas'] = None\n"
        "rec = orbapi.Recording.from_tables({'samples': {'time': [1.0]}})\n"
        "assert rec.columns('samples')['time'][0] == 1.0\n"
        "try:\n"
        "    rec.samples\n"
        "except ImportError as e:\n"
        "    assert \"orbapi[pandas]\" in str(e), e\n"
        "else:\n"
        "    raise SystemExit('no ImportError')\n"
    )
    subprocess.run([sys.executable, "-c", code], check=True)


def test_message_texts(make_recording):
    rec = orbapi.read(make_recording(trials=1))
    texts = list(rec.messages.text)
    assert "Grüße, Blickdaten" in texts        # UTF-8, trailing line feed dropped
    assert "no line feed" in texts
    assert "before" in texts                   # cut at the NUL
    assert "TRIALID 1" in texts and "trial end" in texts
