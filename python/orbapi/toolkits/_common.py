"""What both hand-offs take from a recording: its sample rate and recorded
eyes, and its tables, of the whole recording or of one block."""
from __future__ import annotations

import numpy as np

from .._facts import recorded_eyes

#: annotations= name -> (table, MNE description, pymovements name)
EVENT_KINDS = {
    "fixations": ("fixations", "fixation", "fixation"),
    "saccades": ("saccades", "saccade", "saccade"),
    "blinks": ("blinks", "BAD_blink", "blink"),
}


def _select_block(cols, block):
    if block is None or not cols:
        return cols
    keep = np.asarray(cols["block"]) == block
    return {name: np.asarray(col)[keep] for name, col in cols.items()}


def rate_and_eyes(recording, block):
    """The one sample rate and the eyes recorded (left before right), of the
    whole recording or of one block; several rates without ``block=`` are
    an error.  The eyes are those the blocks say were recorded, whatever
    values the samples hold."""
    blocks = recording.columns("blocks")
    rates = np.asarray(blocks.get("sample_rate", ()), np.float64)
    number = np.asarray(blocks["block"]) if "block" in blocks else np.arange(len(rates))
    if block is not None:
        pick = number == block
        if not pick.any():
            raise ValueError(
                f"block={block!r}: the recording has no such block "
                f"(blocks: {', '.join(str(int(b)) for b in number) or 'none'})")
        rates = rates[pick]
    if len(rates) == 0:
        rates = np.array([float(recording.info.get("sample_rate") or 0.0)])
    distinct = np.unique(rates)
    if len(distinct) > 1:
        listing = ", ".join(f"{r:g} Hz in block {int(b)}" for b, r in zip(number, rates))
        raise ValueError(
            f"the recording's blocks differ in sample rate ({listing}); "
            f"pass block= to convert one block at a time")
    if not distinct[0] > 0:
        raise ValueError("the recording gives no sample rate")
    return float(distinct[0]), recorded_eyes(recording, block)


def tables(recording, block):
    """Samples, messages and the three event tables (restricted to one
    block when asked)."""
    samples = _select_block(recording.columns("samples"), block)
    messages = _select_block(recording.columns("messages"), block)
    events = {kind: _select_block(recording.columns(table), block)
              for kind, (table, _, _) in EVENT_KINDS.items()}
    return samples, messages, events
