"""Item-by-item access over the library's cursor: ``orbapi.open()``."""
from __future__ import annotations

from collections.abc import Iterator, Mapping
from typing import Any

from . import _core
from ._source import Source, resolve

SAMPLE, RECORDING, MESSAGE = _core.SAMPLE, _core.RECORDING, _core.MESSAGE


class Record(Mapping):
    """One item as the cursor hands it out: read-only, with the same field
    names as the columns of :func:`orbapi.read` (``gaze_x_left``,
    ``start_time``, ``sample_rate``, ...). Values are as stored: missing
    markers (-32768.0, 100000000.0) are kept. A sample's ``time`` is float
    milliseconds with 0.5 added for the second sample of a millisecond; a
    message has ``text``.

    Fields are attributes and also keys::

        rec.gaze_x_left == rec["gaze_x_left"]
        dict(rec)       # every field

    ``code`` is the item-type code (200 sample, 30 block start or end,
    24 message, 7/8 fixation start/end, ...); ``kind`` is ``"sample"``,
    ``"block"``, ``"message"`` or ``"event"``.
    """

    __slots__ = ("_code", "_values")

    def __init__(self, code: int, values: dict[str, Any]):
        object.__setattr__(self, "_code", code)
        object.__setattr__(self, "_values", values)

    @property
    def code(self) -> int:
        """The item-type code. Example: ``item.code == 200`` for a sample"""
        return self._code

    @property
    def kind(self) -> str:
        """``"sample"``, ``"block"``, ``"message"`` or ``"event"``.
        Example: ``[i for i in f if i.kind == "message"]``"""
        return {SAMPLE: "sample", RECORDING: "block", MESSAGE: "message"}.get(self._code, "event")

    def __getattr__(self, name: str) -> Any:
        try:
            return self._values[name]
        except KeyError:
            raise AttributeError(f"{self.kind} record has no field {name!r}") from None

    def __setattr__(self, name: str, value: Any) -> None:
        raise AttributeError("records are read-only")

    def __getitem__(self, name: str) -> Any:
        return self._values[name]

    def __iter__(self) -> Iterator[str]:
        return iter(self._values)

    def __len__(self) -> int:
        return len(self._values)

    def __repr__(self) -> str:
        shown = ", ".join(f"{k}={v!r}" for k, v in list(self._values.items())[:6])
        return f"<{self.kind} code={self._code} {shown}{', ...' if len(self) > 6 else ''}>"


def _record(pair) -> Record | None:
    return None if pair is None else Record(pair[0], pair[1])


class Bookmark:
    """A remembered position (see :meth:`OrbFile.bookmark`).
    Example: ``mark = f.bookmark(); f.goto(mark)``"""

    __slots__ = ("id",)

    def __init__(self, id: int):
        self.id = id

    def __repr__(self) -> str:
        return f"Bookmark({self.id})"


