#!/usr/bin/env python3
"""Hands the synthetic 60-minute binocular 1000 Hz recording to MNE-Python
and to pymovements, beside the floor of the same run: orbapi.read() of the
same file.

    python bench/bench_toolkits.py [--seconds 3600] [--repeat 3]

Needs the package with its toolkit extras (pip install '.[mne,pymovements]')
and the generator of bench/bench_python.py. `import mne` and `import
pymovements` run before the clock starts, as a script's imports do; what
those packages load only when first used (MNE's io and eye-tracking
modules) is part of the first call of each hand-off.  Rounds of read(),
to_mne(), to_pymovements() run one after another, so that a change in the
machine's load hits all three alike; the first round is also reported on
its own, as the first calls in a process.

Targets: Recording.to_mne() and Recording.to_pymovements() each take at most
half of read()'s own time (the best read; orbapi.read() alone, no pandas
frame built), the first call in the process included.
Each line gives wall and CPU time, and every run as wall/CPU.
"""
from __future__ import annotations

import argparse
import os
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))


def generator():
    sys.path.insert(0, HERE)
    import bench_python
    return bench_python.generate


def timed(fn):
    """Wall and CPU seconds of one call."""
    t0, c0 = time.perf_counter(), time.process_time()
    fn()
    return time.perf_counter() - t0, time.process_time() - c0


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--seconds", type=float, default=3600.0)
    ap.add_argument("--repeat", type=int, default=3)
    args = ap.parse_args()

    import mne  # noqa: F401
    import pymovements  # noqa: F401

    import orbapi

    tmp = tempfile.mkdtemp(prefix="orbbench-")
    path = os.path.join(tmp, "synthetic.orb")
    try:
        print(f"recording: {args.seconds / 60:.0f} min, binocular, 1000 Hz: "
              f"{generator()(path, args.seconds)}")
        rec = None

        def read():
            nonlocal rec
            rec = orbapi.read(path)

        names = ("read", "to_mne", "to_pymovements")
        runs = {name: [] for name in names}
        for _ in range(max(2, args.repeat)):
            runs["read"].append(timed(read))
            for name in names[1:]:
                runs[name].append(timed(getattr(rec, name)))
        floor_wall, floor_cpu = min(w for w, _ in runs["read"]), min(c for _, c in runs["read"])
        ok = True

        def line(label, measured, against_floor):
            nonlocal ok
            wall, cpu = min(w for w, _ in measured), min(c for _, c in measured)
            text = (f"  {label:<36}best {wall:.3f} s wall, {cpu:.3f} s CPU  (runs "
                    f"{', '.join(f'{w:.3f}/{c:.3f}' for w, c in measured)})")
            if against_floor:
                good = wall <= 0.5 * floor_wall
                ok &= good
                text += (f"  = {wall / floor_wall:.2f} x read() wall, {cpu / floor_cpu:.2f} x CPU  "
                         f"{'met' if good else 'MISSED'} (<= 0.5 x read())")
            print(text)

        line("orbapi.read() (the floor)", runs["read"], False)
        for name in names[1:]:
            line(f"Recording.{name}() first call", runs[name][:1], True)
            line(f"Recording.{name}() later calls", runs[name][1:], True)
    finally:
        if os.path.exists(path):
            os.remove(path)
        os.rmdir(tmp)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
