"""``python -m orbapi.cli``: the ``orb`` command."""
import sys

from . import main

sys.exit(main())
