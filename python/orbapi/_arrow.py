"""Columns as Arrow arrays, with a missing value as null.

numpy and pandas mark a missing value with NaN (the library turns the
stored markers of the float columns into NaN); Arrow, polars and Parquet
have a word for it, null, which their readers skip in aggregates.  So every
NaN becomes null here, and so do the stored markers of the samples' integer
columns (status, input, extra type), unless the recording was read with
``sentinels=True``, which keeps every stored marker as stored.
"""
from __future__ import annotations

from collections.abc import Mapping

import numpy as np

from ._facts import MISSING_WORDS
from ._optional import require


def arrays(columns: Mapping[str, np.ndarray], *, words: bool) -> list:
    """One pyarrow array per column, the numbers not copied: NaN as null,
    and with `words` the missing markers of :data:`MISSING_WORDS` too."""
    pa = require("pyarrow", "arrow")
    pc = require("pyarrow.compute", "arrow")
    out = []
    for name, values in columns.items():
        array = pa.array(np.asarray(values))
        kind = array.type
        if pa.types.is_floating(kind):
            array = _null_where(array, pc.invert(pc.is_nan(array)))
        elif words and name in MISSING_WORDS and pa.types.is_integer(kind):
            marker = np.array(MISSING_WORDS[name]).astype(kind.to_pandas_dtype())
            array = _null_where(array, pc.not_equal(array, pa.scalar(marker, kind)))
        out.append(array)
    return out


def _null_where(array, valid):
    """`array` (without nulls) with a null wherever `valid` is false, its
    values kept in place; `array` itself when `valid` is true throughout.
    Building the validity bits in Arrow's own kernels is about twice as fast
    as a numpy mask."""
    pa = require("pyarrow", "arrow")
    masked = pa.Array.from_buffers(array.type, len(array), [valid.buffers()[1], array.buffers()[1]],
                                   -1, valid.offset)
    return masked if masked.null_count else array


def table(columns: Mapping[str, np.ndarray], *, words: bool, declare: bool = False):
    """A pyarrow Table of :func:`arrays`.  With `declare`, columns without
    nulls are declared so, which makes them cheaper to write and read."""
    pa = require("pyarrow", "arrow")
    values = arrays(columns, words=words)
    fields = [pa.field(n, a.type, nullable=not declare or a.null_count > 0) for n, a in zip(columns, values)]
    return pa.Table.from_arrays(values, schema=pa.schema(fields))
