"""A writer of ORB recordings for the Python tests.

It lays recordings out byte by byte on its own: the magic line, the
preamble, sample items built from their flag word, event items as coded
fields, messages, the starts and ends of recording blocks with their rate
and mode word, and the compressed container. It is kept apart from the C++
test writer (``tests/OrbWriter.h``) on purpose and shares no code with it:
the Python tests cross-check the reader against a second, independent
reading of the format, so that a mistake made once in the C++ writer and
the reader alike does not go unseen. Every test reads a file it made
itself.

Low level::

    w = OrbWriter()
    start_block(w, 1000, rate=1000)
    w.add(message(1000, "TRIALID 1"))
    add_sample_run(w, 1000, 1099)          # one binocular sample a ms
    w.add(EventItem(EFIX, eye=0).start(1000).end(1099).words(42, 5000, 4000))
    end_block(w, 1100)
    path = w.write(tmp_path / "a.orb")     # or w.build() for the bytes

High level, the typical recordings (see :func:`typical`)::

    path = typical(rate=500, eyes="left", trials=3, blinks=True).write(p)

The ``make_recording`` fixture of ``conftest.py`` writes one into the test's
temporary directory: ``path = make_recording(rate=2000, camera=True)``.
"""
from __future__ import annotations

import os
import random
import struct
import zlib
from dataclasses import dataclass, field
from typing import Callable, Iterable

# Sample flag bits: which value groups a sample item carries.
SAMPLE_BIT = 0x0001
HALF_MS = 0x0002    # the sample lies half a millisecond after its time
SKIP2 = 0x0004
SKIP1 = 0x0008
EXTRA = 0x0010      # extra-data type byte and words (camera values)
BUTTONS = 0x0020
INPUT = 0x0040
STATUS = 0x0080
PUPIL = 0x0100
RES = 0x0200
GAZE = 0x0400
SECOND = 0x0800
RAW = 0x1000
FULL_TIME = 0x2000  # a full 32-bit time instead of a one-byte step
RIGHT = 0x4000
LEFT = 0x8000

# Item-type codes.
SSPAN, ESPAN, SBLINK, EBLINK, SSACC, ESACC, SFIX, EFIX = 1, 2, 3, 4, 5, 6, 7, 8
POINT9, POINT10 = 9, 10
SSAMPLES, ESAMPLES, SEVENTS, EEVENTS = 15, 16, 17, 18
MESSAGE, POINT25, POINT28, RECORDING, SAMPLE = 24, 25, 28, 30, 200

MAGIC_PLAIN = "NORVANE_LAB_COMBFILE\n"
MAGIC_COMPRESSED = "NORVANE_LAB_HSPDFILE ZIP\n"
#: Preamble of a tracker whose samples take the standard velocity filter.
PREAMBLE_STANDARD = ["DATE: Sat Nov 21 12:00:00 2026\n", "VERSION: OCULANT MK 3\n",
                     "SOURCE: OCULANT MK\n"]
#: Preamble of a tracker whose samples take the high-speed velocity filter.
PREAMBLE_HIGH_SPEED = ["DATE: Sat Nov 21 12:00:00 2026\n", "VERSION: OCULANT MK 3\n",
                       "SOURCE: OCULANT HQ\n"]


def _u16(v: int) -> bytes:
    return struct.pack(">H", v & 0xFFFF)


def _u32(v: int) -> bytes:
    return struct.pack(">I", v & 0xFFFFFFFF)


