#!/usr/bin/env python3
"""Hands the synthetic 60-minute binocular 1000 Hz recording to MNE-Python
and to pymovements, beside the floor of the same run: orbapi.read() of the
same file into pandas.

    python bench/bench_toolkits.py [--seconds 3600] [--repeat 3]

Needs the package with its toolkit extras (pip install '.[mne,pymovements]')
and the generator of bench/bench_python.py. The toolkits are imported before
the clock starts (an import is paid once per process, not per recording).
Targets: Recording.to_mne() and Recording.to_pymovements() each take at most
half of read()'s own time.
"""
from __future__ import annotations

import argparse
import importlib.util
import os
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))


def generator():
    spec = importlib.util.spec_from_file_location("bench_python", os.path.join(HERE, "bench_python.py"))
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module.generate


def best_of(repeat, fn):
    times = []
    for _ in range(repeat):
        t0 = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t0)
    return min(times), times


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
            rec.samples  # noqa: B018  (the pandas frames are part of read's cost)

        floor, floor_runs = best_of(args.repeat, read)
        print(f"  orbapi.read() into pandas (floor) {floor:.3f} s  "
              f"(runs {', '.join(f'{t:.3f}' for t in floor_runs)})")
        ok = True
        for name in ("to_mne", "to_pymovements"):
            best, runs = best_of(args.repeat, getattr(rec, name))
            good = best <= 0.5 * floor
            ok &= good
            print(f"  Recording.{name + '()':<18} {best:.3f} s  (runs "
                  f"{', '.join(f'{t:.3f}' for t in runs)})  = {best / floor:.2f} x read()  "
                  f"{'met' if good else 'MISSED'} (<= 0.5 x read())")
    finally:
        if os.path.exists(path):
            os.remove(path)
        os.rmdir(tmp)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
