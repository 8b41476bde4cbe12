#!/bin/sh
# Runs a command in a bare chroot, as a Debian package builder runs the
# tests: the host's /usr and /etc seen read-only, /proc and /dev, a fresh
# /tmp, and this source tree (with its build trees) at its own path and
# writable; no mount point at "/" itself, no systemd, no /run.
#
#   sh scripts/chroot-run.sh COMMAND [ARG]...     e.g.
#   sh scripts/chroot-run.sh sh -c 'cd build && ctest'
#   sh scripts/chroot-run.sh make deb
#
# Needs root (or a user namespace) for unshare and the bind mounts; it all
# happens in a private mount namespace that ends with the command, so
# nothing is left mounted. Ends with the command's status, or 77 when a
# chroot cannot be made here.
set -eu
SRC=$(cd "$(dirname "$0")/.." && pwd)
[ $# -gt 0 ] || { echo "usage: $0 COMMAND [ARG]..." >&2; exit 2; }

if [ "${KELVO_IN_CHROOT_NS:-}" != 1 ]; then
    # A private mount namespace first (as root, else as root of a new user
    # namespace); this script runs again inside it.
    ns="unshare --mount --propagation private"
    [ "$(id -u)" = 0 ] || ns="unshare --user --map-root-user --mount --propagation private"
    $ns true 2>/dev/null || { echo "chroot-run: no private mount namespace here" >&2; exit 77; }
    KELVO_IN_CHROOT_NS=1 exec $ns sh "$0" "$@"
fi

# Inside the namespace. The new root is a directory on a tmpfs, not the
# tmpfs's own mount point: "/" in the chroot is then no mount point at all.
base=$(mktemp -d /tmp/kelvo-chroot-XXXXXX)
mount -t tmpfs -o mode=0755 kelvo-chroot "$base"
root=$base/root
mkdir -p "$root"
for d in usr etc proc dev tmp var; do mkdir -p "$root/$d"; done
for l in bin sbin lib lib32 lib64 libx32; do
    [ -L "/$l" ] && ln -s "$(readlink "/$l")" "$root/$l"
done
mount --rbind /usr "$root/usr"
mount --rbind /etc "$root/etc"
mount --rbind /proc "$root/proc"
mount --rbind /dev "$root/dev"
mount -t tmpfs -o mode=1777 tmp "$root/tmp"
mkdir -p "$root/var/lib" "$root/var/tmp"
[ -d /var/lib/dpkg ] && mkdir -p "$root/var/lib/dpkg" && mount --bind /var/lib/dpkg "$root/var/lib/dpkg"
mount -o remount,bind,ro "$root/usr" 2>/dev/null || true
mkdir -p "$root$SRC"
mount --bind "$SRC" "$root$SRC"

exec chroot "$root" sh -c 'cd "$0" && exec "$@"' "$SRC" "$@"
