"""A missing value in the outputs that have a word for it (Arrow, polars,
Parquet: null; CSV and TSV: an empty field) and in those that have not
(numpy and pandas: NaN, integers their stored marker); ``columns=`` of the
readers of many recordings."""
from __future__ import annotations

import numpy as np
import pandas as pd
import pyarrow as pa
import pytest

import orbapi
from orbapi import _core
from orbapi.recording import TABLES

from orbwriter import typical

# The samples' integer columns with a stored marker for a missing value.
WORDS = {"status": _core.MISSING_WORD, "input": _core.MISSING_WORD, "extra_type": _core.MISSING_WORD - 65536}


def stored_missing(values) -> np.ndarray:
    return np.isin(np.asarray(values), (_core.MISSING_POSITION, _core.MISSING_VALUE))


@pytest.fixture(scope="module")
def paths(tmp_path_factory):
    d = tmp_path_factory.mktemp("nulls")
    return [typical(trials=3, camera=True, seed=1).write(d / "a.orb"),
            typical(rate=500, eyes="left", trials=2, seed=2).write(d / "b.orb")]


def missing_in_pandas(table: str, column: pd.Series, sentinels: bool) -> np.ndarray:
    """Where the pandas table holds a missing value: NaN (None for text),
    or the stored marker of an integer column of samples."""
    values = column.to_numpy()
    if table == "samples" and column.name in WORDS and not sentinels:
        return values == np.array(WORDS[column.name]).astype(values.dtype)
    return column.isna().to_numpy()


@pytest.mark.parametrize("sentinels", [False, True])
def test_arrow_and_polars_have_nulls_exactly_where_pandas_has_nan(paths, sentinels):
    # a has the camera words, b lacks input and extra type: markers there.
    nulls = {}
    for path in paths:
        rec = orbapi.read(path, velocities=True, camera=True, variables="all", sentinels=sentinels)
        nulls.update(compare_nulls(rec, sentinels))
    gaze = rec.columns("samples")["gaze_x_left"]
    if sentinels:
        # The markers are values like any other: only text has missing values.
        assert not any(n for (table, c), n in nulls.items() if table == "samples")
        assert stored_missing(gaze).any()
    else:
        assert nulls["samples", "gaze_x_left"] == np.isnan(gaze).sum() > 0
        assert all(nulls["samples", c] for c in ("input", "extra_type"))


def compare_nulls(rec, sentinels) -> dict:
    """Checks the nulls of rec's Arrow and polars tables against the
    missing values of its pandas tables; the nulls of each column."""
    arrow, polars = rec.to_arrow(), rec.to_polars()
    nulls = {}
    for table in TABLES:
        frame = getattr(rec, table)
        assert arrow[table].column_names == list(frame.columns) == polars[table].columns
        for c in frame.columns:
            where = missing_in_pandas(table, frame[c], sentinels)
            a, p = arrow[table].column(c), polars[table][c]
            np.testing.assert_array_equal(a.is_null().to_numpy(zero_copy_only=False), where, err_msg=f"{table}.{c}")
            np.testing.assert_array_equal(p.is_null().to_numpy(), where, err_msg=f"{table}.{c}")
            if frame[c].dtype.kind in "iuf":
                # Same type (integers stay integers), same values where present.
                present = frame[c].to_numpy()[~where]
                assert a.type == pa.from_numpy_dtype(frame[c].dtype), (table, c)
                for values in (a.drop_null().to_numpy(), p.drop_nulls().to_numpy()):
                    assert values.dtype == present.dtype, (table, c)
                    np.testing.assert_array_equal(values, present, err_msg=f"{table}.{c}")
            nulls[table, c] = int(where.sum())
    return nulls


def test_duckdb_aggregates_over_a_converted_dataset_skip_missing(tmp_path, paths):
    duckdb = pytest.importorskip("duckdb")
    res = orbapi.to_parquet(paths, tmp_path / "out", tables=["samples", "events"], velocities=True)
    assert res.ok
    expected = orbapi.read_many(paths, velocities=True)
    con = duckdb.connect()
    for table in ("samples", "events"):
        frame = getattr(expected, table)
        numbers = [c for c in frame.columns if frame[c].dtype.kind == "f"]
        assert "gaze_x_left" in numbers or table == "events"
        query = ", ".join(f'avg("{c}"), count("{c}")' for c in numbers)
        got = con.execute(f"SELECT {query} FROM '{tmp_path / 'out' / table}/*.parquet'").fetchone()
        for k, c in enumerate(numbers):
            mean, count = got[2 * k], got[2 * k + 1]
            assert count == frame[c].count(), (table, c)
            if count:
                assert mean == pytest.approx(frame[c].astype(np.float64).mean(), rel=1e-9), (table, c)
            else:
                assert mean is None
    gaze = con.execute(f"SELECT count(*) - count(gaze_x_left) FROM '{tmp_path / 'out' / 'samples'}/*.parquet'")
    assert gaze.fetchone()[0] == expected.samples.gaze_x_left.isna().sum() > 0


