"""Optional dependencies: imported when first needed, with an error that
names the extra to install."""
from __future__ import annotations

import importlib
from types import ModuleType


def require(module: str, extra: str) -> ModuleType:
    """Imports `module`, or raises ImportError telling which extra brings it.

    Example::

        pd = require("pandas", "pandas")
    """
    try:
        return importlib.import_module(module)
    except ImportError as e:
        raise ImportError(
            f"{module} is not installed; install it with: pip install 'orbapi[{extra}]'"
        ) from e
