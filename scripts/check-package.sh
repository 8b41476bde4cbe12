#!/bin/sh
# Installs the package "make deb" built with dpkg -i (through sudo when not
# root), checks what it put in place, and runs the demo against the
# installed programs.
#
#   sh scripts/check-package.sh BUILD_DIR     ("make check-package" runs it)
set -eu
SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$1
fail() {
    echo "check-package: $*" >&2
    exit 1
}

DEB=$(ls "$BUILD"/deb/kelvo_*.deb 2>/dev/null | head -n 1)
[ -n "$DEB" ] || fail "no package in $BUILD/deb (run: make deb)"
# The listing is read whole once: a reader that stops at its first match
# leaves dpkg-deb writing into a closed pipe.
contents=$(dpkg-deb -c "$DEB" | awk '{ print $1, $NF }')

# The etcd store's client for etcds:// links libcurl; the package must say so.
case $contents in
    *" ./usr/lib/kelvo/hgx-etcd-tls.so"*)
        dpkg-deb -f "$DEB" Depends | grep -q 'libcurl4' ||
            fail "$DEB ships the etcd store but does not depend on libcurl4"
        ;;
esac

# Modes inside the package, before anything is installed: the programs, and
# the example scripts that hgxrepo sync --exec runs where they lie, are
# executable (an example script without its run bit fails every --exec
# with status 126).
executables="usr/bin/kelvo usr/bin/hgxrepo usr/bin/kelvo-diff usr/bin/kelvo-lint usr/bin/kelvo-apply
$(cd "$SRC" && find examples -type f -perm -u+x | sed 's|^|usr/share/doc/kelvo/|')"
for f in $executables; do
    mode=$(echo "$contents" | awk -v path="./$f" '$2 == path { print $1 }')
    [ -n "$mode" ] || fail "$DEB does not hold /$f"
    [ "$mode" = "-rwxr-xr-x" ] || fail "/$f is $mode in $DEB, not -rwxr-xr-x"
done

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO=sudo
echo "check-package: dpkg -i $DEB"
$SUDO dpkg -i "$DEB"

version=$(sed -n 's/^project(kelvo VERSION \([^ )]*\).*/\1/p' "$SRC/CMakeLists.txt")
[ "$(/usr/bin/hgxrepo --version)" = "hgxrepo $version" ] || fail "installed hgxrepo --version is wrong"
for f in /usr/share/man/man1/kelvo.1.gz /usr/share/man/man1/hgxrepo.1.gz \
    /usr/share/man/man1/kelvo-apply.1.gz \
    /usr/share/bash-completion/completions/kelvo /usr/share/bash-completion/completions/hgxrepo \
    /usr/share/bash-completion/completions/kelvo-diff /usr/share/bash-completion/completions/kelvo-lint \
    /usr/share/bash-completion/completions/kelvo-apply \
    /usr/share/doc/kelvo/examples/services.json; do
    [ -f "$f" ] || fail "$f is not installed"
done
for d in /lib/wrn/stencils /var/lib/hgx; do
    [ -d "$d" ] || fail "$d is missing"
done
gzip -dc /usr/share/man/man1/kelvo.1.gz | head -n 1 | grep -q "\"kelvo $version\"" ||
    fail "the installed kelvo(1) does not carry version $version"

KELVO_BINDIR=/usr/bin sh "$SRC/scripts/demo.sh" "$BUILD/installed"
echo "check-package: the installed package works"
