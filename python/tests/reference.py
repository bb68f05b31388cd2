"""The reference the tables are checked against: a full walk of the C cursor
(``orbapi.open``), item by item, gathered into plain lists. It shares no code
with ``orbapi.read``: the missing markers, block numbers and trial numbers
are worked out here on their own."""
from __future__ import annotations

import math

import orbapi

MISSING = (-32768.0, 100000000.0)
MESSAGE, RECORDING, SAMPLE = 24, 30, 200


def nan_for_markers(values: dict) -> dict:
    return {k: (math.nan if isinstance(v, float) and v in MISSING else v) for k, v in values.items()}


def walk(source, *, consistency=0, events=True, samples=True, camera=False,
         trial_start="TRIALID", trial_end=None, sentinels=False) -> dict[str, list[dict]]:
    """Rows of every table as the cursor hands the items out: ``samples``,
    ``events`` (no messages), ``messages``, ``blocks`` (starts, with
    ``end_time``) and ``trials``. Every row has its ``index``; samples,
    events and messages their ``block`` (-1 outside every block)."""
    out: dict[str, list[dict]] = {"samples": [], "events": [], "messages": [], "blocks": [], "trials": []}
    options = dict(consistency=consistency, events=events, samples=samples,
                   trial_start=trial_start, trial_end=trial_end)
    with orbapi.open(source, **options) as f:
        header = []
        for k in range(f.trial_count):
            f.jump_to_trial(k)
            header.append(dict(f.trial_header(), start_index=f.position))
    # A fresh handle: the trial jumps above moved the cursor.
    with orbapi.open(source, **options) as f:
        block, inside = -1, False
        while True:
            index = f.position
            item = f.next()
            if item is None:
                break
            row = dict(item)
            row["index"] = index
            if item.code == RECORDING:
                if row["state"] == 1:
                    block, inside = block + 1, True
                    row["block"] = block
                    row["end_time"] = -1
                    out["blocks"].append(row)
                elif out["blocks"] and out["blocks"][-1]["end_time"] == -1 and inside:
                    out["blocks"][-1]["end_time"] = row["time"]
                    inside = False
                else:
                    inside = False
                continue
            row["block"] = block if inside else -1
            if item.code == SAMPLE:
                if camera:
                    row.update(f.camera())
                out["samples"].append(row if sentinels else nan_for_markers(row))
            elif item.code == MESSAGE:
                out["messages"].append({"time": row["start_time"], "text": row["text"],
                                        "block": row["block"], "index": index})
            else:
                out["events"].append(row if sentinels else nan_for_markers(row))
    out["trials"] = header
    return out


def same(a, b) -> bool:
    """Equal values, NaN equal to NaN."""
    if isinstance(a, float) and isinstance(b, float) and math.isnan(a) and math.isnan(b):
        return True
    return a == b
