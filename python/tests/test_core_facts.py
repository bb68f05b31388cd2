"""The facts of the library that _core hands to the Python modules."""
from __future__ import annotations

import numpy as np
import pytest

from orbapi import _core

FLAG_SETS = (0, _core.VELOCITIES, _core.CAMERA, _core.VELOCITIES | _core.CAMERA)
TABLES = (_core.SAMPLES, _core.EVENTS, _core.BLOCKS, _core.TRIALS)


def raw_columns(data, flags):
    return _core.read_columns(None, data, 0, True, True, flags, None, None, True)


@pytest.mark.parametrize("flags", FLAG_SETS)
def test_column_layout_is_that_of_a_read(make_recording, flags):
    data = make_recording(rate=1000, trials=2, camera=True, as_bytes=True)
    cols = raw_columns(data, flags)
    for table in TABLES:
        read = [(name, str(array.dtype)) for name, array in cols.table(table)]
        assert read == _core.column_layout(table, flags)
        assert cols.rows(table) > 0


def test_the_empty_recording_reads_to_empty_tables():
    assert _core.EMPTY_RECORDING.startswith(_core.MAGIC_PLAIN)
    cols = raw_columns(_core.EMPTY_RECORDING, 0)
    for table in TABLES:
        assert cols.rows(table) == 0
        assert [name for name, _ in cols.table(table)] == [n for n, _ in _core.column_layout(table)]
    assert cols.items == 0


def test_the_markers_are_those_the_reader_turns_into_nan(make_recording):
    # One eye recorded, a blink in the other's data: both markers occur.
    data = make_recording(rate=500, trials=1, eyes="left", as_bytes=True)
    kept = dict(raw_columns(data, 0).table(_core.SAMPLES))
    nan = dict(_core.read_columns(None, data, 0, True, True, 0, None, None, False).table(_core.SAMPLES))
    left, right = _core.EYE_NAMES
    assert (kept[f"gaze_x_{right}"] == _core.MISSING_POSITION).all()
    assert (kept[f"gaze_x_{left}"] == _core.MISSING_VALUE).any()
    for name, values in kept.items():
        if values.dtype.kind == "f":
            marked = (values == _core.MISSING_POSITION) | (values == _core.MISSING_VALUE)
            assert (np.isnan(nan[name]) == marked).all(), name
