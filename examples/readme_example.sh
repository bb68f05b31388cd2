#!/usr/bin/env bash
# The README's C example, run as written: its program is saved as run1.c and
# its shell lines run in a folder where include/, examples/ and build-example/
# are those of this tree and build (the library just built).
#   readme_example.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 build=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/orbapi-readme.XXXXXX")
trap 'rm -rf "$work"' EXIT

# The first ```c block after "## Using it from C", then the ```sh block after it.
awk '/^## Using it from C/ { part = 1 }
     part == 1 && /^```c$/ { part = 2; next }
     part == 2 && /^```$/ { part = 3; next }
     part == 2 { print > "'"$work"'/run1.c" }
     part == 3 && /^```sh$/ { part = 4; next }
     part == 4 && /^```$/ { exit }
     part == 4 { print > "'"$work"'/commands.sh" }' "$src/README.md"
[ -s "$work/run1.c" ] || { echo "FAIL: no C example in README.md" >&2; exit 1; }
[ -s "$work/commands.sh" ] || { echo "FAIL: no command lines after the C example" >&2; exit 1; }

ln -s "$src/include" "$work/include"
ln -s "$src/examples" "$work/examples"
ln -s "$(cd "$build" && pwd)" "$work/build-example"
cd "$work"
# No LD_LIBRARY_PATH: the lines must find the library themselves.
out=$(env -u LD_LIBRARY_PATH bash -e commands.sh)
grep -q '^block start$' <<<"$out" || { echo "FAIL: no block start in: $out" >&2; exit 1; }
[ "$(grep -c '^[0-9]* [0-9.-]*$' <<<"$out")" -gt 1000 ] ||
    { echo "FAIL: too few samples in: $out" >&2; exit 1; }
echo "README example: $(wc -l <<<"$out") lines"
