#!/bin/sh
# "make demo" and "make check" (the README's two commands) configure the
# build directory with the same command, so that the second one compiles
# nothing the first one compiled.
#
#   sh make_test.sh SOURCE_DIR
set -u
SRC=$1
unset MAKEFLAGS MFLAGS MAKELEVEL WERROR
configure() {
    make -n -s -C "$SRC" "$1" BUILD=build 2>/dev/null | grep -- "cmake -S . -B build "
}
demo=$(configure demo)
check=$(configure check)
if [ -z "$demo" ] || [ "$demo" != "$check" ]; then
    echo "FAIL: make demo and make check configure build differently:" >&2
    echo "demo:  $demo" >&2
    echo "check: $check" >&2
    exit 1
fi
echo "make: demo and check share one build"
