"""``orb info``: summarise recordings, as text or JSON."""

from __future__ import annotations

import json
import sys

from ..many import LogCapture, expand_paths
from ..summary import format_summary, summarize
from ._common import EXIT_FAILED, EXIT_OK, add_consistency, add_files, error


EPILOG = """\
examples:
  orb info run1.orb
  orb info --json --consistency 6 damaged.orb

The text lists the tracker, every recording block (its time span in tracker
milliseconds, sample rate and eyes), the counts of each kind of item, the
placeholder samples the repair filled in, and what the library reported
while reading (damage it met or repaired).
"""


def configure(parser):
    parser.description = "Summarise recordings, one after another."
    parser.epilog = EPILOG
    add_files(parser, "recordings (.orb), or folders holding them")
    parser.add_argument("--json", action="store_true", help="print a JSON list, one object per recording")
    add_consistency(parser, 2)


def run(args) -> int:
    status = EXIT_OK
    reports = []
    with LogCapture() as capture:
        for k, path in enumerate(expand_paths(args.files)):
            r = summarize(path, consistency=args.consistency, capture=capture)
            if r["error"]:
                status = EXIT_FAILED
            if args.json:
                reports.append(r)
                continue
            if k:
                print()
            print(format_summary(r), flush=True)
            if r["error"]:
                error(f"{path}: {r['error']}")
    if args.json:
        json.dump(reports, sys.stdout, indent=2)
        print()
    return status
