"""Hand a recording to the analysis toolkits: MNE-Python
(:mod:`orbapi.toolkits.mne`) and pymovements
(:mod:`orbapi.toolkits.pymovements`).

Both conversions work on the tables a :class:`~orbapi.Recording` already
holds; the file is not read again.  Neither toolkit is imported until one of
these functions is called, and a missing toolkit raises an ``ImportError``
that names the extra to install (``orbapi[mne]``, ``orbapi[pymovements]``).
"""

from .mne import to_mne, write_fif
from .pymovements import to_pymovements

__all__ = ["to_mne", "to_pymovements", "write_fif"]
