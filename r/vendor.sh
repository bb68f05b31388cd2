#!/bin/sh
# Makes r/ an R source package that builds on its own: copies the library's
# headers (include/) and every source of src/, in every folder below it,
# with the cpp11 headers, into r/src/vendor/, the example recording into
# r/inst/extdata/, and writes r/src/Makevars,
# which compiles them all into the package.  Run it before `R CMD build r`.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
vendor=$here/src/vendor

# The package's version is the library's.
version=$(sed -n 's/^#define ORBAPI_VERSION_\(MAJOR\|MINOR\|PATCH\) *\([0-9]*\).*/\2/p' \
    "$root/include/orbapi.h" | paste -sd. -)
grep -qx "Version: $version" "$here/DESCRIPTION" || {
    echo "vendor.sh: r/DESCRIPTION must say Version: $version, the library's version" >&2
    exit 1
}

cpp11=$(Rscript -e 'cat(system.file("include", package = "cpp11"))')
[ -f "$cpp11/cpp11.hpp" ] || {
    echo "vendor.sh: the R package cpp11 is not installed (Debian: r-cran-cpp11)" >&2
    exit 1
}

rm -rf "$vendor" "$here/inst/extdata"
mkdir -p "$vendor" "$here/inst/extdata"
# The recording the documentation's examples read.
cp "$root/examples/example.orb" "$here/inst/extdata/example.orb"
cp -R "$root/include" "$vendor/include"
cp -R "$root/src" "$vendor/lib"
cp -R "$cpp11" "$vendor/cpp11"
find "$vendor/lib" -type f ! -name '*.cpp' ! -name '*.h' ! -name '*.hpp' -delete

cd "$here/src"
objects=$(find vendor/lib -name '*.cpp' | LC_ALL=C sort | sed 's/\.cpp$/.o/' | tr '\n' ' ')
# The top of src/ and every folder below it that holds headers.
includes=$({ echo vendor/lib; find vendor/lib \( -name '*.h' -o -name '*.hpp' \) -exec dirname {} \;; } |
    LC_ALL=C sort -u | sed 's/^/-I/' | tr '\n' ' ')
sed -e "s|@OBJECTS@|$objects|" -e "s|@INCLUDES@|$includes|" Makevars.in > Makevars
echo "vendor.sh: $(echo "$objects" | wc -w) library sources in r/src/vendor"
