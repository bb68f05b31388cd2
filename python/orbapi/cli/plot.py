"""``orb plot``: draw a recording into a picture file, with the drawing of
:mod:`orbapi.plot`."""

from __future__ import annotations

import os
import sys

from ._common import EXIT_FAILED, EXIT_OK, EXIT_USAGE


#: The extra that brings what drawing needs.
EXTRA = "plot"

_FORMATS = ("png", "svg", "pdf")


def configure(parser):
    """FILE, --trial N | --start MS --end MS, --eye, -o OUT."""
    parser.description = "Draw a recording."
    parser.epilog = ("Without --trial, --start or --end: an overview of the whole\n"
                     "recording, one row per block.")
    parser.add_argument("file", metavar="FILE", help="the recording")
    parser.add_argument("--trial", type=int, metavar="N",
                        help="draw trial N (0 for the first, as in the trials table)")
    parser.add_argument("--start", type=float, metavar="MS",
                        help="draw the span from MS (ms, the recording's clock; "
                             "default the first sample)")
    parser.add_argument("--end", type=float, metavar="MS",
                        help="... up to MS (default the last sample)")
    parser.add_argument("--eye", choices=("left", "right", "both"), default="both",
                        help="which eye to draw (default: both)")
    parser.add_argument("-o", "--output", required=True, metavar="OUT",
                        help="the picture to write: .png, .svg or .pdf")


def run(args) -> int:
    """Draws what `args` ask for; returns 0 when the picture was written, 1
    when the recording could not be read or drawn, 2 for arguments that do
    not go together."""
    def fail(status, text):
        print(f"orb plot: {text}", file=sys.stderr)
        return status

    fmt = os.path.splitext(args.output)[1].lower().lstrip(".")
    if fmt not in _FORMATS:
        return fail(EXIT_USAGE, f"{args.output}: the picture must end in .png, .svg or .pdf")
    if args.trial is not None and (args.start is not None or args.end is not None):
        return fail(EXIT_USAGE, "--trial goes without --start and --end")
    from .. import OrbError, read
    from .. import plot as drawing

    try:
        from matplotlib.figure import Figure
    except ImportError as e:
        raise ImportError("drawing a recording needs matplotlib") from e
    try:
        recording = read(args.file)
        if args.trial is None and args.start is None and args.end is None:
            fig = Figure()
            drawing.overview(recording, eye=args.eye, ax=fig)
        else:
            fig = Figure(layout="constrained")
            drawing.plot(recording, args.trial, start=args.start, end=args.end,
                         eye=args.eye, ax=fig)
        fig.savefig(args.output, format=fmt, dpi=100)
    except FileNotFoundError:
        return fail(EXIT_FAILED, f"{args.file}: no such file")
    except OrbError as e:
        return fail(EXIT_FAILED, f"{args.file}: {e}")
    except (ImportError, ValueError, OSError) as e:
        return fail(EXIT_FAILED, str(e))
    return EXIT_OK