def test_csv_writes_missing_values_as_empty_fields_or_markers(tmp_path, paths):
    for sentinels in (False, True):
        out = tmp_path / f"csv-{sentinels}"
        orbapi.datasets.convert(paths[1:], out, format="csv", tables=["samples"], sentinels=sentinels)
        header, *rows = [line.split(",") for line in (out / "samples" / "b.csv").read_text().splitlines()]
        gaze = [r[header.index("gaze_x_left")] for r in rows]
        word = [r[header.index("input")] for r in rows]  # b has no input word
        pandas = orbapi.read(paths[1], sentinels=sentinels).samples
        if sentinels:
            assert "" not in gaze and "" not in word
            np.testing.assert_array_equal(np.array(gaze, np.float32), pandas.gaze_x_left.to_numpy())
            assert stored_missing(pandas.gaze_x_left).any()
        else:
            assert [v == "" for v in gaze] == pandas.gaze_x_left.isna().tolist()
            assert all(v == "" for v in word) and (pandas.input == WORDS["input"]).all()


# ---------------------------------------------------------------------------
# columns=


def test_columns_pick_samples_in_the_order_given(paths):
    whole = orbapi.read_many(paths)
    rec = orbapi.read_many(paths, columns=["trial", "gaze", "time", "pupil_size_left", "gaze_x_left"])
    assert list(rec.samples.columns) == ["file", "trial", "gaze_x_left", "gaze_x_right", "gaze_y_left",
                                         "gaze_y_right", "time", "pupil_size_left"]
    pd.testing.assert_frame_equal(rec.samples, whole.samples[rec.samples.columns])
    pd.testing.assert_frame_equal(rec.events, whole.events)  # other tables whole
    short = orbapi.read_many(paths[:1], columns="time,gaze,pupil,block,trial").samples
    assert list(short.columns) == ["file", "time", "gaze_x_left", "gaze_x_right", "gaze_y_left", "gaze_y_right",
                                   "pupil_size_left", "pupil_size_right", "block", "trial"]
    stems = orbapi.read_many(paths[:1], columns=["extra_data"]).samples
    assert list(stems.columns) == ["file"] + [f"extra_data_{i}" for i in range(8)]


def test_unknown_columns_are_refused_naming_the_known_ones(tmp_path, paths):
    for call in (lambda c: orbapi.read_many(paths, columns=c),
                 lambda c: orbapi.to_parquet(paths, tmp_path / "x", columns=c)):
        with pytest.raises(ValueError, match=r"unknown column 'gaze_vel_x_left'.*gaze_x_left.*pupil"):
            call(["time", "gaze_vel_x_left"])
        with pytest.raises(ValueError, match="no columns"):
            call([])
    assert not (tmp_path / "x").exists()
    # With velocities the same name is known.
    rec = orbapi.read_many(paths[:1], columns=["gaze_vel_x_left"], velocities=True)
    assert list(rec.samples.columns) == ["file", "gaze_vel_x_left"]
    with pytest.raises(ValueError, match="FIF"):
        orbapi.datasets.convert(paths, tmp_path / "y", format="fif", columns=["time"])


def test_to_parquet_writes_the_columns_chosen(tmp_path, paths):
    res = orbapi.to_parquet(paths, tmp_path / "out", tables=["samples", "trials"], columns=["time", "pupil"],
                            variables="all")
    assert res.ok
    back = pd.read_parquet(tmp_path / "out" / "samples")
    assert list(back.columns) == ["file", "time", "pupil_size_left", "pupil_size_right"]
    whole = orbapi.read_many(paths).samples
    np.testing.assert_array_equal(back.pupil_size_right.to_numpy(), whole.pupil_size_right.to_numpy())
    assert "condition" in pd.read_parquet(tmp_path / "out" / "trials").columns


def test_cli_columns_and_sentinels(tmp_path, paths, capsys):
    from orbapi import cli
    out = tmp_path / "out"
    assert cli.main(["convert", *paths, "-o", str(out), "--tables", "samples", "--columns",
                     "time,gaze,pupil,block,trial", "--sentinels"]) == 0
    back = pd.read_parquet(out / "samples")
    assert list(back.columns)[:3] == ["file", "time", "gaze_x_left"] and list(back.columns)[-1] == "trial"
    assert stored_missing(back.gaze_x_left).any() and not back.gaze_x_left.isna().any()
    capsys.readouterr()
    assert cli.main(["convert", *paths, "-o", str(out), "--columns", "time,gaze,speed"]) == 2
    err = capsys.readouterr().err
    assert "unknown column 'speed'" in err and "gaze_x_left" in err


def test_dask_samples_take_columns(paths):
    pytest.importorskip("dask.dataframe")
    frame = orbapi.dask.read_samples(paths, columns=["time", "gaze_x_right", "trial"])
    assert list(frame.columns) == ["file", "time", "gaze_x_right", "trial"]
    computed = frame.compute(scheduler="sync").reset_index(drop=True)
    whole = orbapi.read_many(paths).samples[list(frame.columns)]
    pd.testing.assert_frame_equal(computed, whole, check_categorical=False)
    with pytest.raises(ValueError, match="unknown column 'gazes' of samples"):
        orbapi.dask.read_samples(paths, columns=["gazes"])
    trials = orbapi.dask.read_trials(paths, variables={"difficulty": "float64"}, columns="difficulty,trial")
    assert list(trials.columns) == ["file", "difficulty", "trial"]
    assert trials.compute(scheduler="sync").difficulty.notna().all()
    with pytest.raises(ValueError, match="unknown column 'text' of events; the columns are time, type"):
        orbapi.dask.read_events(paths, columns=["time", "text"])
