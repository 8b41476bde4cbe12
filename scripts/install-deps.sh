#!/bin/sh
# Installs the Debian packages the build, the tests and the demo need, but
# only when one of them is missing, so that a prepared machine is left alone.
set -e
PACKAGES="cmake ninja-build g++ clang libclang-rt-14-dev make pkg-config libsqlite3-dev sqlite3
nlohmann-json3-dev clang-format clang-tidy libcap-dev libcap2-bin googletest libgtest-dev util-linux
debhelper dpkg-dev fakeroot bash-completion etcd-server etcd-client libcurl4-openssl-dev openssl"
missing=""
for p in $PACKAGES; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
echo "Installing:$missing"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO=sudo
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $missing
