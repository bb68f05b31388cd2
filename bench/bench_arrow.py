#!/usr/bin/env python3
"""Times Recording.to_arrow() and to_polars() on the synthetic 60-minute
binocular 1000 Hz recording, beside the floors of the same run: Arrow tables
over the same numpy columns without looking for missing values (what the
hand-over costs when nothing is marked), and numpy's mask of the missing
floats (np.isnan over every float column, the way a search for them would
go in numpy, which to_arrow() leaves to Arrow's kernels instead).
The read itself is printed for scale.

    python bench/bench_arrow.py [--seconds 3600] [--repeat 5]

Needs the package with pyarrow and polars (pip install '.[arrow,polars]')
and g++ with zlib for the generator (bench/make_synthetic.cpp).  The best
of --repeat runs counts.  Target: to_arrow() within 0.15 x the read.
"""
from __future__ import annotations

import argparse
import os
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from bench_python import generate  # noqa: E402  (the same recording)


def best(fn, repeat: int) -> float:
    times = []
    for _ in range(repeat):
        start = time.perf_counter()
        fn()
        times.append(time.perf_counter() - start)
    return min(times)


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--seconds", type=float, default=3600.0)
    ap.add_argument("--repeat", type=int, default=5)
    args = ap.parse_args()

    import numpy as np
    import pyarrow as pa

    import orbapi

    with tempfile.TemporaryDirectory(prefix="orbbench-arrow-") as tmp:
        path = os.path.join(tmp, "synthetic.orb")
        print(generate(path, args.seconds))
        read = best(lambda: orbapi.read(path), max(1, args.repeat // 2))
        rec = orbapi.read(path)
        tables = {t: rec.columns(t) for t in orbapi.recording.TABLES}
        floats = [v for cols in tables.values() for v in cols.values() if v.dtype.kind == "f"]

        figures = {
            "read()": read,
            "to_arrow()": best(rec.to_arrow, args.repeat),
            "to_polars()": best(rec.to_polars, args.repeat),
            "floor: Arrow tables, no search": best(
                lambda: {t: pa.table({c: pa.array(v) for c, v in cols.items()}) for t, cols in tables.items()},
                args.repeat),
            "numpy: np.isnan over the floats": best(lambda: [np.isnan(v) for v in floats], args.repeat),
        }
    for what, seconds in figures.items():
        print(f"  {what:34s} {seconds * 1e3:8.1f} ms")
    ratio = figures["to_arrow()"] / figures["read()"]
    print(f"  {'met   ' if ratio <= 0.15 else 'MISSED'} to_arrow() {ratio:.2f} x the read (target <= 0.15)")
    print(f"  load average: {', '.join(f'{x:.1f}' for x in os.getloadavg())} on {os.cpu_count()} processors")
    return 0


if __name__ == "__main__":
    sys.exit(main())
