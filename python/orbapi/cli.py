"""The ``orb`` command (placeholder until the command-line tool lands)."""
from __future__ import annotations

import sys

USAGE = """usage: orb COMMAND FILE...

Reads ORB eye-tracker recordings. Run 'orb --help' for the commands.
"""


def main(argv: list[str] | None = None) -> int:
    """Entry point of the ``orb`` console script.

    Example::

        $ orb --help
    """
    sys.stdout.write(USAGE)
    return 0


if __name__ == "__main__":
    sys.exit(main())
