#!/bin/sh
# Runs every benchmark in turn; each prints its own figures.
#
#   sh bench/run_all.sh [BUILD_DIR]       ("make bench" runs it)
set -eu
HERE=$(cd "$(dirname "$0")" && pwd)
BUILD=${1:-build}
for b in startup properties sections pathological export etcd sync failover fleet; do
    printf '\n##### %s\n' "$b"
    sh "$HERE/$b.sh" "$BUILD"
done
printf '\n##### repo_scale\n'
sh "$HERE/repo_scale" "$BUILD"
