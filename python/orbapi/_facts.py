"""Facts of the recording format that several modules of the package use:
item codes, the stored markers of a missing value, the placeholder samples
a repair inserts, the names of the eyes.  Each is written here once."""
from __future__ import annotations

import numpy as np

# Item codes, as the cursor and the tables' ``type`` column give them.
SBLINK, EBLINK, ESACC, EFIX = 3, 4, 6, 8
MESSAGE, RECORDING, SAMPLE = 24, 30, 200

#: The values a recording stores for a missing position, pupil or velocity;
#: read() turns them into NaN unless asked to keep them.
MISSING = (-32768.0, 100000000.0)

#: A placeholder sample, inserted where a repair filled a gap, carries this
#: value in its ``extra_type`` and ``extra_data_0`` columns.
PLACEHOLDER = 32767

#: The eyes by their index in the ``eye`` column of events.
EYE_NAMES = ("left", "right")

#: The eyes of a block (the ``eyes`` column of blocks): a bit each.
EYES_OF_MASK = {1: "left", 2: "right", 3: "both"}
MASK_OF_EYES = {name: mask for mask, name in EYES_OF_MASK.items()}

#: The first line of a recording without compression.
MAGIC = "NORVANE_LAB_COMBFILE\n"


def as_float(values) -> np.ndarray:
    """The values as a float array (not copied when they are one already
    and hold no missing markers), the stored missing markers as NaN."""
    out = np.asarray(values)
    if out.dtype.kind != "f":
        out = out.astype(np.float64)
    if len(out) and (np.fmin.reduce(out) <= MISSING[0] or np.fmax.reduce(out) >= MISSING[1]):
        out = np.where(np.isin(out, MISSING), np.nan, out)
    return out


def eyes_of_mask(mask: int) -> list[str]:
    """The eyes named by a block's eye bits, left before right."""
    return [eye for bit, eye in zip((1, 2), EYE_NAMES) if mask & bit]


def recorded_eyes(recording, block: int | None = None) -> list[str]:
    """The eyes `recording` recorded (in `block`, a number of its blocks
    table, or in any block), left before right: those its blocks say, not
    those that happen to have values.  Without blocks, those of
    ``info["eyes"]``, and both when that is unknown."""
    blocks = recording.columns("blocks")
    masks = np.asarray(blocks.get("eyes", ()), np.int64)
    if block is not None and "block" in blocks:
        masks = masks[np.asarray(blocks["block"]) == block]
    if not len(masks):
        masks = np.array([MASK_OF_EYES.get(recording.info.get("eyes"), 3)])
    return eyes_of_mask(int(np.bitwise_or.reduce(masks))) or list(EYE_NAMES)
