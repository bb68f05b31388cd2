"""Dask frames: types known before any file is read, and the frames computed
on a two-process LocalCluster equal to read_many.  Needs the ``dask`` extra
(dask[dataframe] and distributed)."""

from __future__ import annotations

import pandas as pd
import pytest

import orbapi

from orbwriter import typical

dd = pytest.importorskip("dask.dataframe")
distributed = pytest.importorskip("distributed")


@pytest.fixture(scope="module")
def paths(tmp_path_factory):
    d = tmp_path_factory.mktemp("dask")
    return [
        typical(trials=3, seed=1).write(d / "a.orb"),
        typical(rate=500, eyes="left", trials=2, blocks=2, seed=2, variables={"rt": [300, 350]}).write(d / "b.orb"),
        typical(rate=2000, trials=2, seed=3, compressed=True).write(d / "c.orb"),
    ]


@pytest.fixture(scope="module")
def client():
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, distributed.Client(cluster) as c:
        yield c


def test_types_are_known_before_any_file_is_read(tmp_path, paths):
    nowhere = [str(tmp_path / f"missing{i}.orb") for i in range(3)]
    for options in ({}, {"velocities": True, "camera": True}):
        frame = orbapi.dask.read_samples(nowhere, **options)  # nothing is read
        assert frame.npartitions == 3
        real = orbapi.read(paths[0], **options).samples
        assert list(frame.columns) == ["file", *real.columns]
        assert frame.dtypes.drop("file").equals(real.dtypes)
        assert frame._meta["file"].cat.categories.tolist() == nowhere
    trials = orbapi.dask.read_trials(nowhere, variables={"rt": "float64", "condition": "object"})
    assert trials.dtypes["rt"] == "float64" and list(trials.columns)[-2:] == ["rt", "condition"]
    with pytest.raises(ValueError, match="named"):
        orbapi.dask.read_trials(nowhere, variables="all")
    with pytest.raises(FileNotFoundError):
        orbapi.dask.read_messages(nowhere).compute(scheduler="sync")


def test_frames_on_a_cluster_equal_read_many(client, paths):
    many = orbapi.read_many(paths, variables=["rt"])
    frames = {
        "samples": orbapi.dask.read_samples(paths),
        "events": orbapi.dask.read_events(paths),
        "messages": orbapi.dask.read_messages(paths),
        "trials": orbapi.dask.read_trials(paths, variables={"rt": "float64"}),
    }
    computed = client.compute(list(frames.values()), sync=True)
    for (table, frame), got in zip(frames.items(), computed):
        want = getattr(many, table)
        got = got.reset_index(drop=True)
        assert got.dtypes.equals(frame.dtypes), table  # the promised types
        # Dask may hold text as Arrow strings (its "dataframe.convert-string").
        pd.testing.assert_frame_equal(got, want, check_dtype=table != "messages")
    # The local scheduler gives the same.
    pd.testing.assert_frame_equal(
        frames["trials"].compute(scheduler="threads").reset_index(drop=True), computed[3].reset_index(drop=True)
    )
    per_file = frames["samples"].groupby("file", observed=True).size().compute()
    assert per_file.to_dict() == many.samples.groupby("file", observed=True).size().to_dict()
