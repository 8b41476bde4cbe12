#!/bin/sh
# Runs every benchmark in turn; each prints its own figures.
#
#   sh bench/run_all.sh [BUILD_DIR]       ("make bench" runs it)
set -eu
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD=${1:-build}
for b in startup properties sections; do
    printf '\n##### %s\n' "$b"
    sh "$HERE/$b.sh" "$BUILD"
done
if [ -e "$HERE/repo_scale" ]; then
    printf '\n##### repo_scale\n'
    if [ -x "$HERE/repo_scale" ]; then
        "$HERE/repo_scale" "$BUILD"
    else
        sh "$HERE/repo_scale" "$BUILD"
    fi
elif [ -e "$HERE/repo_scale.sh" ]; then
    printf '\n##### repo_scale\n'
    sh "$HERE/repo_scale.sh" "$BUILD"
fi
