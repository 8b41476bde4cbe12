# Finds the built programs for the demo and the benchmarks; sourced, not run.
#
#   locate_binaries WHO BUILD_DIR
#
# Sets SRC (the source tree, one level above the calling script), BUILD (made
# absolute), KELVO and HGXREPO, or ends the caller with a message naming WHO
# when the build directory or a program is missing.
#
# With KELVO_BINDIR set (e.g. /usr/bin) the installed programs in that
# directory are used instead, and BUILD is only where the caller works; it
# is created when missing.
locate_binaries() {
    SRC=$(cd "$(dirname "$0")/.." && pwd)
    BUILD=${2:-build}
    [ -n "${KELVO_BINDIR:-}" ] && mkdir -p "$BUILD"
    [ -d "$BUILD" ] || { echo "$1: build directory $BUILD not found (run: make build)" >&2; exit 1; }
    BUILD=$(cd "$BUILD" && pwd)
    KELVO=${KELVO_BINDIR:-$BUILD/tool}/kelvo
    HGXREPO=${KELVO_BINDIR:-$BUILD/hgxrepo}/hgxrepo
    for b in "$KELVO" "$HGXREPO"; do
        [ -x "$b" ] || { echo "$1: $b is missing; build first (make build)" >&2; exit 1; }
    done
}
