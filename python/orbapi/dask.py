"""Recordings as lazy Dask DataFrames, for more data than one machine holds.

Each function returns a ``dask.dataframe.DataFrame`` with one partition per
recording.  Nothing is read until the frame is computed, and then each
recording is read where its partition is computed: on the local scheduler
or on the workers of a ``dask.distributed`` cluster (the paths must be
readable there).  The column names and types are known at once, without
reading any file; they are those of :func:`orbapi.read` (with the same
options) plus a ``file`` column in front: a categorical whose categories
are the paths as given.  Computed, a frame holds the same rows as the table
of :func:`orbapi.read_many`; its index restarts at 0 in each partition.

Example::

    >>> from dask.distributed import Client
    >>> client = Client("scheduler:8786")
    >>> samples = orbapi.dask.read_samples(paths, velocities=True)
    >>> samples.groupby("file", observed=True)["gaze_vel_x_left"].max().compute()
"""

from __future__ import annotations

import os
from typing import Sequence

from ._facts import EMPTY_RECORDING  # a recording without items: empty tables, fully typed
from ._select import pick


def _dd():
    try:
        import dask.dataframe as dd
    except ImportError as e:
        raise ImportError("orbapi.dask needs dask: pip install 'orbapi[dask]'") from e
    return dd


def read_samples(paths: Sequence, *, columns: Sequence[str] | str | None = None, **read_options):
    """The samples of every recording, one partition per recording.

    ``read_options`` are those of :func:`orbapi.read` (``velocities=True``
    adds the velocity columns, ``camera=True`` the camera values, ...).
    ``columns`` picks columns, in the order given, behind ``file`` (see
    :func:`orbapi.read_many`); an unknown name raises ValueError at once.
    Every reader here takes ``columns`` for its table.  The partitions are
    pandas frames: a missing value is NaN, as in :func:`orbapi.read`.

    Example::

        >>> s = orbapi.dask.read_samples(["a.orb", "b.orb"])
        >>> s.npartitions
        2
        >>> s.gaze_x_left.mean().compute()  # doctest: +SKIP
    """
    return _frame("samples", paths, read_options, columns=columns)


def read_events(paths: Sequence, *, columns: Sequence[str] | str | None = None, **read_options):
    """The events (every item but samples, messages and block markers
    themselves) of every recording, one partition per recording.

    Example::

        >>> ev = orbapi.dask.read_events(paths)
        >>> ev[ev.type == 8].groupby("file", observed=True).size().compute()  # doctest: +SKIP
    """
    return _frame("events", paths, read_options, columns=columns)


def read_messages(paths: Sequence, *, columns: Sequence[str] | str | None = None, **read_options):
    """The messages of every recording, one partition per recording.

    Example::

        >>> m = orbapi.dask.read_messages(paths)
        >>> m[m.text.str.startswith("TRIALID")].compute()  # doctest: +SKIP
    """
    return _frame("messages", paths, read_options, columns=columns)


def read_trials(paths: Sequence, *, variables=None, columns: Sequence[str] | str | None = None, **read_options):
    """The trials of every recording, one partition per recording.

    ``variables`` names the trial variables to take from the messages, as in
    :func:`orbapi.read`, but as a list of names (their columns hold the
    values as parsed, dtype object) or as a dict of name to dtype
    (``{"rt": "float64", "condition": "str"}``), since a frame's types
    must be known before the files are read.  ``"all"`` is refused for that
    reason: name the variables.

    Example::

        >>> t = orbapi.dask.read_trials(paths, variables={"RT": "float64"})
        >>> t.groupby("file", observed=True).RT.mean().compute()  # doctest: +SKIP
    """
    if isinstance(variables, str):
        raise ValueError(
            "variables must be named for a Dask frame (its columns are fixed before any file is read); "
            "pass a list of names or a dict of name to dtype"
        )
    if variables is not None:
        variables = {v: "object" for v in variables} if not isinstance(variables, dict) else dict(variables)
    return _frame("trials", paths, read_options, variables, columns)


def _frame(table, paths, read_options, variables=None, columns=None):
    dd = _dd()
    labels = [_label(p) for p in paths]
    if not labels:
        raise ValueError("no recordings given")
    options = dict(read_options)
    if variables is not None:
        options["variables"] = list(variables)
    meta = meta_frame(table, labels, options, variables)
    if columns is not None:
        meta = meta[["file", *pick(columns, [c for c in meta.columns if c != "file"], table)]]
    part = _ReadTable(table, labels, options, meta)
    return dd.from_map(part, list(range(len(labels))), meta=meta, enforce_metadata=False, label=f"orb-{table}")


def _label(p):
    if isinstance(p, (bytes, bytearray, memoryview)):
        raise TypeError("orbapi.dask reads files: give paths")
    return os.fspath(p)


def meta_frame(table, labels, read_options, variables=None):
    """The empty frame with the columns and types of ``table`` as
    :func:`orbapi.read` gives it with ``read_options``, a ``file``
    categorical in front and the ``variables`` (name → dtype) at the end.

    Made from a recording without items, so no file is read.

    Example::

        >>> orbapi.dask.meta_frame("messages", ["a.orb"], {}).dtypes
        file     category
        time       uint32
        text          str
        block       int32
        trial       int32
        dtype: object
    """
    import pandas as pd

    import orbapi

    opts = {k: v for k, v in read_options.items() if k != "variables"}
    empty = getattr(orbapi.read(EMPTY_RECORDING, **opts), table).iloc[:0]
    text = pd.Series(["text"]).dtype  # what pandas makes of text (object, or str from pandas 3 on)
    empty = empty.astype({c: text for c in empty.columns if empty[c].dtype == object})
    frame = _with_file(empty, pd.Categorical.from_codes([], categories=list(dict.fromkeys(labels))))
    for name, dtype in (variables or {}).items():
        frame[name] = pd.Series([], dtype=dtype)
    return frame


def _with_file(frame, column):
    frame = frame.drop(columns=["file"], errors="ignore")
    frame.insert(0, "file", column)
    return frame


class _ReadTable:
    """Reads one recording's table: the function of every partition."""

    def __init__(self, table, labels, read_options, meta):
        self.table = table
        self.labels = labels
        self.read_options = read_options
        self.meta = meta

    def __call__(self, i):
        import numpy as np
        import pandas as pd

        import orbapi

        frame = getattr(orbapi.read(self.labels[i], **self.read_options), self.table)
        kind = self.meta["file"].dtype
        codes = np.full(len(frame), kind.categories.get_loc(self.labels[i]), dtype=np.int32)
        frame = _with_file(frame, pd.Categorical.from_codes(codes, dtype=kind))
        for name in self.meta.columns:
            dtype = self.meta[name].dtype
            if name not in frame.columns:
                frame[name] = pd.Series(None, index=frame.index, dtype=dtype)
            elif frame[name].dtype != dtype:
                frame[name] = frame[name].astype(dtype)
        return frame[list(self.meta.columns)]
