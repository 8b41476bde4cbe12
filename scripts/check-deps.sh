#!/bin/sh
# Checks, before anything is built or installed, that what "make install" or
# "make deb" needs is there, and names what is missing; exits 1 if anything
# is. Installs nothing (scripts/install-deps.sh does).
#
#   sh scripts/check-deps.sh install|deb
#
# The build dependencies are the Build-Depends of debian/control, one list
# for both; "install" leaves out debhelper, "deb" adds dpkg-dev. For install,
# PREFIX and DESTDIR (from make) say where files go, and the places must be
# writable.
set -eu
MODE=${1:?usage: check-deps.sh install|deb}
SRC=$(cd "$(dirname "$0")/.." && pwd)
missing=""

# The package names of Build-Depends, one line per dependency, alternatives
# separated by "|", without versions, architectures and build profiles.
# "make install" compiles the tests (it shares the build of "make check")
# but runs none, so the programs only the tests run (those marked
# <!nocheck> that are no library) are not asked of it.
build_depends() {
    sed -n '/^Build-Depends:/,/^[^ ]/{ s/^Build-Depends://; /^[A-Z]/d; p; }' "$SRC/debian/control" |
        tr '\n' ' ' | tr ',' '\n' |
        awk -v mode="$MODE" 'mode != "install" || !/<!nocheck>/ || /gtest|googletest/' |
        sed 's/([^)]*)//g; s/\[[^]]*\]//g; s/<[^>]*>//g; s/:[a-z0-9]*//g; s/[[:space:]]//g' |
        grep -v '^$'
}

installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"
}

if command -v dpkg-query >/dev/null 2>&1; then
    deps=$(build_depends)
    [ "$MODE" = deb ] && deps="$deps
dpkg-dev"
    for dep in $deps; do
        case $dep in
            debhelper-compat)
                [ "$MODE" = deb ] || continue
                dep=debhelper
                ;;
        esac
        ok=0
        for alt in $(echo "$dep" | tr '|' ' '); do
            installed "$alt" && ok=1 && break
        done
        [ "$ok" = 1 ] || missing="$missing $(echo "$dep" | sed 's/|/ or /g')"
    done
    if [ "$MODE" = deb ] && installed debhelper &&
        dpkg --compare-versions "$(dpkg-query -W -f='${Version}' debhelper)" lt 13; then
        missing="$missing debhelper(>=13)"
    fi
else
    # Not Debian: the tools at least; CMake names a missing library itself.
    for tool in cmake ninja c++; do
        command -v "$tool" >/dev/null 2>&1 || missing="$missing $tool"
    done
fi

if [ -n "$missing" ]; then
    echo "make $MODE: missing build dependencies:$missing" >&2
    echo "  (install them with: sh scripts/install-deps.sh)" >&2
    exit 1
fi

if [ "$MODE" = install ]; then
    # The first existing directory on the way to each destination must be
    # writable, else the install would stop half-way.
    for dir in "${DESTDIR:-}${PREFIX:-/usr/local}" "${DESTDIR:-}/lib/wrn/stencils" "${DESTDIR:-}/var/lib/hgx"; do
        d=$dir
        while [ ! -e "$d" ]; do d=$(dirname "$d"); done
        if [ ! -w "$d" ]; then
            echo "make install: cannot write $d (for $dir); run it as root (sudo make install)," >&2
            echo "  or give DESTDIR=<staging directory>" >&2
            exit 1
        fi
    done
fi
exit 0