@dataclass
class SampleItem:
    """One sample item, laid out from its flag word: only the groups whose
    bits are set are written, in the order the reader takes them. Pairs are
    ``[eye][x, y]`` with eye 0 left and 1 right; values are the stored 16-bit
    words (gaze in tenths of a pixel with the usual divisor 10)."""

    flags: int = SAMPLE_BIT | FULL_TIME | LEFT
    time: int = 0            # written when FULL_TIME is set
    step: int = 0            # written when FULL_TIME is clear
    raw: list = field(default_factory=lambda: [[0, 0], [0, 0]])
    second: list = field(default_factory=lambda: [[0, 0], [0, 0]])
    gaze: list = field(default_factory=lambda: [[0, 0], [0, 0]])
    res: list = field(default_factory=lambda: [0, 0])
    pupil: list = field(default_factory=lambda: [0, 0])
    status: int = 0
    input: int = 0
    buttons: int = 0
    extra_type: int = 0
    extra: list = field(default_factory=list)  # exactly these words follow the type byte
    skip1: bytes = b"\0"
    skip2: bytes = b"\0"

    def to_bytes(self) -> bytes:
        f = self.flags | SAMPLE_BIT
        out = bytearray(_u16(f))
        out += _u32(self.time) if f & FULL_TIME else bytes([self.step & 0xFF])
        eyes = [e for e in (0, 1) if f & (LEFT if e == 0 else RIGHT)]
        for bit, pair in ((RAW, self.raw), (SECOND, self.second), (GAZE, self.gaze)):
            if f & bit:
                for e in eyes:
                    out += _u16(pair[e][0]) + _u16(pair[e][1])
        if f & RES:
            out += _u16(self.res[0]) + _u16(self.res[1])
        if f & PUPIL:
            for e in eyes:
                out += _u16(self.pupil[e])
        if f & STATUS:
            out += _u16(self.status)
        if f & INPUT:
            out += _u16(self.input)
        if f & BUTTONS:
            out += _u16(self.buttons)
        if f & EXTRA:
            out.append(self.extra_type & 0xFF)
            for w in self.extra:
                out += _u16(w)
        if f & SKIP1:
            out += self.skip1
        if f & SKIP2:
            out += self.skip2
        return bytes(out)


class EventItem:
    """One event item: the tag, then coded fields, then the code 0.

    `eye` 0 left, 1 right, -1 neither. The builders return the item, so
    fields chain: ``EventItem(EFIX, 0).start(10).end(90).words(42, x, y)``.
    """

    def __init__(self, type: int, eye: int = 0, tag_low: int = 0):
        eye_bits = 0x80 if eye == 0 else 0x40 if eye == 1 else 0
        self._b = bytearray(_u16(((eye_bits | (type & 0x3F)) << 8) | (tag_low & 0xFE)))

    def u32(self, code: int, v: int) -> "EventItem":
        self._b += bytes([code]) + _u32(v)
        return self

    def word(self, code: int, v: int) -> "EventItem":
        self._b += bytes([code]) + _u16(v)
        return self

    def words(self, code: int, a: int, b: int) -> "EventItem":
        self._b += bytes([code]) + _u16(a) + _u16(b)
        return self

    def code(self, c: int) -> "EventItem":
        self._b.append(c)
        return self

    def message(self, text: str | bytes) -> "EventItem":
        data = text.encode() if isinstance(text, str) else text
        return self.message_raw(len(data), data)

    def message_raw(self, length: int, text: str | bytes) -> "EventItem":
        """A message field whose stored length need not match the text."""
        data = text.encode() if isinstance(text, str) else text
        self._b += bytes([94]) + _u16(length) + data
        return self

    def start(self, t: int) -> "EventItem":
        return self.u32(33, t)

    def end(self, t: int) -> "EventItem":
        return self.u32(65, t)

    def to_bytes(self) -> bytes:
        """The finished item, with its closing code 0."""
        return bytes(self._b) + b"\0"

    @property
    def unterminated(self) -> bytes:
        """The fields without the closing code, for truncation tests."""
        return bytes(self._b)


def block_start(type: int, time: int, rate: float, flags: int, divisor: int = 1,
                second: int = 10, mode_word: int = 0x0312, flags2: int = 0) -> EventItem:
    """The start of a sample (15) or event (17) block as a tracker writes it:
    time, gaze divisor, second scale, rate in 16.16 and the packed mode word
    (high byte mode, middle four bits filter level, low four bits option)."""
    e = EventItem(type, -1)
    e.start(time).word(48, divisor).word(81, second)
    e.word(180, flags)
    if type != SSAMPLES:
        e.word(85, flags2)
    return e.end(int(rate * 65536.0 + 0.5)).words(75, mode_word, 0)


def block_end(type: int, time: int) -> EventItem:
    """The end of a sample (16) or event (18) block."""
    return EventItem(type, -1).end(time)


