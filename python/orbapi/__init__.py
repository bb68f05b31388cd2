"""orbapi: read Oculant ORB eye-tracker recordings into numpy and pandas.

Example::

    import orbapi

    rec = orbapi.read("run1.orb", velocities=True, variables="all")
    rec.samples      # pandas DataFrame, one row per sample
    rec.fixations    # one row per fixation, with its duration
    rec.trials       # one row per trial, with its variables

    with orbapi.open("run1.orb") as f:   # item by item, over the C cursor
        for item in f:
            print(item.kind, item.time)

``read_many``, ``to_parquet`` and the ``dask`` submodule are imported on
first use.
"""
from __future__ import annotations

import importlib

from ._core import OrbError
from .cursor import OrbFile, Record, open
from .recording import Recording, read
from .view import view

from ._core import library_version as _library_version

#: The package's version: that of the library it carries ("MAJOR.MINOR.PATCH").
__version__ = _library_version()

__all__ = [
    "OrbError", "OrbFile", "Record", "Recording", "__version__",
    "open", "read", "read_many", "to_parquet", "dask", "view",
]

_LAZY = {"read_many": "many", "to_parquet": "many"}


def __getattr__(name: str):
    if name in _LAZY:
        return getattr(importlib.import_module(f".{_LAZY[name]}", __name__), name)
    if name == "dask":
        return importlib.import_module(".dask", __name__)
    raise AttributeError(f"module 'orbapi' has no attribute {name!r}")


def __dir__():
    return sorted(set(globals()) | set(__all__))
