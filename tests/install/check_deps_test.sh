#!/bin/sh
# scripts/check-deps.sh against a Build-Depends field written the ways
# debian/control allows (versions, architectures, build profiles,
# alternatives, several per line), with a dpkg-query that knows a fixed set
# of installed packages: it names exactly the missing ones and fails, and
# passes once they are there.
#
#   sh check_deps_test.sh SOURCE_DIR
set -u
SRC=$1
T=$(mktemp -d)
trap 'rm -rf "$T"' EXIT
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

mkdir -p "$T/tree/scripts" "$T/tree/debian" "$T/bin"
cp "$SRC/scripts/check-deps.sh" "$T/tree/scripts/"
cat >"$T/tree/debian/control" <<'CONTROL'
Source: demo
Build-Depends: debhelper-compat (= 13),
               cmake (>= 3.20), ninja-build,
               libfoo-dev [amd64] | libfoo2-dev,
               libbar-dev:native,
               libgtest-dev <!nocheck>,
               etcd-server <!nocheck>
Standards-Version: 4.6.2

Package: demo
Depends: not-a-build-dependency
CONTROL
cat >"$T/bin/dpkg-query" <<'QUERY'
#!/bin/sh
# dpkg-query -W -f=FORMAT PACKAGE: installed when listed in $INSTALLED.
for p in $INSTALLED; do
    if [ "$p" = "$3" ]; then
        case $2 in *Version*) echo 13.11 ;; *) echo "install ok installed" ;; esac
        exit 0
    fi
done
exit 1
QUERY
chmod +x "$T/bin/dpkg-query"

# check MODE INSTALLED: runs the script; sets $status and $message
check() {
    message=$(PATH=$T/bin:$PATH INSTALLED=$2 DESTDIR=$T/dest sh "$T/tree/scripts/check-deps.sh" "$1" 2>&1)
    status=$?
}

# The tests are compiled but not run by make install: their library is
# needed, the programs they run are not.
check install "cmake ninja-build libfoo2-dev libbar-dev libgtest-dev"
[ "$status" = 0 ] || fail "install with everything there: $message"

check install "cmake libfoo-dev libbar-dev"
[ "$status" = 1 ] || fail "install with two missing exited $status"
echo "$message" | grep -qx "make install: missing build dependencies: ninja-build libgtest-dev" ||
    fail "install names: $message"

check deb "cmake ninja-build libbar-dev libgtest-dev dpkg-dev"
echo "$message" | grep -qx "make deb: missing build dependencies: debhelper libfoo-dev or libfoo2-dev etcd-server" ||
    fail "deb names: $message"

check deb "debhelper dpkg-dev cmake ninja-build libfoo-dev libbar-dev libgtest-dev etcd-server"
[ "$status" = 0 ] || fail "deb with everything there: $message"

[ "$failures" -eq 0 ] || exit 1
echo "check-deps: all checks passed"