class OrbWriter:
    """A whole recording: add items, then ``build()`` the bytes or
    ``write(path)`` them. The attributes shape the container:

    - ``magic``: the first line (``MAGIC_PLAIN`` or ``MAGIC_COMPRESSED``);
    - ``preamble``: the lines before ``ENDP:``;
    - ``compressed``: write the item stream as one zlib stream (set
      ``magic`` to ``MAGIC_COMPRESSED`` too, or use ``compress()``);
    - ``end_preamble``: write the ``ENDP:`` line;
    - ``terminate``: close the item stream with a zero tag;
    - ``truncate_body_to``: cut the (compressed) item stream short.
    """

    def __init__(self, preamble: Iterable[str] | None = None):
        self.magic = MAGIC_PLAIN
        self.preamble = list(PREAMBLE_STANDARD if preamble is None else preamble)
        self.compressed = False
        self.end_preamble = True
        self.terminate = True
        self.truncate_body_to: int | None = None
        self._body = bytearray()

    def add(self, item: "SampleItem | EventItem | bytes") -> "OrbWriter":
        self._body += item if isinstance(item, (bytes, bytearray)) else item.to_bytes()
        return self

    def compress(self) -> "OrbWriter":
        """Makes this a compressed container."""
        self.magic, self.compressed = MAGIC_COMPRESSED, True
        return self

    @property
    def body(self) -> bytes:
        return bytes(self._body)

    def header_size(self) -> int:
        """Bytes before the first item of a plain file."""
        return len(self.magic) + sum(len(x) for x in self.preamble) + (6 if self.end_preamble else 0)

    def build(self) -> bytes:
        out = bytearray(self.magic.encode())
        for line in self.preamble:
            out += line.encode()
        if self.end_preamble:
            out += b"ENDP:\n"
        items = bytes(self._body) + (b"\0\0" if self.terminate else b"")
        if self.compressed:
            items = zlib.compress(items, 6)
        if self.truncate_body_to is not None:
            items = items[: self.truncate_body_to]
        return bytes(out + items)

    def write(self, path: "str | os.PathLike[str]") -> str:
        """Writes the recording to `path` and returns the path as text."""
        with open(path, "wb") as f:
            f.write(self.build())
        return os.fspath(path)


# ---------------------------------------------------------------------------
# Small building blocks
# ---------------------------------------------------------------------------

def message(time: int, text: str | bytes) -> EventItem:
    """A message item at `time`."""
    return EventItem(MESSAGE, -1).start(time).message(text)


def start_block(w: OrbWriter, t: int, rate: float = 1000.0, flags: int | None = None,
                divisor: int = 1, eyes: int = 3, mode_word: int = 0x0312) -> None:
    """Both starts of a block (samples, then events). `eyes`: 1 left,
    2 right, 3 both."""
    eye_flags = (LEFT if eyes & 1 else 0) | (RIGHT if eyes & 2 else 0)
    if flags is None:
        flags = SAMPLE_BIT | eye_flags | GAZE
    w.add(block_start(SSAMPLES, t, rate, flags, divisor, mode_word=mode_word))
    w.add(block_start(SEVENTS, t, rate, 0, divisor, 10, mode_word,
                      (0x4000 if eyes & 1 else 0) | (0x8000 if eyes & 2 else 0)))


def end_block(w: OrbWriter, t: int) -> None:
    """Both ends of a block."""
    w.add(block_end(ESAMPLES, t))
    w.add(block_end(EEVENTS, t))


def sample_at(t: int, more: int = 0) -> SampleItem:
    """A binocular gaze sample written with its full time."""
    return SampleItem(flags=SAMPLE_BIT | FULL_TIME | LEFT | RIGHT | GAZE | more, time=t)


def add_samples(w: OrbWriter, times: Iterable[int]) -> None:
    for t in times:
        w.add(sample_at(t))


def add_sample_run(w: OrbWriter, first: int, last: int) -> None:
    """One sample a millisecond from `first` to `last` inclusive."""
    add_samples(w, range(first, last + 1))