class OrbFile:
    """An open recording, read item by item in time order (the C cursor).

    Use :func:`orbapi.open` to make one. Iterating yields :class:`Record`
    objects from the current position to the end. Navigation methods return
    True on success and False when there is no such place (the position is
    then unchanged).

    Example::

        with orbapi.open("run1.orb") as f:
            f.jump_to_trial(2)
            first = f.next()
            mark = f.bookmark()
            for item in f:
                ...
            f.goto(mark)
    """

    def __init__(self, path: Source, *, consistency: int = 0, events: bool = True,
                 samples: bool = True, trial_start: str | None = "TRIALID",
                 trial_end: str | None = None):
        fpath, data, name = resolve(path)
        #: The file's path, or None when read from bytes.
        self.path = name
        self._c = _core.Cursor(fpath, data, int(consistency), bool(events), bool(samples),
                               trial_start, trial_end)

    # -- life ---------------------------------------------------------------
    def close(self) -> None:
        """Closes the recording (also done on leaving a ``with`` block);
        closing twice is harmless. Example: ``f = orbapi.open(p); ...; f.close()``"""
        self._c.close()

    @property
    def closed(self) -> bool:
        """True once closed. Example: ``assert f.closed`` after ``f.close()``"""
        return self._c.closed

    def __enter__(self) -> "OrbFile":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    # -- stepping -----------------------------------------------------------
    def next(self) -> Record | None:
        """Steps to the next item and returns it; None past the last item.

        Example: ``first = f.next()``
        """
        if self._c.next() == 0:
            return None
        return self.current

    def __iter__(self) -> Iterator[Record]:
        while (item := self.next()) is not None:
            yield item

    @property
    def current(self) -> Record | None:
        """The item last stepped onto, or None. Example: ``f.next(); f.current.time``"""
        return _record(self._c.record())

    def camera(self) -> dict[str, float | int] | None:
        """The raw pupil and corneal-reflection values of the current sample
        (``pupil_area_left``, ``raw_pupil_x_right``, ``pupil_cr_y_left``, ...),
        or None when the current item is not a sample.

        Example: ``f.next(); f.camera()["pupil_area_left"]``
        """
        return self._c.camera()

    def sample_at(self, time: int) -> Record | None:
        """The sample recorded at `time` (ms), or None; the stepping position
        stays where it was. Example: ``f.sample_at(1000)``"""
        return _record(self._c.sample_at(int(time)))

    @property
    def position(self) -> int:
        """Index of the next item :meth:`next` steps onto (the ``index``
        column of the tables). Example: ``f.jump_to_trial(1); f.position``"""
        return self._c.element_index()

    @property
    def items(self) -> int:
        """Number of items in the time-ordered index. Example: ``f.items``"""
        return self._c.element_count()

    @property
    def sample_rate(self) -> float:
        """Samples per second of the block at the position; 0.0 outside.
        Example: ``f.next(); f.sample_rate``"""
        return self._c.sample_rate()

    # -- trials -------------------------------------------------------------
    @property
    def trial_count(self) -> int:
        """Number of trials. Example: ``range(f.trial_count)``"""
        return self._c.trial_count()

    def jump_to_trial(self, trial: int) -> bool:
        """Moves to the first item of `trial` (0-based). Example:
        ``f.jump_to_trial(0); f.next()``"""
        return self._c.jump_to_trial(int(trial)) == 0

    def next_trial(self) -> bool:
        """Moves to the trial after the current one (trial 0 before any
        move). Example: ``while f.next_trial(): print(f.trial_header())``"""
        return self._c.next_trial() == 0

    def previous_trial(self) -> bool:
        """Moves to the trial before the current one. Example: ``f.previous_trial()``"""
        return self._c.previous_trial() == 0

    def trial_with_start_time(self, time: int) -> bool:
        """Moves to the first trial starting exactly at `time` (ms).
        Example: ``f.trial_with_start_time(100000)``"""
        return self._c.trial_with_start_time(int(time)) == 0

    def trial_with_end_time(self, time: int) -> bool:
        """Moves to the first trial ending exactly at `time` (ms).
        Example: ``f.trial_with_end_time(100400)``"""
        return self._c.trial_with_end_time(int(time)) == 0

    def trial_header(self) -> dict[str, int | None] | None:
        """The trial last moved to: ``start_time``, ``end_time``, ``duration``
        and ``block_time`` (the start time of its block, None without one);
        None before any trial move. Example:
        ``f.jump_to_trial(1); f.trial_header()["duration"]``"""
        return self._c.trial_header()

    # -- bookmarks ----------------------------------------------------------
    def bookmark(self) -> Bookmark | None:
        """Remembers the current position; None when every item has been
        handed out or the position already has a bookmark.
        Example: ``mark = f.bookmark(); ...; f.goto(mark)``"""
        id_ = self._c.set_bookmark()
        return None if id_ is None else Bookmark(id_)

    def goto(self, bookmark: Bookmark) -> bool:
        """Moves to `bookmark`. Example: ``f.goto(mark); f.next()``"""
        return self._c.goto_bookmark(bookmark.id) == 0

    def free(self, bookmark: Bookmark) -> bool:
        """Forgets `bookmark`. Example: ``f.free(mark)``"""
        return self._c.free_bookmark(bookmark.id) == 0

    def next_bookmark(self) -> bool:
        """Moves to the bookmark set after the one last gone to.
        Example: ``f.goto(first); f.next_bookmark()``"""
        return self._c.next_bookmark() == 0

    def previous_bookmark(self) -> bool:
        """Moves to the bookmark set before the one last gone to.
        Example: ``f.previous_bookmark()``"""
        return self._c.previous_bookmark() == 0

    # -- file facts ---------------------------------------------------------
    @property
    def preamble(self) -> str:
        """The preamble text (each line prefixed by ``"** "``).
        Example: ``print(f.preamble)``"""
        return self._c.preamble()

    @property
    def revision(self) -> int:
        """Tracker revision from the preamble (0 when absent). Example: ``f.revision``"""
        return self._c.revision()

    @property
    def oculant_revision(self) -> int:
        """Tracker model: 1 by default, 2 for MK, 3 for HQ (velocities take
        the high-speed filter from 3 on). Example: ``f.oculant_revision``"""
        return self._c.oculant_revision()

    def __repr__(self) -> str:
        state = "closed" if self.closed else f"{self.items} items"
        return f"<OrbFile {self.path or '<bytes>'} {state}>"


def open(path: Source, *, consistency: int = 0, events: bool = True, samples: bool = True,
         trial_start: str | None = "TRIALID", trial_end: str | None = None) -> OrbFile:
    """Opens a recording for item-by-item reading over the C cursor.

    `path` is a file path or the recording's bytes. `consistency`, `events`
    and `samples` are those of :func:`orbapi.read`; `trial_start` and
    `trial_end` are the texts of the messages that start and end a trial.
    Raises FileNotFoundError for a missing file and :class:`orbapi.OrbError`
    (with the library's reason) for a file the library refuses.

    Example::

        with orbapi.open("run1.orb") as f:
            for item in f:
                if item.kind == "message":
                    print(item.time, item.text)
    """
    return OrbFile(path, consistency=consistency, events=events, samples=samples,
                   trial_start=trial_start, trial_end=trial_end)
