"""A read that stops before the end of the recording's bytes raises nothing,
logs one warning, and says where and why in ``Recording.info``, ``orb info``
and the summary of ``orb convert``."""

from __future__ import annotations

import json
import logging

import pytest

import orbapi
from orbapi import cli

from orbwriter import MESSAGE, EventItem, OrbWriter, add_block, message

FIRST, SECOND = 30, 50  # samples before and after the break


def broken(kind: str, compressed: bool = False) -> tuple[OrbWriter, int]:
    """Two blocks with `kind` between them, and the byte where it begins (in
    the file, or in the inflated body of a compressed one)."""
    w = OrbWriter()
    if compressed:
        w.compress()
    add_block(w, 1000, FIRST, between=lambda i, t: i == 0 and w.add(message(t, "TRIALID 1")))
    at = len(w.body) + (0 if compressed else w.header_size())
    if kind == "zero tag":
        w.add(b"\0\0")
    elif kind == "type 0":
        w.add(EventItem(0, eye=0).start(1500))
    elif kind == "damaged":
        w.add(EventItem(MESSAGE, -1).start(1500).message_raw(5000, "stimulus shown"))
    add_block(w, 2000, SECOND)
    return w, at


# kind, consistency, the library's reason, bytes of the break read
CASES = [
    ("zero tag", 0, "an item tag of 0", 2),
    ("type 0", 0, "an event of type 0", 0),
    ("damaged", 4, "a damaged item", 0),
]


def stopped_warnings(caplog):
    return [r for r in caplog.records if r.name == "orbapi" and r.getMessage().startswith("Reading stopped")]


@pytest.mark.parametrize("compressed", [False, True], ids=["plain", "compressed"])
@pytest.mark.parametrize("kind,consistency,why,read", CASES, ids=[c[0] for c in CASES])
def test_read_says_where_and_why_it_stopped(tmp_path, caplog, kind, consistency, why, read, compressed):
    w, at = broken(kind, compressed)
    total = len(w.body) + 2 if compressed else len(w.build())
    within = "inflated body" if compressed else "file"
    line = f"Reading stopped at byte {at} of the {within}: {why} ({total - at - read} bytes not read)"
    for source in (w.write(tmp_path / "r.orb"), w.build()):
        caplog.clear()
        with caplog.at_level(logging.WARNING, logger="orbapi"):
            rec = orbapi.read(source, consistency=consistency)
        assert [(r.levelno, r.getMessage()) for r in stopped_warnings(caplog)] == [(logging.WARNING, line)]
        assert rec.info["ended_early"] == {"reason": why, "position": at, "within": within,
                                           "bytes_not_read": total - at - read, "line": line}
        assert len(rec.samples) == FIRST


def test_whole_reads_record_none(make_recording, caplog):
    path = make_recording(trials=2)
    for consistency in (0, 4):
        with caplog.at_level(logging.WARNING, logger="orbapi"):
            rec = orbapi.read(path, consistency=consistency)
        assert rec.info["ended_early"] is None
    assert stopped_warnings(caplog) == []
    # A tolerant read skips an event of type 0 and reads on.
    w, _ = broken("type 0")
    rec = orbapi.read(w.build(), consistency=4)
    assert rec.info["ended_early"] is None and len(rec.samples) == FIRST + SECOND


def test_orb_info_shows_it_first_under_damage(capsys, tmp_path):
    w, at = broken("zero tag")
    path = w.write(tmp_path / "cut.orb")
    assert cli.main(["info", path]) == 0
    out = capsys.readouterr().out
    damage = [x for x in out.splitlines() if x.strip().startswith("damage")]
    assert damage == [f"  damage     Reading stopped at byte {at} of the file: an item tag of 0 "
                      f"({len(w.build()) - at - 2} bytes not read)"]
    assert out.count("Reading stopped") == 1

    assert cli.main(["info", "--json", path]) == 0
    (report,) = json.loads(capsys.readouterr().out)
    assert report["ended_early"]["position"] == at
    assert report["ended_early"]["reason"] == "an item tag of 0"


def test_orb_convert_names_the_recordings_that_ended_early(capsys, tmp_path, make_recording):
    good = make_recording(trials=2, name="whole.orb")
    w, at = broken("type 0")
    cut = w.write(tmp_path / "cut.orb")
    assert cli.main(["convert", good, cut, "-o", str(tmp_path / "out"), "--format", "csv", "--jobs", "1"]) == 0
    out = capsys.readouterr().out
    assert (f" 1 recording ended early (cut.orb: reading stopped at byte {at} of the file: "
            f"an event of type 0 ({len(w.build()) - at} bytes not read)).") in out
    assert "whole.orb" not in out
