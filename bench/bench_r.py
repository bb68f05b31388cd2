#!/usr/bin/env python3
"""Reads the synthetic 60-minute binocular 1000 Hz recording in R with
read_orb() and in Python with orbapi.read(), in the same run, each in a
fresh process, beside the floors of the run: the C columnar read, and
making R vectors of the data frames' types and lengths in fresh memory.

    python bench/bench_r.py [--seconds 3600] [--repeat 3] [--lib build-r/lib]

Needs the Python package installed in the interpreter that runs it (see
bench_python.py), and the R package installed in --lib (./dev bench does
both). Targets:

  read_orb() <= 1.5 x orbapi.read();
  peak memory of the R process <= its memory before reading + the data
  frames + 64 MiB.
"""
from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from bench_python import MiB, ROOT, generate, run_child  # noqa: E402

# The columns an analysis of gaze and pupil reads: time, gaze x/y and pupil of
# both eyes.
SEVEN = ["time", "gaze_x_left", "gaze_x_right", "gaze_y_left", "gaze_y_right",
         "pupil_size_left", "pupil_size_right"]


def run_r(lib: str, path: str, repeat: int, columns: list[str]) -> dict:
    env = dict(os.environ, R_LIBS=os.path.abspath(lib))
    out = subprocess.run(["Rscript", os.path.join(ROOT, "bench", "bench_r.R"), path, str(repeat)]
                         + columns, check=True, capture_output=True, text=True, env=env)
    return json.loads(out.stdout.strip().splitlines()[-1])


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--seconds", type=float, default=3600.0)
    ap.add_argument("--repeat", type=int, default=3)
    ap.add_argument("--lib", default=os.path.join(ROOT, "build-r", "lib"))
    args = ap.parse_args()

    tmp = tempfile.mkdtemp(prefix="orbbench-")
    path = os.path.join(tmp, "synthetic.orb")
    print(f"recording: {args.seconds / 60:.0f} min, binocular, 1000 Hz: {generate(path, args.seconds)}")
    ok = True
    try:
        c = run_child("c", path, False, args.repeat)
        py = run_child("read", path, False, args.repeat)
        r_all = run_r(args.lib, path, args.repeat, [])
        r_seven = run_r(args.lib, path, args.repeat, SEVEN)
        print(f"{r_all['rows']} samples x {r_all['sample_columns']} columns; "
              f"Python's columns {py['columns_bytes'] / MiB:.0f} MiB, R's data frames "
              f"{r_all['frames_bytes'] / MiB:.0f} MiB")
        rows = [("C columnar read (floor)         ", c),
                ("orbapi.read() into pandas       ", py),
                ("read_orb(), every column        ", r_all),
                ("read_orb(), 7 columns           ", r_seven)]
        for name, m in rows:
            runs = ", ".join(f"{t:.3f}" for t in m["times"])
            print(f"  {name} {m['best']:.3f} s  (runs {runs}; best CPU time {m['cpu']:.3f} s)")
        for name, m in rows[2:]:
            print(f"  floor of {name.strip()}: its vectors made in fresh memory {m['floor']:.3f} s; "
                  f"C read + that {c['best'] + m['floor']:.3f} s")
        ratio = r_all["best"] / py["best"]
        print(f"  read_orb() / orbapi.read(): {ratio:.2f} (wall), {r_all['cpu'] / py['cpu']:.2f} (CPU); "
              f"7 columns: {r_seven['best'] / py['best']:.2f} (wall)")
        print(f"  (C read + R's vectors in fresh memory) / orbapi.read(): "
              f"{(c['best'] + r_all['floor']) / py['best']:.2f}")
        checks = [(ratio <= 1.5, "read_orb() <= 1.5 x orbapi.read()")]
        for name, m in (("every column", r_all), ("7 columns", r_seven)):
            grown = m["peak"] - m["base"]
            limit = m["frames_bytes"] + 64 * MiB
            print(f"  peak memory, {name}: {m['peak'] / MiB:.0f} MiB, {grown / MiB:.0f} MiB over the "
                  f"{m['base'] / MiB:.0f} MiB before reading; limit frames + 64 MiB = {limit / MiB:.0f} MiB")
            checks.append((grown <= limit, f"peak memory ({name}) <= data frames + 64 MiB"))
        for good, what in checks:
            print(f"  {'met   ' if good else 'MISSED'} {what}")
            ok &= good
    finally:
        os.remove(path)
        os.rmdir(tmp)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
