#!/usr/bin/env python3
"""Hands the synthetic 60-minute binocular 1000 Hz recording to MNE-Python
and to pymovements, beside the floor of the same run: orbapi.read() of the
same file.

    python bench/bench_toolkits.py [--seconds 3600] [--repeat 3]

Needs the package with its toolkit extras (pip install '.[mne,pymovements]')
and the generator of bench/bench_python.py. The toolkits are imported before
the clock starts (an import is paid once per process, not per recording).
Targets: Recording.to_mne() and Recording.to_pymovements() each take at most
half of read()'s own time (orbapi.read() alone, no pandas frame built).
Each line gives the best wall and CPU time and every run as wall/CPU; the
first run of each pays for touching its fresh memory.
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

        # Rounds of read(), to_mne(), to_pymovements(), so that a change in
        # the machine's load hits all three alike.
        names = ("read", "to_mne", "to_pymovements")
        runs = {name: [] for name in names}
        for _ in range(args.repeat):
            runs["read"].append(timed(read))
            for name in names[1:]:
                runs[name].append(timed(getattr(rec, name)))
        best = {name: (min(w for w, _ in r), min(c for _, c in r)) for name, r in runs.items()}
        floor_wall, floor_cpu = best["read"]
        ok = True
        for name in names:
            wall, cpu = best[name]
            line = (f"  {'orbapi.read()' if name == 'read' else 'Recording.' + name + '()':<28}"
                    f"best {wall:.3f} s wall, {cpu:.3f} s CPU  (runs "
                    f"{', '.join(f'{w:.3f}/{c:.3f}' for w, c in runs[name])})")
            if name != "read":
                good = wall <= 0.5 * floor_wall
                ok &= good
                line += (f"  = {wall / floor_wall:.2f} x read() wall, {cpu / floor_cpu:.2f} x CPU  "
                         f"{'met' if good else 'MISSED'} (<= 0.5 x read())")
            print(line)
    finally:
        if os.path.exists(path):
            os.remove(path)
        os.rmdir(tmp)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
