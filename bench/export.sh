#!/bin/sh
# Export of one group of 10,000, 100,000 and 1,000,000 properties (import
# timed beside it): the time per property stays flat when the export is
# linear in the group's size.
#
#   sh bench/export.sh [BUILD_DIR]          SIZES="10000 100000" to pick
set -eu
. "$(dirname "$0")/common.sh"

SIZES=${SIZES:-"10000 100000 1000000"}
now() { date +%s%N; }
secs() { awk -v t="$1" 'BEGIN { printf "%.2f", t / 1e9 }'; }

printf '  %10s %12s %12s %16s %10s %12s\n' properties "import (s)" "export (s)" \
    "export/prop (us)" "x 1st" "manifest MB"
first=""
for n in $SIZES; do
    manifest=$WORK/export-$n.json
    if [ "${FRESH:-0}" = 1 ] || [ ! -s "$manifest" ]; then
        awk -v n="$n" 'BEGIN {
            printf "{\"services\": {\"bench/wide\": {\"instances\": {\"default\": {\"groups\": {\"config\": {\"properties\": {\n"
            for (i = 0; i < n; i++)
                printf "%s\"p%d\": \"value-%d\"", (i ? ",\n" : ""), i, i
            printf "\n}}}}}}}}\n"
        }' >"$manifest"
    fi
    db=$WORK/export-$n.db
    rm -f "$db" "$db-wal" "$db-shm"
    t0=$(now)
    "$HGXREPO" -r "$db" import --no-snapshot "$manifest"
    t1=$(now)
    "$HGXREPO" -r "$db" export >"$WORK/export-$n.out"
    t2=$(now)
    per=$(awk -v t=$((t2 - t1)) -v n="$n" 'BEGIN { printf "%.3f", t / 1e3 / n }')
    [ -z "$first" ] && first=$per
    mb=$(awk -v b="$(wc -c <"$WORK/export-$n.out")" 'BEGIN { printf "%.1f", b / 1048576 }')
    printf '  %10s %12s %12s %16s %10s %12s\n' "$n" "$(secs $((t1 - t0)))" "$(secs $((t2 - t1)))" \
        "$per" "$(ratio "$per" "$first")" "$mb"
    rm -f "$db" "$db-wal" "$db-shm" "$WORK/export-$n.out"
done
