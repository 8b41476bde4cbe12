# Finds the built programs for the demo and the benchmarks; sourced, not run.
#
#   locate_binaries WHO BUILD_DIR
#
# Sets SRC (the source tree, one level above the calling script), BUILD (made
# absolute), KELVO and HGXREPO, or ends the caller with a message naming WHO
# when the build directory or a program is missing.
locate_binaries() {
    SRC=$(cd "$(dirname "$0")/.." && pwd)
    BUILD=${2:-build}
    [ -d "$BUILD" ] || { echo "$1: build directory $BUILD not found (run: make build)" >&2; exit 1; }
    BUILD=$(cd "$BUILD" && pwd)
    KELVO=$BUILD/tool/kelvo
    HGXREPO=$BUILD/hgxrepo/hgxrepo
    for b in "$KELVO" "$HGXREPO"; do
        [ -x "$b" ] || { echo "$1: $b is missing; build first (make build)" >&2; exit 1; }
    done
}
