#!/bin/sh
# The bash completions of hgxrepo, kelvo and its companions, in bash with
# bash-completion's helpers loaded, against a repository of the examples:
# hgxrepo's command words (from `hgxrepo --commands`), a command's
# options and werns, and an option of each companion.
#
#   sh completion_test.sh COMPLETION_DIR BIN_DIRS SOURCE_DIR
# BIN_DIRS: the directories of the programs, joined by ":". A program's
# completion is COMPLETION_DIR/<program>, else COMPLETION_DIR/kelvo (the
# source tree has the one file that is installed under each name).
set -u
C=$1 BINS=$2 SRC=$3
BASH_COMPLETION=/usr/share/bash-completion/bash_completion
[ -r "$BASH_COMPLETION" ] || { echo "FAIL: $BASH_COMPLETION is missing (scripts/install-deps.sh installs it)" >&2; exit 1; }
T=$(mktemp -d)
trap 'rm -rf "$T"' EXIT
PATH=$BINS:$PATH
export PATH
hgxrepo -r "$T/repo.db" import "$SRC/examples/services.json" >/dev/null || { echo "FAIL: import" >&2; exit 1; }
got=$(HGX_REPOSITORY=$T/repo.db bash -c '
    C=$1
    . "$2"
    for p in hgxrepo kelvo kelvo-diff kelvo-lint kelvo-apply; do
        if [ -r "$C/$p" ]; then . "$C/$p"; else . "$C/kelvo"; fi
    done
    complete_line() {   # the words of a command line, the last one completed
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
        COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}; COMPREPLY=()
        case $1 in hgxrepo) _hgxrepo ;; *) _kelvo ;; esac
        echo "$*: ${COMPREPLY[*]}"
    }
    complete_line hgxrepo ""
    complete_line hgxrepo he
    complete_line hgxrepo help sy
    complete_line hgxrepo -r "$3" show ""
    complete_line hgxrepo setprop wrn:/a:b/g/p -t net_address_v
    complete_line hgxrepo import --
    complete_line hgxrepo sync --on
    complete_line hgxrepo -r "$3" diff wrn:/network/h
    complete_line kelvo -f ""
    complete_line kelvo -
    complete_line kelvo -S "$4" -i res
    complete_line kelvo-diff -
    complete_line kelvo-lint -
    complete_line kelvo-lint -f wrn:/sys
    complete_line kelvo-apply --d
' sh "$C" "$BASH_COMPLETION" "$T/repo.db" "$SRC/examples/stencils")
want="hgxrepo : -r --help --version import export snapshot setprop delprop addpg delpg delete list show get copy diff sync grant upgrade hosts help
hgxrepo he: help
hgxrepo help sy: sync
hgxrepo -r $T/repo.db show : wrn:/network/http wrn:/network/http:default wrn:/network/resolver wrn:/network/resolver:default wrn:/system/timesync wrn:/system/timesync:default
hgxrepo setprop wrn:/a:b/g/p -t net_address_v: net_address_v4 net_address_v6
hgxrepo import --: --no-snapshot --help
hgxrepo sync --on: --once
hgxrepo -r $T/repo.db diff wrn:/network/h: /network/http /network/http:default
kelvo -f : wrn:/network/http:default wrn:/network/resolver:default wrn:/system/timesync:default
kelvo -: -a -D -f -g -i -l -L -m -o -O -p -R -S -u -x
kelvo -S $SRC/examples/stencils -i res: resolver.conf.stencil
kelvo-diff -: -f -R -S
kelvo-lint -: -a -D -f -i -S
kelvo-lint -f wrn:/sys: /system/timesync:default
kelvo-apply --d: --dry-run"
# Behind a colon only the rest of a wern is completed, as bash splits words
# at colons.
want=$(echo "$want" | sed 's/ *$//')
got=$(echo "$got" | sed 's/ *$//')
if [ "$got" != "$want" ]; then
    echo "FAIL: completions differ:" >&2
    echo "$want" >"$T/want"
    echo "$got" >"$T/got"
    diff "$T/want" "$T/got" >&2
    exit 1
fi
echo "completion: all checks passed"
