#!/usr/bin/env bash
# What orbsummary shows of recordings the tests' writer made (fuzz/corpus)
# and of the example recording.
#   orbsummary_test.sh ORBSUMMARY SOURCE_DIR
set -uo pipefail
program=$1 corpus=$2/fuzz/corpus example=$2/examples/example.orb
failures=0

fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
# has OUTPUT LINE: OUTPUT holds LINE, whole.
has() {
    grep -qxF -- "$2" <<<"$1" || fail "no line '$2' in:"$'\n'"$1"
}

# Repairs: the placeholder samples counted, the library's lines without
# their trailing blanks.
out=$("$program" "$corpus/seed-gaps.orb")
has "$out" "  samples    102 (93 placeholders filled by the repair)"
has "$out" "  damage     Missing 7 samples. Inserting dummy samples"

# A block without its end; more log lines than are shown.
out=$("$program" "$corpus/seed-two-blocks.orb")
has "$out" "  block 1    from 1000 ms, no block end, 500 Hz, both eyes"
has "$out" "  block 2    1009-1018 ms (0.009 s), 500 Hz, both eyes"
grep -qE '^ +\.\.\. [0-9]+ more lines$' <<<"$out" || fail "no count of the lines not shown"

# Blinks of one eye stay one eye's; what the tracker did not record is
# "missing", the other eye's values beside it are shown.
out=$("$program" "$corpus/seed-blinks.orb")
has "$out" "       1001  blink start     left"
has "$out" "       1001  sample          left     missing   missing  missing   missing"
has "$out" "                             right        0.0       0.0     1000   missing"

# Nothing recorded.
out=$("$program" "$corpus/seed-empty.orb")
has "$out" "  blocks     none"
has "$out" "  damage     none reported"
grep -q '^No trials' <<<"$out" || fail "an empty recording must say it has no trials"

# The example: one screen, and the table ends with the first trial.
out=$("$program" "$example")
has "$out" "  trials     2"
has "$out" "  time (ms)  item            eye       gaze x    gaze y    pupil     speed"
[ "$(grep -c 'block start' <<<"$out")" -eq 1 ] || fail "the table runs past the first trial"
[ "$(wc -l <<<"$out")" -le 50 ] || fail "the example's summary is longer than a screen"

# A file that cannot be opened: status 1, the reason, and the mode that
# reads what comes before the damage.
err=$("$program" "$corpus/seed-compressed-cut.orb" 2>&1 >/dev/null)
status=$?
[ $status -eq 1 ] || fail "a damaged file must end with status 1, not $status"
grep -q 'cannot open' <<<"$err" || fail "no reason given: $err"
has "$err" "(consistency 6 reads what comes before damage)"
"$program" "$corpus/no-such-file.orb" 2>/dev/null
[ $? -eq 1 ] || fail "a missing file must end with status 1"

[ $failures -eq 0 ] || exit 1
echo "orbsummary: every check passed"
