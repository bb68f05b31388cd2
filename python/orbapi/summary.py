"""What ``orb info`` says about a recording: :func:`summarize` gathers it
into a dict (the objects of ``orb info --json``), :func:`format_summary`
lays one out as text."""

from __future__ import annotations

import os
import re

import numpy as np

from ._facts import EYES_OF_MASK, PLACEHOLDER
from .many import LogCapture, reason

#: Tracker models by their number in the preamble.
MODELS = {1: "", 2: "MK", 3: "HQ"}


def summarize(path, *, consistency=2, capture=None) -> dict:
    """What ``orb info`` shows about one recording, as a dict (the objects of
    ``orb info --json``).  A recording the library refuses gives
    ``{"file": path, "error": reason, "damage": [...]}``; ``ended_early``
    is the read's ``info["ended_early"]`` (None when it read every byte).
    `capture` is a
    :class:`~orbapi.many.LogCapture` the calling thread already watches
    with (by default one of its own): the library's lines while reading
    become ``damage``.

    Example::

        >>> summarize("run1.orb")["blocks"][0]
        {'start_ms': 100000, 'end_ms': 100400, 'duration_ms': 400, 'sample_rate': 1000.0, 'eyes': 'both'}
    """
    from .recording import read

    own = capture is None
    capture = capture or LogCapture()
    if own:
        capture.__enter__()
    try:
        try:
            rec = read(path, consistency=consistency)
        except Exception as e:  # noqa: BLE001 - any failure is this file's
            why = reason(e)
            damage = [x for x in capture.take() if x.strip() not in why]
            return {"file": os.fspath(path), "error": why, "consistency": consistency, "damage": damage}
        damage = capture.take()
    finally:
        if own:
            capture.__exit__(None, None, None)

    info = rec.info
    samples = rec.columns("samples")
    placeholder = (samples["extra_type"] == PLACEHOLDER) & (samples["extra_data_0"] == PLACEHOLDER)
    blocks = rec.columns("blocks")
    block_list = []
    for k in range(len(blocks["time"])):
        start, end = int(blocks["time"][k]), int(blocks["end_time"][k])
        block_list.append(
            {
                "start_ms": start,
                "end_ms": end if end >= 0 else None,  # None: the block never ends
                "duration_ms": end - start if end >= 0 else None,
                "sample_rate": float(blocks["sample_rate"][k]),
                "eyes": EYES_OF_MASK.get(int(blocks["eyes"][k]), str(int(blocks["eyes"][k]))),
            }
        )
    return {
        "file": os.fspath(path),
        "error": None,
        "revision": int(info["revision"]),
        "model": int(info["oculant_revision"]),
        "consistency": consistency,
        "blocks": block_list,
        "samples": int(len(samples["time"])),
        "fixations": len(rec.fixations),
        "saccades": len(rec.saccades),
        "blinks": len(rec.blinks),
        "messages": len(rec.messages),
        "trials": len(rec.trials),
        "placeholder_samples": int(np.count_nonzero(placeholder)),
        "duration_ms": int(info["duration_ms"]),
        "damage": damage,
        "ended_early": info.get("ended_early"),
    }


def _n(x):
    return f"{x:,}"


def format_summary(r: dict) -> str:
    """The text of ``orb info`` for one summary from :func:`summarize`.

    Example::

        >>> print(format_summary(summarize("run1.orb")))
    """
    lines = [r["file"]]
    row = lambda key, value: lines.append(f"  {key:<11}{value}")  # noqa: E731
    if r["error"]:
        row("error", r["error"])
        if r["damage"]:
            _damage_rows(r["damage"], row)
        if r.get("consistency") is not None and not r["consistency"] & 4:
            row("", f"(--consistency {r['consistency'] | 4} reads what comes before damage)")
        return "\n".join(lines)
    model = MODELS.get(r["model"], "")
    row("tracker", f"revision {r['revision']}, model {r['model']}" + (f" ({model})" if model else ""))
    blocks = r["blocks"]
    shown = range(len(blocks))
    if len(blocks) > 20:
        shown = list(range(10)) + [None] + list(range(len(blocks) - 5, len(blocks)))
    width = len(str(len(blocks)))
    for k in shown:
        if k is None:
            row("", f"... {len(blocks) - 15} more blocks (orb info --json lists them all)")
            continue
        b = blocks[k]
        if b["end_ms"] is None:
            span = f"from {b['start_ms']} ms, no block end"
        else:
            span = f"{b['start_ms']}-{b['end_ms']} ms ({b['duration_ms'] / 1000:.3f} s)"
        row(
            f"block {k + 1:>{width}}" if len(blocks) > 1 else "block",
            f"{span}, {b['sample_rate']:g} Hz, {b['eyes']} eye{'s' if b['eyes'] == 'both' else ''}",
        )
    if not blocks:
        row("blocks", "none")
    filled = r["placeholder_samples"]
    row("samples", _n(r["samples"]) + (f" ({_n(filled)} placeholders filled)" if filled else ""))
    for key in ("fixations", "saccades", "blinks", "messages", "trials"):
        row(key, _n(r[key]))
    _damage_rows(r["damage"], row, ended=r.get("ended_early"))
    return "\n".join(lines)


def _damage_rows(damage, row, most=8, ended=None):
    """The library's lines, those that differ only in their numbers taken
    together: the first of them and how many more.  The line of a read that
    `ended` early comes first."""
    label = "damage"
    if ended:
        row(label, ended["line"])
        damage = [x for x in damage if x.strip() != ended["line"]]
        label = ""
    if not damage:
        if not ended:
            row(label, "none reported")
        return
    kinds = {}
    for line in damage:
        kinds.setdefault(re.sub(r"\d+", "#", line), []).append(line)
    for k, lines in enumerate(kinds.values()):
        if k == most:
            row("", f"... {len(kinds) - most} more kinds of lines ({len(damage)} lines in all)")
            break
        more = len(lines) - 1
        row(label if k == 0 else "", lines[0] + (f"  (and {more} more like it)" if more else ""))
