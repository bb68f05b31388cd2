#!/usr/bin/env bash
# Compiles the Python extension's source and the Java glue with nothing but
# the public header (and the Python, nanobind and JNI headers) on the include
# path, so that an include of one of the library's own headers fails.
#   compile_faces.sh CXX SOURCE_DIR WORK_DIR [JNI_INCLUDE_DIR...]
# Exits 77 (skipped) when neither face can be compiled here.
set -uo pipefail
cxx=$1 src=$2 work=$3
shift 3
jni=("$@")
mkdir -p "$work"
flags=(-std=c++17 -fsyntax-only -Wall -Wextra -Werror -I "$src/include")
compiled=0 failed=0

check() { # label, file, extra flags...
    local label=$1 file=$2
    shift 2
    if "$cxx" "${flags[@]}" "$@" "$file"; then
        echo "$label: compiles against the public header alone"
    else
        echo "$label: does not compile against the public header alone"
        failed=1
    fi
    compiled=1
}

# The flags must not reach the library's own headers: a file including one
# has to fail, or the checks below prove nothing.
probe=$work/probe.cpp
printf '#include "ORBFile.h"\n' > "$probe"
if "$cxx" "${flags[@]}" "$probe" 2>/dev/null; then
    echo "the include path reaches the library's own headers"
    exit 1
fi

if [ ${#jni[@]} -gt 0 ] && [ -n "${jni[0]}" ]; then
    jniflags=()
    for d in "${jni[@]}"; do jniflags+=(-isystem "$d"); done
    for f in "$src"/binding/*.cpp; do
        check "binding/$(basename "$f")" "$f" "${jniflags[@]}"
    done
else
    echo "no JNI headers given: the Java glue is not checked"
fi

# nanobind: from the Python at hand, else from a virtual environment kept in
# the work folder.
python=$(command -v python3 || true)
nbinc=""
if [ -n "$python" ]; then
    nbinc=$("$python" -m nanobind --include_dir 2>/dev/null || true)
    if [ -z "$nbinc" ]; then
        venv=$work/venv
        [ -x "$venv/bin/python" ] || "$python" -m venv "$venv" >/dev/null 2>&1
        if [ -x "$venv/bin/python" ]; then
            "$venv/bin/python" -m nanobind --include_dir >/dev/null 2>&1 ||
                "$venv/bin/python" -m pip install --quiet "nanobind>=2.0" >/dev/null 2>&1
            nbinc=$("$venv/bin/python" -m nanobind --include_dir 2>/dev/null || true)
        fi
    fi
fi
pyinc=$([ -n "$python" ] && "$python" -c 'import sysconfig; print(sysconfig.get_paths()["include"])' 2>/dev/null || true)
if [ -n "$nbinc" ] && [ -f "$pyinc/Python.h" ]; then
    check "python/core.cpp" "$src/python/core.cpp" -isystem "$pyinc" -isystem "$nbinc" \
        -isystem "$nbinc/../ext/robin_map/include"
else
    echo "no nanobind or Python headers: the Python extension is not checked"
fi

[ "$failed" -eq 0 ] || exit 1
[ "$compiled" -eq 1 ] || exit 77
exit 0