def add_block(w: OrbWriter, t0: int, n: int, rate: float = 500.0,
              between: Callable[[int, int], None] | None = None) -> None:
    """One recording block: both block starts at t0 (gaze divisor 10), n
    binocular samples one period apart, both ends a millisecond after the
    last sample. `between(i, t)` is called after every sample."""
    flags = SAMPLE_BIT | LEFT | RIGHT | GAZE | RES | PUPIL
    w.add(block_start(SSAMPLES, t0, rate, flags, 10))
    w.add(block_start(SEVENTS, t0, rate, 0xC000, 10, 10, 0x0312, 0xC000))
    period = 1000.0 / rate
    last = t0
    for i in range(n):
        t = t0 + int(i * period)
        s = SampleItem(flags=flags | FULL_TIME, time=t)
        s.gaze = [[1000 + 10 * i + e, 2000 - 10 * i] for e in (0, 1)]
        s.pupil = [800, 801]
        s.res = [400, 400]
        w.add(s)
        if between:
            between(i, t)
        last = t
    w.add(block_end(ESAMPLES, last + 1))
    w.add(block_end(EEVENTS, last + 1))


# ---------------------------------------------------------------------------
# Typical recordings
# ---------------------------------------------------------------------------

MISSING_WORD = -32768  # a stored missing position, gaze or pupil word


