"""Facts of the recording format that several modules of the package use,
as the library states them (``_core`` hands them over from the public
header): item codes, the stored markers of a missing value, the placeholder
samples a repair inserts, the names of the eyes, the empty recording.  The
modules take them from here."""
from __future__ import annotations

import numpy as np

from ._core import (  # noqa: F401 - handed on to the modules
    BLOCK_EYES,
    EBLINK,
    EFIX,
    EMPTY_RECORDING,
    ESACC,
    EYE_NAMES,
    MESSAGE,
    MISSING_POSITION,
    MISSING_VALUE,
    MISSING_WORD,
    PLACEHOLDER,
    RECORDING,
    SAMPLE,
)

#: The values a recording stores for a missing position, pupil or velocity;
#: read() turns them into NaN unless asked to keep them.
MISSING = (MISSING_POSITION, MISSING_VALUE)

#: The samples' integer columns that store a marker for a missing value, and
#: the marker as the column reads it (extra_type is signed).  read() keeps
#: them, integers having no NaN; Arrow and polars make them null.
MISSING_WORDS = {"status": MISSING_WORD, "input": MISSING_WORD, "extra_type": MISSING_WORD - 65536}

#: The eyes of a block (the ``eyes`` column of blocks) by their bits, and
#: the bits by the names.
EYES_OF_MASK = dict(BLOCK_EYES)
MASK_OF_EYES = {name: mask for mask, name in EYES_OF_MASK.items()}


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
