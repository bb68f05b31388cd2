#!/usr/bin/env python3
"""Converts eight copies of the synthetic 60-minute binocular 1000 Hz
recording to Parquet with ``orb convert --jobs 1`` and ``--jobs 2``, beside
the floor of the same run: the C columnar read of the same copies on as many
threads (orb_read_columns through ctypes, as bench/bench_python.py does),
which is what a conversion cannot beat.

    python bench/bench_convert.py [--seconds 3600] [--copies 8] [--repeat 2] [--keep]

Needs the package installed (pip install '.[arrow]') and g++ with zlib for
the generator (bench/make_synthetic.cpp, shared with bench/bench_python.py).
Every conversion runs as its own ``orb convert`` process; its time is the
process's wall time, start-up included.  Targets:

  two jobs at least 1.7 times as fast as one;
  at least 8 M samples written per second with two jobs.
"""
from __future__ import annotations

import argparse
import os
import resource
import shutil
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from bench_python import child_c, generate  # noqa: E402  (the same recording and floor)


def children_cpu() -> tuple[float, float]:
    r = resource.getrusage(resource.RUSAGE_CHILDREN)
    return r.ru_utime, r.ru_stime


def convert(copies: list[str], out: str, jobs: int) -> tuple[float, float, float, str]:
    """Runs orb convert; returns its wall time, its user and system CPU
    time, and its summary line."""
    shutil.rmtree(out, ignore_errors=True)
    user, system = children_cpu()
    t0 = time.perf_counter()
    done = subprocess.run([sys.executable, "-m", "orbapi.cli", "convert", *copies, "-o", out,
                           "--jobs", str(jobs)], capture_output=True, text=True)
    seconds = time.perf_counter() - t0
    if done.returncode != 0:
        raise SystemExit(f"orb convert failed ({done.returncode}):\n{done.stderr}")
    user2, system2 = children_cpu()
    return seconds, user2 - user, system2 - system, done.stdout.strip()


def floor(copies: list[str], jobs: int) -> tuple[float, float]:
    """The C columnar read of every copy on `jobs` threads (ctypes releases
    the GIL during the call): wall time and the reading threads' CPU time."""
    t0 = time.perf_counter()
    with ThreadPoolExecutor(jobs) as pool:
        runs = list(pool.map(lambda p: child_c(p, False, 1), copies))
    return time.perf_counter() - t0, sum(r.get("cpu", 0.0) for r in runs)


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--seconds", type=float, default=3600.0)
    ap.add_argument("--copies", type=int, default=8)
    ap.add_argument("--repeat", type=int, default=2, help="runs of each; the best counts")
    ap.add_argument("--keep", action="store_true", help="keep the recordings and the output")
    args = ap.parse_args()

    tmp = tempfile.mkdtemp(prefix="orbbench-convert-")
    first = os.path.join(tmp, "rec00.orb")
    made = generate(first, args.seconds)
    samples = int(made.split()[0])
    copies = [first]
    for i in range(1, args.copies):
        copies.append(os.path.join(tmp, f"rec{i:02d}.orb"))
        shutil.copyfile(first, copies[-1])
    total = samples * len(copies)
    print(f"{len(copies)} copies of a {args.seconds / 60:.0f}-minute binocular 1000 Hz recording "
          f"({made}); {total / 1e6:.1f} M samples in all")
    out = os.path.join(tmp, "out")
    best = {1: float("inf"), 2: float("inf")}
    floors = {1: float("inf"), 2: float("inf")}
    cpu = {1: float("inf"), 2: float("inf")}
    floor_cpu = float("inf")
    try:
        for _ in range(args.repeat):
            for jobs in (1, 2):
                wall, read_cpu = floor(copies, jobs)
                floors[jobs] = min(floors[jobs], wall)
                if jobs == 1:  # (its CPU time is the process's: one reading thread only)
                    floor_cpu = min(floor_cpu, read_cpu)
                seconds, user, system, summary = convert(copies, out, jobs)
                print(f"  --jobs {jobs}: {seconds:.2f} s, CPU {user:.2f} s user + {system:.2f} s system   "
                      f"({summary})")
                best[jobs] = min(best[jobs], seconds)
                cpu[jobs] = min(cpu[jobs], user + system)
        speedup = best[1] / best[2]
        rate = total / best[2]
        size = sum(os.path.getsize(os.path.join(d, f)) for d, _, fs in os.walk(out) for f in fs)
        print(f"\nParquet written: {size / 2**20:.0f} MiB for {total / 1e6:.1f} M samples")
        for jobs in (1, 2):
            print(f"  --jobs {jobs}: {best[jobs]:.2f} s, {total / best[jobs] / 1e6:.1f} M samples/s; "
                  f"floor (C columnar read, {jobs} thread{'s' if jobs > 1 else ''}) {floors[jobs]:.2f} s "
                  f"= {best[jobs] / floors[jobs]:.2f} x the floor")
        print(f"  CPU time per M samples: {cpu[1] / total * 1e6:.2f} s with one job, "
              f"{cpu[2] / total * 1e6:.2f} s with two, of which the C columnar read "
              f"{floor_cpu / total * 1e6:.2f} s; on {os.cpu_count()} idle processors two jobs "
              f"would write {total / (cpu[2] / min(2, os.cpu_count() or 1)) / 1e6:.1f} M samples/s")
        checks = [(speedup >= 1.7, f"two jobs {speedup:.2f} x as fast as one (target >= 1.7)"),
                  (rate >= 8e6, f"{rate / 1e6:.1f} M samples/s with two jobs (target >= 8)")]
        for good, what in checks:
            print(f"  {'met   ' if good else 'MISSED'} {what}")
        print(f"  load average during the run: {', '.join(f'{x:.1f}' for x in os.getloadavg())} "
              f"on {os.cpu_count()} processors")
    finally:
        if args.keep:
            print(f"\nkept {tmp}")
        else:
            shutil.rmtree(tmp, ignore_errors=True)
    return 0 if all(good for good, _ in checks) else 1


if __name__ == "__main__":
    sys.exit(main())
