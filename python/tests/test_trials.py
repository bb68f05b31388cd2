"""Trials and their variables."""
from __future__ import annotations

import numpy as np
import pytest

import orbapi
from orbwriter import OrbWriter, add_sample_run, end_block, message, start_block


def test_variables_become_typed_columns(make_recording):
    path = make_recording(trials=4, variables={
        "condition": ["easy", "hard", "easy", None],
        "count": [1, 2, 3, 4],
        "rt": [512, 0.25, None, 3],
        "mixed": ["7", "x7", None, None],
    })
    rec = orbapi.read(path, variables=["condition", "count", "rt", "mixed", "absent"])
    t = rec.trials
    assert list(t.columns[:7]) == ["trial", "start_time", "end_time", "duration",
                                   "start_index", "end_index", "block"]
    assert list(t.condition[:3]) == ["easy", "hard", "easy"] and t.condition.isna()[3]
    assert t["count"].dtype == np.int64 and list(t["count"]) == [1, 2, 3, 4]
    assert t.rt.dtype == np.float64
    np.testing.assert_array_equal(t.rt, [512.0, 0.25, np.nan, 3.0])
    assert list(t.mixed[:2]) == ["7", "x7"]   # not all numbers: kept as text
    assert t.mixed.isna()[2:].all()
    assert t.absent.isna().all()


def test_all_takes_every_key_value_message(make_recording):
    rec = orbapi.read(make_recording(trials=2, messages=False), variables="all")
    assert {"condition", "difficulty", "TRIALID"} <= set(rec.trials.columns)
    assert list(rec.trials.TRIALID) == [1, 2]
    assert list(rec.trials.difficulty) == [1.5, 3.0]
    # "trial end" would be the variable "trial": the table's own column stays.
    assert list(rec.trials.trial) == [0, 1]
    # A message without a value names nothing.
    assert "no" not in rec.trials.columns


def test_a_prefix_picks_the_variables_of_another_form(make_recording):
    path = make_recording(trials=3, messages=False, variable_prefix="var ",
                          variables={"rt": [512, 498, 530], "side": ["l", "r", "l"]})
    rec = orbapi.read(path, variables="all", variable_prefix="var ")
    assert list(rec.trials.columns[7:]) == ["rt", "side"]  # TRIALID lacks the prefix
    assert list(rec.trials.rt) == [512, 498, 530] and list(rec.trials.side) == ["l", "r", "l"]
    # Without the prefix the same messages are the variable "var".
    plain = orbapi.read(path, variables="all")
    assert "rt" not in plain.trials.columns and list(plain.trials["var"]) == ["side l", "side r", "side l"]
    with pytest.raises(ValueError, match="own column"):
        orbapi.read(path, variables=["rt", "trial"])


def test_no_variables_by_default_and_a_single_key(make_recording):
    path = make_recording(trials=2)
    assert len(orbapi.read(path).trials.columns) == 7
    assert list(orbapi.read(path, variables="condition").trials.condition) == ["easy", "hard"]


def test_only_messages_inside_a_trial_count():
    w = OrbWriter()
    start_block(w, 1000)
    w.add(message(1000, "score 5"))        # before the first trial starts
    w.add(message(1001, "TRIALID 1"))
    w.add(message(1002, "score 7"))
    w.add(message(1003, "score 8"))        # the last one in a trial wins
    add_sample_run(w, 1000, 1100)
    end_block(w, 1101)
    rec = orbapi.read(w.build(), variables=["score"])
    assert list(rec.trials.score) == [8]


def test_custom_trial_identifiers(make_recording):
    path = make_recording(trials=3, blocks=1)
    one = orbapi.read(path)
    split = orbapi.read(path, trial_end="trial end")
    with orbapi.open(path, trial_end="trial end") as f:
        assert len(split.trials) == f.trial_count
    assert len(split.trials) > len(one.trials) == 1
    none = orbapi.read(path, trial_start="NO SUCH MESSAGE")
    # Without start messages every block is one trial.
    assert len(none.trials) == len(none.blocks)
