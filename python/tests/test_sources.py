"""Where recordings come from, what goes wrong, the log, and threads."""
from __future__ import annotations

import logging
import threading

import numpy as np
import pytest

import orbapi
from orbwriter import OrbWriter


def frames_equal(a: orbapi.Recording, b: orbapi.Recording) -> None:
    for table in ("samples", "events", "messages", "blocks", "trials"):
        x, y = getattr(a, table), getattr(b, table)
        assert list(x.columns) == list(y.columns), table
        for c in x.columns:
            np.testing.assert_array_equal(x[c].to_numpy(), y[c].to_numpy(), err_msg=f"{table}.{c}")


@pytest.mark.parametrize("compressed", [False, True])
def test_bytes_read_as_the_file(make_recording, compressed):
    path = make_recording(compressed=compressed, rate=500, trials=2)
    with open(path, "rb") as f:
        data = f.read()
    from_file = orbapi.read(path, velocities=True)
    for source in (data, bytearray(data), memoryview(data)):
        from_bytes = orbapi.read(source, velocities=True)
        assert from_bytes.path is None and from_file.path == path
        frames_equal(from_bytes, from_file)
    with orbapi.open(data) as f:
        assert sum(1 for _ in f) == from_file.info["items"]


def test_paths_may_be_pathlike(make_recording):
    import pathlib
    path = make_recording(trials=1)
    assert len(orbapi.read(pathlib.Path(path)).samples) == len(orbapi.read(path).samples)


def test_missing_file(tmp_path):
    for call in (orbapi.read, orbapi.open):
        with pytest.raises(FileNotFoundError):
            call(tmp_path / "nothing.orb")


@pytest.mark.parametrize("damage, reason", [
    ("bad_magic", "Bad magic.  Corrupt orb file."),
])
def test_refused_file_carries_the_reason(make_recording, damage, reason):
    path = make_recording(damage=damage)
    for call in (orbapi.read, orbapi.open):
        with pytest.raises(orbapi.OrbError) as e:
            call(path)
        assert e.value.reason == reason and str(e.value) == reason
    with pytest.raises(orbapi.OrbError):
        orbapi.read(b"")


def test_truncated_recording_fails_or_reads_tolerantly(make_recording):
    for compressed in (False, True):
        path = make_recording(damage="truncated", compressed=compressed)
        whole = orbapi.read(make_recording(compressed=compressed))
        with pytest.raises(orbapi.OrbError) as e:
            orbapi.read(path)
        assert e.value.reason
        tolerant = orbapi.read(path, consistency=4)
        assert 0 < len(tolerant.samples) < len(whole.samples)


def test_log_goes_to_logging_not_stdout(make_recording, caplog, capfd):
    w = OrbWriter()
    w.magic = "NOT AN ORB FILE\n"
    data = w.build()
    with caplog.at_level(logging.WARNING, logger="orbapi"):
        with pytest.raises(orbapi.OrbError):
            orbapi.read(data)
        with pytest.raises(orbapi.OrbError):
            orbapi.open(data)
    lines = [r.getMessage() for r in caplog.records if r.name == "orbapi"]
    assert lines == ["Bad magic.  Corrupt orb file."] * 2
    out = capfd.readouterr()
    assert out.out == ""
    # Odd input that is read all the same is logged too.
    caplog.clear()
    with caplog.at_level(logging.WARNING, logger="orbapi"):
        orbapi.read(make_recording(damage="truncated"), consistency=4)
    assert any(r.name == "orbapi" for r in caplog.records)
    assert capfd.readouterr().out == ""


def test_two_threads_read_at_once(make_recording):
    paths = [make_recording(rate=2000, trials=3, camera=True),
             make_recording(rate=250, eyes="left", trials=3, compressed=True)]
    alone = [orbapi.read(p, velocities=True, camera=True) for p in paths]
    results: dict[int, orbapi.Recording] = {}
    errors = []
    start = threading.Barrier(len(paths) * 2)

    def work(i):
        try:
            start.wait()
            for _ in range(3):
                results[i] = orbapi.read(paths[i % 2], velocities=True, camera=True)
        except Exception as e:  # pragma: no cover - reported below
            errors.append(e)

    threads = [threading.Thread(target=work, args=(i,)) for i in range(len(paths) * 2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert not errors
    for i, rec in results.items():
        frames_equal(rec, alone[i % 2])
