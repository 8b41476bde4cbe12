#!/bin/sh
# Builds the Debian package from the source tree as it is (committed or not).
#
#   sh scripts/make-deb.sh OUT_DIR           ("make deb" runs it)
#
# dpkg-buildpackage writes its results beside the directory it builds and
# leaves its build tree inside, so the sources are copied to OUT_DIR/src and
# built there; the .deb (with its -dbgsym package, .buildinfo and .changes)
# ends up in OUT_DIR. DEB_BUILD_OPTIONS is honoured (nocheck skips the tests).
set -eu
SRC=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$1"
OUT=$(cd "$1" && pwd)

# The package's version is the project's.
project=$(sed -n 's/^project(kelvo VERSION \([^ )]*\).*/\1/p' "$SRC/CMakeLists.txt")
package=$(sed -n '1s/^kelvo (\([^)]*\)).*/\1/p' "$SRC/debian/changelog")
if [ "$project" != "$package" ]; then
    echo "make deb: debian/changelog is at $package, CMakeLists.txt at $project" >&2
    exit 1
fi

STAGE=$OUT/src
rm -rf "$STAGE"
mkdir -p "$STAGE/kelvo-$project"
if git -C "$SRC" rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    # Tracked and new files, not the ignored ones (build trees); a tracked
    # file deleted in the work tree is skipped.
    (cd "$SRC" && git ls-files -z -co --exclude-standard |
        tar --null --ignore-failed-read -T - -cf - 2>/dev/null) | tar -xf - -C "$STAGE/kelvo-$project"
else
    (cd "$SRC" && tar --exclude='./build*' --exclude='./obj-*' -cf - .) | tar -xf - -C "$STAGE/kelvo-$project"
fi

rm -f "$OUT"/*.deb "$OUT"/*.ddeb "$OUT"/*.buildinfo "$OUT"/*.changes
(cd "$STAGE/kelvo-$project" && dpkg-buildpackage -b -us -uc -j"${JOBS:-$(nproc)}")
mv "$STAGE"/*.deb "$STAGE"/*.buildinfo "$STAGE"/*.changes "$OUT"/
rm -rf "$STAGE"
echo "make deb: $(ls "$OUT"/kelvo_*.deb)"
