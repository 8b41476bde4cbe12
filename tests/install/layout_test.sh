#!/bin/sh
# Installs the build tree below a scratch DESTDIR with prefix /usr, as the
# Debian package does, and checks the layout: what is installed where, that
# nothing lands outside it, that the installed (stripped) programs run and
# generate what the build tree's programs generate, and that the bash
# completions answer (completion_test.sh).
#
#   sh layout_test.sh CMAKE BUILD_DIR SOURCE_DIR VERSION
set -u
CMAKE=$1 BUILD=$2 SRC=$3 VERSION=$4
T=$(mktemp -d)
trap 'rm -rf "$T"' EXIT
D=$T/dest
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

DESTDIR=$D "$CMAKE" --install "$BUILD" --prefix /usr --strip >"$T/install.log" 2>&1 ||
    { cat "$T/install.log" >&2; echo "FAIL: cmake --install" >&2; exit 1; }

# Everything installed, and nothing else.
expected="/lib/wrn/stencils/
/usr/bin/hgxrepo
/usr/bin/kelvo
/usr/bin/kelvo-apply
/usr/bin/kelvo-diff
/usr/bin/kelvo-lint
/usr/share/bash-completion/completions/hgxrepo
/usr/share/bash-completion/completions/kelvo
/usr/share/bash-completion/completions/kelvo-apply
/usr/share/bash-completion/completions/kelvo-diff
/usr/share/bash-completion/completions/kelvo-lint
/usr/share/doc/kelvo/README.md
/usr/share/doc/kelvo/etcd-store.md
/usr/share/doc/kelvo/fleet.md
/usr/share/doc/kelvo/stencil-language.md
/usr/share/man/man1/hgxrepo.1
/usr/share/man/man1/kelvo-apply.1
/usr/share/man/man1/kelvo-diff.1
/usr/share/man/man1/kelvo-lint.1
/usr/share/man/man1/kelvo.1
/var/lib/hgx/"
for f in $(cd "$SRC" && find examples -type f); do
    expected="$expected
/usr/share/doc/kelvo/$f"
done
# The etcd store is there when the build made it.
if [ -e "$BUILD/lib/kelvo/hgx-etcd.so" ]; then
    expected="$expected
/usr/lib/kelvo/hgx-etcd.so
/usr/lib/kelvo/hgx-etcd-tls.so"
fi
# Files, and directories that hold nothing.
actual=$(cd "$D" && find . \( -type f -o -type d -empty \) | sed 's#^\.##' |
         while read -r p; do if [ -d "$D$p" ]; then echo "$p/"; else echo "$p"; fi; done | sort)
expected=$(echo "$expected" | sort)
if [ "$actual" != "$expected" ]; then
    fail "installed tree differs from the layout:"
    echo "$expected" >"$T/expected"
    echo "$actual" >"$T/actual"
    diff "$T/expected" "$T/actual" >&2
fi

for b in kelvo hgxrepo kelvo-diff kelvo-lint kelvo-apply; do
    [ -x "$D/usr/bin/$b" ] || fail "/usr/bin/$b is not executable"
    head -n 1 "$D/usr/share/man/man1/$b.1" | grep -q "\"kelvo $VERSION\"" ||
        fail "$b.1 does not carry version $VERSION: $(head -n 1 "$D/usr/share/man/man1/$b.1")"
done
out=$("$D/usr/bin/hgxrepo" --version) || fail "hgxrepo --version exited with $?"
[ "$out" = "hgxrepo $VERSION" ] || fail "hgxrepo --version printed '$out'"
# An example script is run where it is installed: it keeps its run bit.
for f in $(cd "$SRC" && find examples -type f -perm -u+x); do
    [ -x "$D/usr/share/doc/kelvo/$f" ] || fail "/usr/share/doc/kelvo/$f lost its run bit"
done

# The installed programs on the installed examples make the files that the
# build tree's programs make from the source tree's: configfile mode, every
# instance, below a root prefix whose directories exist already.
EX=$D/usr/share/doc/kelvo/examples
generate() {  # generate HGXREPO KELVO EXAMPLES OUT
    mkdir -p "$4/root" &&
    sed -n 's/.*"path": *"\([^"]*\)".*/\1/p' "$3/services.json" | while read -r path; do
        mkdir -p "$4/root$(dirname "$path")"
    done &&
    "$1" -r "$4/repo.db" import "$3/services.json" >/dev/null &&
    for wern in $(HGX_REPOSITORY=$4/repo.db "$1" list | grep '^wrn:/.*:'); do
        HGX_REPOSITORY=$4/repo.db "$2" -a -R "$4/root" -S "$3/stencils" -f "$wern" || return 1
    done
}
generate "$D/usr/bin/hgxrepo" "$D/usr/bin/kelvo" "$EX" "$T/installed" || fail "installed programs failed"
generate "$BUILD/hgxrepo/hgxrepo" "$BUILD/tool/kelvo" "$SRC/examples" "$T/built" || fail "built programs failed"
[ -n "$(find "$T/installed/root" -type f)" ] || fail "installed kelvo made no file"
diff -r "$T/built/root" "$T/installed/root" >&2 || fail "installed kelvo made other files"
# The installed kelvo-apply runs the kelvo beside it: the files are made
# already, so there is nothing to change, check or reload.
for wern in $(HGX_REPOSITORY=$T/installed/repo.db "$D/usr/bin/hgxrepo" list | grep '^wrn:/.*:'); do
    out=$(HGX_REPOSITORY=$T/installed/repo.db "$D/usr/bin/kelvo-apply" -f "$wern" \
          -R "$T/installed/root" -S "$EX/stencils" 2>&1) || fail "installed kelvo-apply failed: $out"
    [ -z "$out" ] || fail "installed kelvo-apply found changes: $out"
done

# The installed completions with the installed programs.
sh "$SRC/tests/install/completion_test.sh" "$D/usr/share/bash-completion/completions" \
    "$D/usr/bin" "$D/usr/share/doc/kelvo" >&2 || fail "installed completions"

[ "$failures" -eq 0 ] || exit 1
echo "install layout: all checks passed"