def typical(*, rate: int = 1000, eyes: str = "both", high_speed: bool = False,
            trials: int = 3, trial_ms: int = 400, blocks: int | None = None, blinks: bool = True,
            camera: bool = False, variables: dict | None = None, variable_prefix: str = "",
            messages: bool = True,
            compressed: bool = False, damage: str | None = None, seed: int = 1,
            start: int = 100000) -> OrbWriter:
    """A recording as a tracker writes one, as an OrbWriter (call ``write``
    or ``build``).

    - `rate`: 250, 500, 1000 or 2000 samples a second (2000 writes two samples
      a millisecond, the second with the half-millisecond flag);
    - `eyes`: "left", "right" or "both";
    - `high_speed`: the tracker model whose velocities take the high-speed
      filter (else the standard one);
    - `trials` trials of `trial_ms` each, spread over `blocks` recording
      blocks (by default one block per trial, as trackers record); every
      trial starts with a "TRIALID n" message, carries its variables and
      ends with "trial end". The library starts no second trial inside an
      open one, so with fewer blocks than trials read with
      ``trial_end="trial end"``;
    - `variables`: key → list of values, one per trial (``None`` leaves that
      trial without it), written as "key value" after `variable_prefix`.
      By default every trial gets ``condition`` (text) and ``difficulty``
      (a number);
    - each trial has fixations and saccades on both recorded eyes; with
      `blinks` the second saccade of a trial holds a blink whose samples
      are missing (gaze and pupil words -32768, resolution missing too);
    - `camera`: samples carry raw and second positions, the input word and
      eight extra-data words (the camera values);
    - `messages`: add a few free messages (with non-ASCII text, one without
      a trailing line feed, one with a NUL inside);
    - `compressed`: the compressed container;
    - `damage`: "truncated" cuts the item stream in the middle of the last
      trial; "bad_magic" spoils the first line; "no_end" leaves out the
      final zero tag and the last block end.
    """
    rng = random.Random(seed)
    eye_bits = {"left": 1, "right": 2, "both": 3}[eyes]
    w = OrbWriter(PREAMBLE_HIGH_SPEED if high_speed else PREAMBLE_STANDARD)
    if compressed:
        w.compress()
    eye_flags = (LEFT if eye_bits & 1 else 0) | (RIGHT if eye_bits & 2 else 0)
    flags = SAMPLE_BIT | eye_flags | GAZE | PUPIL | RES | STATUS
    if camera:
        flags |= RAW | SECOND | INPUT | EXTRA
    per_ms = 2 if rate >= 2000 else 1
    step = 1 if per_ms == 2 else max(1, round(1000 / rate))
    recorded = [e for e in (0, 1) if eye_bits & (1 << e)]
    if variables is None:
        variables = {"condition": [("easy", "hard")[i % 2] for i in range(trials)],
                     "difficulty": [round(1.5 * (i + 1), 2) for i in range(trials)]}

    t = start
    trial = 0
    blocks = trials if blocks is None else blocks
    per_block = [trials // blocks + (1 if b < trials % blocks else 0) for b in range(blocks)]
    for b, n_trials in enumerate(per_block):
        w.add(block_start(SSAMPLES, t, rate, flags, 10))
        w.add(block_start(SEVENTS, t, rate, 0, 10, 10, 0x0312,
                          (0x4000 if eye_bits & 1 else 0) | (0x8000 if eye_bits & 2 else 0)))
        first_sample = True
        last = t
        for _ in range(n_trials):
            w.add(message(t, f"TRIALID {trial + 1}"))
            for key, values in variables.items():
                value = values[trial] if trial < len(values) else None
                if value is not None:
                    w.add(message(t, f"{variable_prefix}{key} {value}"))
            if messages and trial == 0:
                w.add(message(t + 1, "Grüße, Blickdaten\n"))
                w.add(message(t + 1, "no line feed"))
                w.add(EventItem(MESSAGE, -1).start(t + 2).message_raw(12, b"before\0after"))
            # Phases of the trial: fixation, saccade, fixation, saccade (+blink), fixation.
            cuts = sorted(rng.sample(range(40, trial_ms - 40), 4))
            cuts = [0] + cuts + [trial_ms]
            blink = None
            for p in range(5):
                p0, p1 = t + cuts[p], t + cuts[p + 1] - step
                kind = (SFIX, EFIX) if p % 2 == 0 else (SSACC, ESACC)
                for e in recorded:
                    w.add(EventItem(kind[0], e).start(p0).words(42, 5000 + 10 * p, 4000 - 10 * p))
                if p == 3 and blinks and p1 - p0 > 8 * step:
                    blink = (p0 + 2 * step, p1 - 2 * step)
                    for e in recorded:
                        w.add(EventItem(SBLINK, e).start(blink[0]))
                # The samples of this phase.
                tt = p0
                while tt <= p1:
                    for sub in range(per_ms):
                        closed = blink is not None and blink[0] <= tt <= blink[1]
                        s = SampleItem(flags=flags | (HALF_MS if sub else 0))
                        if first_sample:
                            s.flags |= FULL_TIME
                            s.time = tt
                            first_sample = False
                        else:
                            s.step = tt - last
                        x = 5000 + 37 * (tt - t) % 3000 + rng.randint(-3, 3)
                        y = 4000 - 11 * (tt - t) % 2000 + rng.randint(-3, 3)
                        s.gaze = [[MISSING_WORD if closed else x + 3 * e,
                                   MISSING_WORD if closed else y - e] for e in (0, 1)]
                        s.pupil = [MISSING_WORD if closed else 900 + 20 * e + rng.randint(-5, 5)
                                   for e in (0, 1)]
                        s.res = [MISSING_WORD, MISSING_WORD] if closed else [400 + trial, 410]
                        s.status = 0x0400 if closed else 0
                        if camera:
                            s.raw = [[x // 10 + e, y // 10 - e] for e in (0, 1)]
                            s.second = [[x // 10 + 7, y // 10 + 5] for e in (0, 1)]
                            s.input = (tt * 7) & 0xFFFF
                            s.extra_type = 0x08
                            s.extra = [(tt + 3 * i) & 0x7FFF for i in range(8)]
                        w.add(s)
                        last = tt
                    tt += step
                if blink is not None and p == 3:
                    for e in recorded:
                        w.add(EventItem(EBLINK, e).start(blink[0]).end(blink[1]))
                for e in recorded:
                    end = (EventItem(kind[1], e).start(p0).end(p1)
                           .words(42, 5000 + 10 * p, 4000 - 10 * p).words(74, 5100, 3900)
                           .words(43, 400, 400).words(75, 400, 400))
                    if kind[1] == EFIX:
                        end.words(106, 5050, 3950).word(115, 900 + 20 * e)
                    else:
                        end.word(114, 3500)
                    w.add(end)
            w.add(message(last, "trial end\n"))
            trial += 1
            t += trial_ms
        if damage == "no_end" and b == blocks - 1:
            w.terminate = False
            break
        w.add(block_end(ESAMPLES, last + 1))
        w.add(block_end(EEVENTS, last + 1))
        t = last + 1 + 50 + (t % 7)
    if damage == "bad_magic":
        w.magic = "NORVANE_LAB_COMBFIEL\n"
    elif damage == "truncated":
        w.truncate_body_to = len(w.body) * 9 // 10 if not compressed else len(zlib.compress(w.body, 6)) // 2
    elif damage not in (None, "no_end"):
        raise ValueError(f"unknown damage {damage!r}")
    return w
