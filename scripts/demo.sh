#!/bin/sh
# A guided tour of kelvo on the example repository.
#
#   sh scripts/demo.sh [BUILD_DIR]        (default: build; "make demo" runs it)
#   KELVO_BINDIR=/usr/bin sh scripts/demo.sh [WORK_DIR]
#                                         the installed programs instead
#                                         ("make demo-installed")
#
# It builds BUILD_DIR/demo/repository.db afresh from examples/services.json,
# shows what the repository holds, generates the configuration files of every
# instance below BUILD_DIR/demo/root, runs kelvo a second time to show that
# unchanged files are not touched, and ends with a run to standard output and
# a run in list mode.  It exits non-zero as soon as a command fails.
set -eu

. "$(dirname "$0")/../scripts/binaries.sh"
locate_binaries demo "${1:-build}"

DEMO=$BUILD/demo
REPO=$DEMO/repository.db
ROOT=$DEMO/root
STENCILS=$SRC/examples/stencils
MANIFEST=$SRC/examples/services.json

heading() {
    printf '\n\033[1m=== %s\033[0m\n' "$*"
}
show() {
    # Print a command the way a user would type it, then run it.
    printf '$ %s\n' "$*" | sed "s#$SRC/##g; s#$BUILD/#BUILD/#g"
    "$@"
}
fail() {
    echo "demo: $*" >&2
    exit 1
}

# Plain output when not on a terminal, so that logs stay readable.
if [ ! -t 1 ]; then
    heading() { printf '\n=== %s\n' "$*"; }
fi

heading "1. A fresh repository from examples/services.json"
rm -rf "$DEMO"
mkdir -p "$DEMO"
show "$HGXREPO" -r "$REPO" import "$MANIFEST" || fail "hgxrepo import failed"
echo "(the import also took the snapshot \"running\" of every instance; kelvo reads that snapshot)"

heading "2. What the repository holds"
show "$HGXREPO" -r "$REPO" list || fail "hgxrepo list failed"
echo
show "$HGXREPO" -r "$REPO" show wrn:/network/resolver:default || fail "hgxrepo show failed"

# kelvo finds the repository through this variable, like every program run
# for a service would.
HGX_REPOSITORY=$REPO
export HGX_REPOSITORY

INSTANCES=$("$HGXREPO" list | grep '^wrn:/.*:') || fail "no instances in the repository"

# kelvo writes files below the root prefix but does not create directories
# (-p goes only with loopback mounts), so make the directories of every
# configfile path first.
sed -n 's/.*"path": *"\([^"]*\)".*/\1/p' "$MANIFEST" | while read -r path; do
    mkdir -p "$ROOT$(dirname "$path")"
done

heading "3. Configfile mode: one file per configfile group of each instance"
echo "Each instance names its files, stencils and modes in groups of type"
echo "\"configfile\"; -a generates them all, below the root prefix given by -R."
for wern in $INSTANCES; do
    echo
    show "$KELVO" -a -R "$ROOT" -S "$STENCILS" -f "$wern" || fail "kelvo failed for $wern (status $?)"
done

heading "4. The generated files"
FILES=$(cd "$ROOT" && find . -type f | sed 's#^\./#/#' | sort)
[ -n "$FILES" ] || fail "kelvo wrote no file"
for f in $FILES; do
    printf '\n--- %s (mode %s) ---\n' "$f" "$(stat -c %a "$ROOT$f")"
    cat "$ROOT$f"
done

heading "5. A second run changes nothing"
echo "kelvo compares its output with the file first; a file that already holds"
echo "exactly that text is not written, so its inode, mtime and ctime stay."
stamp() {
    for f in $FILES; do
        stat -c '%i  %y  %z  %n' "$ROOT$f" | sed "s#$ROOT##"
    done
}
BEFORE=$(stamp)
sleep 1
for wern in $INSTANCES; do
    "$KELVO" -a -R "$ROOT" -S "$STENCILS" -f "$wern" || fail "kelvo failed for $wern on the second run (status $?)"
done
AFTER=$(stamp)
echo
echo "inode / modification time / change time, before the second run:"
echo "$BEFORE"
echo "and after it:"
echo "$AFTER"
if [ "$BEFORE" = "$AFTER" ]; then
    echo "=> all files untouched"
else
    fail "a second run rewrote a file that had not changed"
fi

heading "6. One stencil to standard output"
echo "Without -a, kelvo reads one stencil (-i, below -S) and writes to standard"
echo "output unless -o is given.  -D supplies what the configfile group's"
echo "defines supply in configfile mode."
show "$KELVO" -f wrn:/system/timesync:default -S "$STENCILS" -i timesync.conf.stencil \
    -D keyfile=/etc/timesync/timesync.keys || fail "kelvo failed (status $?)"
echo
echo "A stencil can also come on standard input:"
printf '$ echo %s | kelvo -f wrn:/network/resolver:default\n' "'Instance \$%i of \$%s answers on port \$%{config/port}.'"
echo 'Instance $%i of $%s answers on port $%{config/port}.' |
    "$KELVO" -f wrn:/network/resolver:default || fail "kelvo failed (status $?)"

heading "7. List mode: which properties does a stencil use?"
show "$KELVO" -l -f wrn:/network/resolver:default -S "$STENCILS" -i resolver.conf.stencil \
    || fail "kelvo -l failed (status $?)"

heading "Done"
echo "Repository: $REPO"
echo "Generated files: below $ROOT"
