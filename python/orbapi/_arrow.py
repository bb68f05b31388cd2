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
    out = []
    for name, values in columns.items():
        v = np.asarray(values)
        mask = None
        if v.dtype.kind == "f":
            mask = np.isnan(v)
        elif words and name in MISSING_WORDS and v.dtype.kind in "iu":
            mask = v == np.array(MISSING_WORDS[name]).astype(v.dtype)
        if mask is not None and mask.any():
            out.append(pa.array(v, mask=mask))
        else:
            out.append(pa.array(v))
    return out


def table(columns: Mapping[str, np.ndarray], *, words: bool, declare: bool = False):
    """A pyarrow Table of :func:`arrays`.  With `declare`, columns without
    nulls are declared so, which makes them cheaper to write and read."""
    pa = require("pyarrow", "arrow")
    values = arrays(columns, words=words)
    fields = [pa.field(n, a.type, nullable=not declare or a.null_count > 0) for n, a in zip(columns, values)]
    return pa.Table.from_arrays(values, schema=pa.schema(fields))
