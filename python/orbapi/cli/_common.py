"""What the commands of ``orb`` share: exit statuses, how an error is
reported, the option types and options several commands take."""

from __future__ import annotations

import argparse
import sys

EXIT_OK, EXIT_FAILED, EXIT_USAGE = 0, 1, 2


class UsageError(Exception):
    """A mistake in the command line: reported, exit status 2."""


def error(text):
    """Reports `text` on standard error as ``orb: text``."""
    print(f"orb: {text}", file=sys.stderr, flush=True)


def number(text, least, most=None):
    """`text` as an int (any base Python writes) from `least` to `most`, for
    an option's type; anything else is a usage error."""
    try:
        value = int(text, 0)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a number: {text!r}")
    if value < least or (most is not None and value > most):
        bounds = f"{least} to {most}" if most is not None else f"at least {least}"
        raise argparse.ArgumentTypeError(f"must be {bounds}, not {value}")
    return value


def add_files(parser, what):
    """The FILE... arguments: recordings, or folders holding them."""
    parser.add_argument("files", nargs="+", metavar="FILE", help=what)


def add_consistency(parser, default):
    """The --consistency option, with the library's consistency word."""
    parser.add_argument(
        "--consistency",
        type=lambda text: number(text, 0, 15),
        default=default,
        metavar="N",
        help="how the library checks the recording (default %(default)s): 0 reads it as it is, 1 checks it, "
        "2 checks and repairs it (fills sample gaps with placeholder samples, re-times orphaned blinks); "
        "add 4 to read a damaged file up to the damage instead of refusing it, 8 to keep the tracker's "
        "time offset",
    )
