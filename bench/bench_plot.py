#!/usr/bin/env python3
"""Draws the overview of the synthetic 60-minute binocular 1000 Hz recording
(the one bench/bench_python.py reads, from the same generator) to PNG, as
`orb plot FILE -o OUT.png` does, beside two floors measured in the same run:

  - one pass over the gaze columns (nanmin and nanmax of each of the four),
    the least any picture of every sample costs;
  - saving an empty figure of the same size to PNG, the cost of the output
    alone.

    python bench/bench_plot.py [--seconds 3600] [--repeat 3] [--keep]

Needs the package with the plot extra installed (pip install '.[plot]') and
g++ with zlib for the generator. Prints one line per measurement and the
target: the overview drawn and saved in at most 2 s. The read itself is
timed too, for scale, but is not part of the target.
"""
from __future__ import annotations

import argparse
import io
import os
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from bench_python import generate  # noqa: E402

TARGET_S = 2.0


def best_of(repeat, fn):
    """Best wall time of `repeat` calls, every wall time, and the CPU time
    of the best call (the machine may be shared: CPU time shows the work
    apart from the waiting)."""
    times, cpu = [], []
    for _ in range(repeat):
        c0, t0 = time.process_time(), time.perf_counter()
        fn()
        times.append(time.perf_counter() - t0)
        cpu.append(time.process_time() - c0)
    return min(times), times, cpu[times.index(min(times))]


def runs(times):
    return ", ".join(f"{t:.3f}" for t in times)


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--seconds", type=float, default=3600.0)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--keep", action="store_true", help="keep the recording and the picture")
    args = ap.parse_args()

    import matplotlib
    matplotlib.use("Agg")
    import numpy as np
    from matplotlib.figure import Figure

    import orbapi
    from orbapi.plot import overview

    tmp = tempfile.mkdtemp(prefix="orbbench-")
    path = os.path.join(tmp, "synthetic.orb")
    print(f"recording: {args.seconds / 60:.0f} min, binocular, 1000 Hz: {generate(path, args.seconds)}")
    try:
        t0 = time.perf_counter()
        rec = orbapi.read(path)
        print(f"  orbapi.read()                 {time.perf_counter() - t0:.3f} s (for scale)")

        cols = rec.columns("samples")
        gaze = [cols[f"gaze_{a}_{e}"] for a in "xy" for e in ("left", "right")]
        floor_pass, t_pass, _ = best_of(args.repeat, lambda: [(np.nanmin(g), np.nanmax(g)) for g in gaze])

        size = []

        def draw():
            fig = Figure()
            overview(rec, ax=fig)
            out = io.BytesIO()
            fig.savefig(out, format="png", dpi=100)
            size[:] = [fig.get_size_inches(), len(fig.axes), out.getbuffer().nbytes]
            if args.keep:
                with open(os.path.join(tmp, "overview.png"), "wb") as f:
                    f.write(out.getvalue())

        best, t_draw, cpu = best_of(args.repeat, draw)
        inches, panels, png = size

        def empty():
            fig = Figure(figsize=inches)
            fig.savefig(io.BytesIO(), format="png", dpi=100)

        floor_png, t_png, _ = best_of(args.repeat, empty)

        print(f"  floor: one pass over the gaze {floor_pass:.3f} s  (runs {runs(t_pass)})")
        print(f"  floor: empty figure to PNG    {floor_png:.3f} s  (runs {runs(t_png)})")
        print(f"  overview drawn and saved      {best:.3f} s  (runs {runs(t_draw)})"
              f"  = {best / (floor_pass + floor_png):.1f} x the floors together; CPU {cpu:.3f} s")
        print(f"  picture: {inches[0]:.1f} x {inches[1]:.1f} in at 100 dpi, {panels} columns of rows, "
              f"{png / 1024:.0f} KiB")
        ok = best <= TARGET_S
        print(f"  {'met   ' if ok else 'MISSED'} overview <= {TARGET_S:.1f} s")
    finally:
        if args.keep:
            print(f"\nkept {path} and {os.path.join(tmp, 'overview.png')}")
        else:
            os.remove(path)
            os.rmdir(tmp)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
