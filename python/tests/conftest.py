"""Fixtures shared by the Python tests.

``make_recording`` writes a recording into the test's temporary directory
and returns its path::

    def test_something(make_recording):
        path = make_recording(rate=500, eyes="left", trials=2)
        custom = make_recording(writer=my_orbwriter)       # any OrbWriter
        data = make_recording(rate=250, as_bytes=True)      # the bytes only

The keyword arguments are those of :func:`orbwriter.typical`.
"""
from __future__ import annotations

import itertools

import pytest

import orbwriter


@pytest.fixture
def make_recording(tmp_path):
    counter = itertools.count()

    def make(writer: orbwriter.OrbWriter | None = None, *, as_bytes: bool = False,
             name: str | None = None, **options):
        w = writer if writer is not None else orbwriter.typical(**options)
        if as_bytes:
            return w.build()
        return w.write(tmp_path / (name or f"rec{next(counter)}.orb"))

    return make
