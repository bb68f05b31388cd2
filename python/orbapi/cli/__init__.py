"""The ``orb`` command: look at recordings and convert them.

``orb info FILE...`` summarises recordings, ``orb convert FILE... -o DIR``
writes their tables as Parquet, CSV or TSV, ``orb plot`` draws one, ``orb
view`` shows one in the web browser.  Exit status: 0 when everything was
done, 1 when some recordings failed, 2 for a usage error.

Each subcommand is a module with ``configure(parser)`` (its description,
epilog and arguments on an argparse parser) and ``run(args)`` (the exit
status), and optionally ``EXTRA``, the package extra that brings what it
needs.  Registering one is one line in :data:`COMMANDS`; its module is
imported only when the command runs, so that ``orb --help`` and the other
commands never wait on it.  ``run`` may raise
:class:`~orbapi.cli._common.UsageError` (exit 2) and ``ImportError`` for a
missing package (exit 2, naming ``EXTRA``).
"""

from __future__ import annotations

import argparse
import importlib
import sys

from ..summary import format_summary, summarize
from ._common import EXIT_FAILED, EXIT_USAGE, UsageError, error

__all__ = ["COMMANDS", "main", "summarize", "format_summary"]

#: The subcommands in the order ``orb --help`` lists them: name, the module
#: that configures and runs it, its line in ``orb --help``.
COMMANDS = (
    ("info", "orbapi.cli.info", "summarise recordings"),
    ("convert", "orbapi.cli.convert", "write the tables of recordings as Parquet, CSV or TSV"),
    ("plot", "orbapi.cli.plot", "draw a recording: gaze, events, trials"),
    ("view", "orbapi.view", "look through a recording in the web browser"),
)

MAIN_EPILOG = """\
examples:
  orb info run1.orb                      what is in a recording, at a glance
  orb info --json data/*.orb > info.json
  orb convert data/ -o parquet/          every .orb file below data/, to Parquet
  orb plot run1.orb --trial 3 -o t3.png  (see orb plot --help)
  orb view run1.orb                      zoom through it in the web browser

Run 'orb COMMAND --help' for the options of a command.
Exit status: 0 all done, 1 some recordings failed, 2 usage error.
"""


def _parser(command: str | None) -> argparse.ArgumentParser:
    """The command-line parser, with the arguments of `command` (the
    subcommand about to run) and a bare entry for each other one."""
    from .. import __version__

    parser = argparse.ArgumentParser(
        prog="orb",
        description="Look at eye-tracker recordings (ORB files) and convert them to tables.",
        epilog=MAIN_EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--version", action="version", version=f"orb {__version__}")
    sub = parser.add_subparsers(dest="command", metavar="COMMAND")
    for name, module, summary in COMMANDS:
        if name != command:
            sub.add_parser(name, help=summary, add_help=False)
            continue
        p = sub.add_parser(name, help=summary, formatter_class=argparse.RawDescriptionHelpFormatter)
        try:
            code = importlib.import_module(module)
        except ImportError as e:  # the module itself needs what is missing
            p.add_argument("rest", nargs=argparse.REMAINDER)
            p.set_defaults(run=lambda args, name=name, why=str(e): _unavailable(name, why, None))
            continue
        code.configure(p)
        p.set_defaults(run=lambda args, name=name, code=code: _run(name, code, args))
    return parser


def _run(name, code, args):
    try:
        return code.run(args)
    except ImportError as e:
        return _unavailable(name, str(e), getattr(code, "EXTRA", None))


def _unavailable(name, why, extra):
    hint = "" if "pip install" in why or not extra else f"; install it with: pip install 'orbapi[{extra}]'"
    error(f"orb {name} is not available: {why}{hint}")
    return EXIT_USAGE


def _command_of(argv):
    for a in argv:
        if not a.startswith("-"):
            return a
    return None


def main(argv=None) -> int:
    """Runs ``orb`` with ``argv`` (default: the command line) and returns the
    exit status.

    Example::

        >>> from orbapi import cli
        >>> cli.main(["convert", "study/", "-o", "out", "--jobs", "2"])
        0
    """
    argv = list(sys.argv[1:] if argv is None else argv)
    parser = _parser(_command_of(argv))
    try:
        args = parser.parse_args(argv)
    except SystemExit as e:
        return e.code if isinstance(e.code, int) else EXIT_USAGE
    if not getattr(args, "run", None):
        parser.print_help(sys.stderr)
        return EXIT_USAGE
    try:
        return args.run(args)
    except UsageError as e:
        error(str(e))
        return EXIT_USAGE
    except OSError as e:  # the output cannot be written
        from ..many import reason

        error(reason(e))
        return EXIT_FAILED
    except KeyboardInterrupt:
        error("interrupted")
        return 130
