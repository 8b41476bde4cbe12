#!/bin/sh
# Installs the Debian packages the build, the tests, the demo and the
# benchmarks need, but only when one of them is missing, so that a prepared
# machine is left alone ("make demo", "make check" and CI run it; "make
# install" and "make deb" only check, with scripts/check-deps.sh). What it
# installs:
#
#   build        cmake ninja-build g++ make pkg-config, libsqlite3-dev
#                nlohmann-json3-dev libcap-dev libcurl4-openssl-dev
#                libsystemd-dev (hgxrepo sync tells systemd when it is ready)
#   sanitizers   clang libclang-rt-14-dev (the ASan/UBSan build, fuzzing)
#   tests        googletest libgtest-dev, sqlite3, libcap2-bin and util-linux
#                (capabilities and mounts), etcd-server etcd-client (the tests
#                start their own members), openssl (their certificates),
#                bash-completion (the completion test), prometheus (its
#                promtool checks the mirror's metrics file; some 100 MB,
#                the only Debian package that has promtool)
#   checks       clang-format clang-tidy (make format-check)
#   package      debhelper dpkg-dev fakeroot
#   benchmarks   strace (the write system calls of a run)
#
# etcd-server and prometheus come with services of their own, which nothing
# here wants: they are neither started during the install nor left enabled.
set -e
PACKAGES="cmake ninja-build g++ clang libclang-rt-14-dev make pkg-config libsqlite3-dev sqlite3
nlohmann-json3-dev clang-format clang-tidy libcap-dev libcap2-bin googletest libgtest-dev util-linux
debhelper dpkg-dev fakeroot bash-completion etcd-server etcd-client libcurl4-openssl-dev openssl
strace libsystemd-dev prometheus"
missing=""
for p in $PACKAGES; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
echo "Installing:$missing"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO=sudo

# Packages that bring a service of their own, and its unit.
daemons="etcd-server:etcd.service prometheus:prometheus.service"
brings_daemon=""
for d in $daemons; do
    case " $missing " in *" ${d%%:*} "*) brings_daemon=1 ;; esac
done

# While the packages go in, invoke-rc.d starts no service (policy-rc.d
# answering 101), unless the machine has a policy of its own already.
POLICY=/usr/sbin/policy-rc.d
ours=""
if [ -n "$brings_daemon" ] && [ ! -e "$POLICY" ]; then
    printf '#!/bin/sh\n# kelvo scripts/install-deps.sh: no service starts during its install\nexit 101\n' |
        $SUDO tee "$POLICY" >/dev/null
    $SUDO chmod 755 "$POLICY"
    ours=1
fi
# prometheus is wanted for promtool alone: without the exporter it
# recommends.
plain=$(echo "$missing" | tr ' ' '\n' | grep -vx prometheus | tr '\n' ' ')
status=0
$SUDO apt-get update -qq || status=$?
if [ "$status" -eq 0 ] && [ -n "$(echo "$plain" | tr -d ' ')" ]; then
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $plain || status=$?
fi
case " $missing " in
    *" prometheus "*)
        [ "$status" -eq 0 ] && { DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq \
            --no-install-recommends prometheus || status=$?; }
        ;;
esac
[ -n "$ours" ] && $SUDO rm -f "$POLICY"
[ "$status" -eq 0 ] || exit "$status"

# Each package enables its unit; the tests need no system etcd or
# prometheus. With systemd running the unit is stopped too, should anything
# have started it; without, only the links that would start it at boot go.
for d in $daemons; do
    package=${d%%:*} unit=${d#*:}
    case " $missing " in *" $package "*) ;; *) continue ;; esac
    if [ -d /run/systemd/system ]; then
        $SUDO systemctl disable --now "$unit" || echo "install-deps: could not disable $unit" >&2
    elif command -v systemctl >/dev/null 2>&1; then
        $SUDO systemctl disable "$unit" >/dev/null 2>&1 || true
    fi
    echo "$unit of $package is disabled: the tests need none running"
done
