#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and builds and runs a small C
# program against it three ways: with pkg-config, with find_package, and as
# part of another CMake project that takes in the sources with
# add_subdirectory.  The three runs must print the same line.
#   run.sh SOURCE_DIR BUILD_DIR RECORDING [JAVA_BUILT: ON/OFF]
set -euo pipefail
src=$1 build=$2 recording=$3 java=${4:-OFF}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/orbapi-install.XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}
# Runs a command quietly; its output is shown when it fails.
quiet() {
    "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; fail "$*"; }
}

prefix=$work/prefix
quiet cmake --install "$build" --prefix "$prefix"

# The files and links.
[ "$(cd "$prefix/include" && find . -type f)" = "./orbapi.h" ] ||
    fail "include/ must hold orbapi.h alone"
lib=$(find "$prefix" -name 'liborbapi.so.*.*.*' -type f)
[ -n "$lib" ] || fail "no liborbapi.so.MAJOR.MINOR.PATCH"
libdir=$(dirname "$lib")
version=${lib##*/liborbapi.so.}
major=${version%%.*}
[ "$(readlink "$libdir/liborbapi.so.$major")" = "liborbapi.so.$version" ] ||
    fail "liborbapi.so.$major must link to liborbapi.so.$version"
[ "$(readlink "$libdir/liborbapi.so")" = "liborbapi.so.$major" ] ||
    fail "liborbapi.so must link to liborbapi.so.$major"
dynamic=$(readelf -d "$lib")
grep -F "(SONAME)" <<<"$dynamic" | grep -F "[liborbapi.so.$major]" >/dev/null ||
    fail "SONAME is not liborbapi.so.$major: $(grep -F SONAME <<<"$dynamic")"
for f in pkgconfig/orbapi.pc cmake/orbapi/orbapiConfig.cmake \
    cmake/orbapi/orbapiConfigVersion.cmake cmake/orbapi/orbapiTargets.cmake; do
    [ -f "$libdir/$f" ] || fail "no $f"
done
if [ "$java" = ON ]; then
    [ -f "$prefix/share/java/orbapi.jar" ] || fail "no share/java/orbapi.jar"
fi

# Which liborbapi a program loads.
loaded() {
    LD_LIBRARY_PATH=${2:-} ldd "$1" | awk '$1 ~ /^liborbapi/ { print $1, $3 }'
}

# pkg-config.
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion orbapi)" = "$version" ] || fail "pkg-config version"
# shellcheck disable=SC2046 # the flags are words
quiet cc -std=c11 -pedantic -Wall -Wextra -Werror $(pkg-config --cflags orbapi) \
    "$here/consumer.c" -o "$work/consumer-pc" $(pkg-config --libs orbapi)
[ "$(loaded "$work/consumer-pc" "$libdir")" = "liborbapi.so.$major $libdir/liborbapi.so.$major" ] ||
    fail "the pkg-config program loads $(loaded "$work/consumer-pc" "$libdir")"
LD_LIBRARY_PATH=$libdir "$work/consumer-pc" "$recording" >"$work/pc.out" ||
    fail "the pkg-config program failed"

# find_package.
quiet cmake -S "$here/find_package" -B "$work/fp" -DCMAKE_PREFIX_PATH="$prefix" \
    -DORBAPI_EXPECTED_VERSION="$version"
quiet cmake --build "$work/fp"
[ "$(loaded "$work/fp/consumer")" = "liborbapi.so.$major $libdir/liborbapi.so.$major" ] ||
    fail "the find_package program loads $(loaded "$work/fp/consumer")"
"$work/fp/consumer" "$recording" >"$work/fp.out" || fail "the find_package program failed"

# add_subdirectory.
quiet cmake -S "$here/subproject" -B "$work/sub" -DORBAPI_SOURCE_DIR="$src"
quiet cmake --build "$work/sub" -j 2
"$work/sub/consumer" "$recording" >"$work/sub.out" || fail "the subproject program failed"

cat "$work/pc.out"
cmp "$work/pc.out" "$work/fp.out" || fail "pkg-config and find_package programs differ"
cmp "$work/pc.out" "$work/sub.out" || fail "pkg-config and subproject programs differ"
[[ "$(cat "$work/pc.out")" == "orbapi $version: "* ]] || fail "unexpected output"
