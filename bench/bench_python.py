#!/usr/bin/env python3
"""Reads the synthetic 60-minute binocular 1000 Hz recording into pandas with
orbapi.read(), beside the floor of the same run: the C columnar read of the
same file (orb_read_columns through ctypes, from the same extension module).

    python bench/bench_python.py [--seconds 3600] [--repeat 3] [--keep]

Needs the package installed (pip install '.[pandas]') and g++ with zlib for
the generator (bench/make_synthetic.cpp). Every measurement runs in a fresh
process, so that its peak memory (ru_maxrss) is its own. Prints one line per
measurement and the targets:

  read() without velocities <= 1.0 s and <= 1.5 x the C columnar read;
  read() with velocities <= 2.0 s;
  peak memory <= 1.3 x the resulting columns + 100 MiB.
"""
from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
MiB = 1024 * 1024


def generate(path: str, seconds: float) -> str:
    exe = os.path.join(ROOT, "build-python", "make_synthetic")
    src = os.path.join(ROOT, "bench", "make_synthetic.cpp")
    if not os.path.exists(exe) or os.path.getmtime(exe) < os.path.getmtime(src):
        os.makedirs(os.path.dirname(exe), exist_ok=True)
        # The library's headers lie in the folders of its stages below src.
        stages = sorted(d for d, _, _ in os.walk(os.path.join(ROOT, "src")))
        subprocess.run(["g++", "-O2", "-std=c++17", "-I", os.path.join(ROOT, "tests"),
                        *(f"-I{d}" for d in stages),
                        "-I", os.path.join(ROOT, "include"), "-I", os.path.join(ROOT, "bench"),
                        src, "-o", exe, "-lz"], check=True)
    out = subprocess.run([exe, path, str(seconds), "1000", "3"], check=True,
                         capture_output=True, text=True)
    return out.stdout.strip()


# ---------------------------------------------------------------------------
# Children: one measurement each, printed as JSON.
# ---------------------------------------------------------------------------

def peak_bytes() -> int:
    import resource
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024


def child_c(path: str, velocities: bool, repeat: int) -> dict:
    import ctypes

    import orbapi
    lib = ctypes.CDLL(orbapi._core.__file__)
    lib.orb_read_columns.restype = ctypes.c_void_p
    lib.orb_read_columns.argtypes = [ctypes.c_char_p, ctypes.c_int, ctypes.c_int, ctypes.c_int,
                                     ctypes.c_int, ctypes.c_char_p, ctypes.c_char_p,
                                     ctypes.c_void_p, ctypes.c_void_p,
                                     ctypes.POINTER(ctypes.c_int)]
    lib.orb_free_columns.argtypes = [ctypes.c_void_p]
    base = peak_bytes()
    times, cpu = [], []
    for _ in range(repeat):
        err = ctypes.c_int(0)
        t0, c0 = time.perf_counter(), time.process_time()
        c = lib.orb_read_columns(path.encode(), 0, 1, 1, 1 if velocities else 0, None, None,
                                 None, None, ctypes.byref(err))
        times.append(time.perf_counter() - t0)
        cpu.append(time.process_time() - c0)
        if not c:
            raise SystemExit(f"orb_read_columns failed: {err.value}")
        lib.orb_free_columns(c)
    return {"best": min(times), "times": times, "cpu": min(cpu), "peak": peak_bytes(), "base": base}


def child_read(path: str, velocities: bool, repeat: int) -> dict:
    import numpy as np
    import pandas  # noqa: F401  (imported before the base line is taken)

    import orbapi
    from orbapi.recording import TABLES
    base = peak_bytes()
    times, cpu = [], []
    size = 0
    for i in range(repeat):
        t0, c0 = time.perf_counter(), time.process_time()
        rec = orbapi.read(path, velocities=velocities)
        frames = [getattr(rec, t) for t in TABLES]
        times.append(time.perf_counter() - t0)
        cpu.append(time.process_time() - c0)
        if i == 0:
            peak = peak_bytes()
            size = sum(a.nbytes for t in TABLES for a in rec.columns(t).values()
                       if isinstance(a, np.ndarray))
            rows = len(rec.samples)
            columns = rec.samples.shape[1]
        del rec, frames
    return {"best": min(times), "times": times, "cpu": min(cpu), "peak": peak, "base": base,
            "columns_bytes": size, "rows": rows, "sample_columns": columns}


def run_child(kind: str, path: str, velocities: bool, repeat: int) -> dict:
    out = subprocess.run([sys.executable, __file__, "--child", kind, "--path", path,
                          "--repeat", str(repeat)] + (["--velocities"] if velocities else []),
                         check=True, capture_output=True, text=True)
    return json.loads(out.stdout.strip().splitlines()[-1])


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--seconds", type=float, default=3600.0)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--keep", action="store_true", help="keep the generated recording")
    ap.add_argument("--child", choices=["c", "read"])
    ap.add_argument("--path")
    ap.add_argument("--velocities", action="store_true")
    args = ap.parse_args()

    if args.child:
        fn = child_c if args.child == "c" else child_read
        print(json.dumps(fn(args.path, args.velocities, args.repeat)))
        return 0

    tmp = tempfile.mkdtemp(prefix="orbbench-")
    path = os.path.join(tmp, "synthetic.orb")
    print(f"recording: {args.seconds / 60:.0f} min, binocular, 1000 Hz: {generate(path, args.seconds)}")
    ok = True
    try:
        for velocities in (False, True):
            label = "with velocities" if velocities else "without velocities"
            c = run_child("c", path, velocities, args.repeat)
            r = run_child("read", path, velocities, args.repeat)
            ratio = r["best"] / c["best"]
            limit = 1.3 * r["columns_bytes"] + 100 * MiB
            print(f"\n{label}: {r['rows']} samples x {r['sample_columns']} columns, "
                  f"columns {r['columns_bytes'] / MiB:.0f} MiB")
            for name, m in (("C columnar read (floor)  ", c), ("orbapi.read() into pandas", r)):
                runs = ", ".join(f"{t:.3f}" for t in m["times"])
                print(f"  {name} {m['best']:.3f} s  (runs {runs}; best CPU time {m['cpu']:.3f} s)")
            print(f"  read() / C read: {ratio:.2f} (wall), {r['cpu'] / c['cpu']:.2f} (CPU)")
            print(f"  peak memory {r['peak'] / MiB:.0f} MiB (interpreter, numpy, pandas before reading: "
                  f"{r['base'] / MiB:.0f} MiB); limit {limit / MiB:.0f} MiB")
            checks = [(r["peak"] <= limit, "peak memory")]
            if velocities:
                checks.append((r["best"] <= 2.0, "read() with velocities <= 2.0 s"))
            else:
                checks += [(r["best"] <= 1.0, "read() <= 1.0 s"),
                           (ratio <= 1.5, "read() <= 1.5 x the C columnar read")]
            for good, what in checks:
                print(f"  {'met   ' if good else 'MISSED'} {what}")
                ok &= good
    finally:
        if args.keep:
            print(f"\nkept {path}")
        else:
            os.remove(path)
            os.rmdir(tmp)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
