#!/bin/sh
# Installs the Debian packages the build, the tests, the demo and the
# benchmarks need, but only when one of them is missing, so that a prepared
# machine is left alone ("make demo", "make check" and CI run it; "make
# install" and "make deb" only check, with scripts/check-deps.sh). What it
# installs:
#
#   build        cmake ninja-build g++ make pkg-config, libsqlite3-dev
#                nlohmann-json3-dev libcap-dev libcurl4-openssl-dev
#   sanitizers   clang libclang-rt-14-dev (the ASan/UBSan build, fuzzing)
#   tests        googletest libgtest-dev, sqlite3, libcap2-bin and util-linux
#                (capabilities and mounts), etcd-server etcd-client (the tests
#                start their own members), openssl (their certificates),
#                bash-completion (the completion test)
#   checks       clang-format clang-tidy (make format-check)
#   package      debhelper dpkg-dev fakeroot
#   benchmarks   strace (the write system calls of a run)
#
# etcd-server comes with an etcd.service of its own, which nothing here
# wants: it is neither started during the install nor left enabled.
set -e
PACKAGES="cmake ninja-build g++ clang libclang-rt-14-dev make pkg-config libsqlite3-dev sqlite3
nlohmann-json3-dev clang-format clang-tidy libcap-dev libcap2-bin googletest libgtest-dev util-linux
debhelper dpkg-dev fakeroot bash-completion etcd-server etcd-client libcurl4-openssl-dev openssl
strace"
missing=""
for p in $PACKAGES; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
echo "Installing:$missing"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO=sudo

# While the packages go in, invoke-rc.d starts no service (policy-rc.d
# answering 101), unless the machine has a policy of its own already.
POLICY=/usr/sbin/policy-rc.d
ours=""
case " $missing " in
    *" etcd-server "*)
        if [ ! -e "$POLICY" ]; then
            printf '#!/bin/sh\n# kelvo scripts/install-deps.sh: no service starts during its install\nexit 101\n' |
                $SUDO tee "$POLICY" >/dev/null
            $SUDO chmod 755 "$POLICY"
            ours=1
        fi
        ;;
esac
status=0
$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $missing ||
    status=$?
[ -n "$ours" ] && $SUDO rm -f "$POLICY"
[ "$status" -eq 0 ] || exit "$status"

# The package enables its unit; the tests need no system etcd. With systemd
# running it is stopped too, should anything have started it; without, only
# the links that would start it at boot go.
case " $missing " in
    *" etcd-server "*)
        if [ -d /run/systemd/system ]; then
            $SUDO systemctl disable --now etcd.service ||
                echo "install-deps: could not disable etcd.service" >&2
        elif command -v systemctl >/dev/null 2>&1; then
            $SUDO systemctl disable etcd.service >/dev/null 2>&1 || true
        fi
        echo "etcd.service of etcd-server is disabled: the tests start their own members"
        ;;
esac
