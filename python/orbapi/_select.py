"""Choosing columns by name, for the readers of many recordings
(``columns=`` of read_many, to_parquet and convert for the samples, of the
Dask readers for their table; ``orb convert --columns``).

A name is a column of the table as :func:`orbapi.read` gives it with the
same options, or a short form standing for several: ``gaze`` (gaze x and y
of both eyes) and ``pupil`` (the pupil size of both eyes) of samples, or the stem
of an eye pair or a numbered member (``gaze_x`` for ``gaze_x_left`` and
``gaze_x_right``, ``extra_data`` for ``extra_data_0`` .. ``extra_data_7``).
The columns come in the order named, a short form's in the order of the
table; a column named twice comes once, where first named.
"""
from __future__ import annotations

import re
from collections.abc import Iterable, Mapping
from typing import Any

from ._facts import EMPTY_RECORDING

#: Short forms for the columns most analyses want, beside the stems.
SHORT = {"gaze": ("gaze_x", "gaze_y"), "pupil": ("pupil_size",)}

_PART = re.compile(r"^(?P<stem>.+)_(left|right|\d+)$")


def sample_columns(columns: Iterable[str] | str | None, read_options: Mapping[str, Any]) -> list[str] | None:
    """The sample columns `columns` names (None for all), checked against
    those a read with `read_options` gives.  Raises ValueError for a name
    that is neither a column nor a short form, naming the known ones.

    Example::

        >>> sample_columns(["time", "gaze", "trial"], {})
        ['time', 'gaze_x_left', 'gaze_x_right', 'gaze_y_left', 'gaze_y_right', 'trial']
    """
    if columns is None:
        return None
    return pick(columns, known_columns(read_options), "samples")


def pick(columns: Iterable[str] | str, known: list[str], table: str) -> list[str]:
    """The columns of `known` (those of `table`, in its order) that
    `columns` names, in the order named (a text: names between commas)."""
    names = [c.strip() for c in columns.split(",")] if isinstance(columns, str) else list(columns)
    stems: dict[str, list[str]] = {}
    for c in known:
        m = _PART.match(c)
        if m:
            stems.setdefault(m["stem"], []).append(c)
    out: list[str] = []
    for name in names:
        if not isinstance(name, str):
            raise TypeError(f"a column is named by a string, not {name!r}")
        if name in known:
            picks = [name]
        else:
            parts = [stems.get(s) for s in SHORT.get(name, (name,))]
            if not all(parts):
                short = sorted((set(SHORT) if table == "samples" else set()) | set(stems))
                also = f"; the short forms {', '.join(short)}" if short else ""
                raise ValueError(f"unknown column {name!r} of {table}; the columns are {', '.join(known)}{also}")
            picks = [c for c in known if any(c in p for p in parts)]
        out += [c for c in picks if c not in out]
    if not out:
        raise ValueError(f"no columns named; name at least one column of {table}")
    return out


def known_columns(read_options: Mapping[str, Any]) -> list[str]:
    """The columns of samples that :func:`orbapi.read` gives with
    `read_options` (read from a recording without items: no file is read)."""
    from .recording import read

    options = {k: v for k, v in read_options.items() if k in ("velocities", "camera", "samples")}
    return list(read(EMPTY_RECORDING, **options).columns("samples"))


def select(recording, columns: list[str] | None):
    """`recording` with only `columns` of its samples (all when None); the
    other tables as they are.  The arrays are not copied."""
    if columns is None:
        return recording
    from .recording import TABLES, Recording

    tables = {t: recording.columns(t) for t in TABLES}
    samples = tables["samples"]
    tables["samples"] = {c: samples[c] for c in columns}
    return Recording(tables, recording.info, recording.path, sentinels=recording.sentinels)
