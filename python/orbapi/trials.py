"""The trials table of a recording and its trial variables.

A trial variable is a message ``KEY VALUE`` inside a trial: the key names
a column of the trials table, the value fills that trial's cell.  A
recording whose experiment wrote its variables behind a fixed text (say
``var condition easy``) is read with that text as ``variable_prefix``
(``"var "``): then only messages that begin with it are variables, and
the key follows it.
"""
from __future__ import annotations

import numpy as np

Columns = dict[str, np.ndarray]

#: The columns every trials table has, before its variables.
TRIAL_COLUMNS = ("trial", "start_time", "end_time", "duration", "start_index", "end_index", "block")


def key_value(text: str, prefix: str = "") -> tuple[str, str] | None:
    """KEY and VALUE of a trial-variable message, or None when the text is
    not one: it must begin with `prefix`, and a key and a value, separated
    by white space, must follow.

    Example::

        key_value("condition easy")                 # ("condition", "easy")
        key_value("var rt 512", prefix="var ")      # ("rt", "512")
        key_value("condition easy", prefix="var ")  # None
    """
    if prefix:
        if not text.startswith(prefix):
            return None
        text = text[len(prefix):]
    parts = text.strip().split(None, 1)
    if len(parts) != 2:
        return None
    return parts[0], parts[1].strip()


def trial_table(trials: Columns, messages: Columns, variables, prefix: str = "") -> Columns:
    """The trials table: the library's trial columns and, for `variables`
    (a key, a list of keys, ``"all"`` or None), one column per variable
    taken from the `messages` inside each trial.  The last value a trial
    gives a key counts.  A key that is the name of one of the table's own
    columns never becomes a variable: ``"all"`` leaves it out, naming it is
    an error (ValueError)."""
    n = len(trials["start_time"])
    out: Columns = {"trial": np.arange(n, dtype=np.int32)}
    for k in TRIAL_COLUMNS[1:]:
        out[k] = trials[k]
    if variables is None:
        return out
    wanted = None if isinstance(variables, str) and variables == "all" else \
        ([variables] if isinstance(variables, str) else list(variables))
    taken = [k for k in wanted or () if k in TRIAL_COLUMNS]
    if taken:
        raise ValueError(f"variables={taken!r}: the trials table has its own "
                         f"column{'s' if len(taken) > 1 else ''} of that name")
    values: dict[str, dict[int, str]] = {k: {} for k in (wanted or [])}
    for text, trial in zip(messages["text"], messages["trial"]):
        if trial < 0 or trial >= n:
            continue
        kv = key_value(text, prefix)
        if kv is None or kv[0] in TRIAL_COLUMNS or (wanted is not None and kv[0] not in values):
            continue
        values.setdefault(kv[0], {})[int(trial)] = kv[1]
    for key, per_trial in values.items():
        out[key] = _variable_column(per_trial, n)
    return out


def _parse_value(text: str) -> int | float | str:
    for kind in (int, float):
        try:
            return kind(text)
        except ValueError:
            pass
    return text


def _variable_column(per_trial: dict[int, str], n: int) -> np.ndarray:
    """int64 when every trial has a whole number, float64 (NaN where absent)
    when every value is a number, else the texts (None where absent)."""
    parsed = {t: _parse_value(v) for t, v in per_trial.items()}
    kinds = {type(v) for v in parsed.values()}
    if kinds <= {int} and len(parsed) == n and n:
        col = np.zeros(n, dtype=np.int64)
    elif kinds <= {int, float}:
        col = np.full(n, np.nan)
    else:
        col = np.full(n, None, dtype=object)
        parsed = per_trial
    for t, v in parsed.items():
        col[t] = v
    return col
