#!/bin/sh
# The host's mirror (hgxrepo sync) against an etcd member started for the
# benchmark on 127.0.0.1 (stopped at the end):
#   - revisions applied per second: commits made while the mirror is
#     stopped, then applied one transaction each when it resumes;
#   - lag from a write in the cluster to the mirror, seen by kelvo runs,
#     for small revisions (one property) and large ones (an instance of
#     5,000 properties rewritten).
#
#   sh bench/sync.sh [BUILD_DIR]
set -eu
. "$(dirname "$0")/common.sh"

start_etcd sync
MIRROR=$WORK/mirror.db
URL=etcd://$ENDPOINT/bench-sync
rm -f "$MIRROR" "$MIRROR-wal" "$MIRROR-shm"

# instance COUNT GEN: a manifest of wrn:/bench/sync:default with COUNT
# properties of generation GEN.
instance() {
    awk -v n="$1" -v g="$2" 'BEGIN {
        printf "{\"services\": {\"bench/sync\": {\"instances\": {\"default\": {\"groups\": {\"config\": {\"properties\": {"
        for (i = 0; i < n; i++) printf "%s\"p%d\": \"g%d\"", (i ? ", " : ""), i, g
        printf "}}}}}}}}\n" }'
}

"$HGXREPO" -r "$URL" import - <<EOF_M >/dev/null
$(instance 10 0)
EOF_M
"$HGXREPO" -r "$MIRROR" sync --once "$URL" 2>/dev/null

# mirrored VALUE: the mirror's p0 reads VALUE
mirrored() {
    [ "$(HGX_REPOSITORY=$MIRROR "$KELVO" -f wrn:/bench/sync:default 2>/dev/null <<'S'
$%{config/p0}
S
)" = "$1" ]
}

N=${SYNC_REVISIONS:-200}
echo "revisions applied per second ($N revisions of one property each)"
i=1
while [ "$i" -le "$N" ]; do
    "$HGXREPO" -r "$URL" setprop --snapshot wrn:/bench/sync:default/:properties/config/p0 "r$i" 2>/dev/null
    i=$((i + 1))
done
t0=$(now_ms)
start_sync
# Every 20 ms: a kelvo run costs a few ms of processor time, which on a
# loaded machine the mirror would otherwise share.
until mirrored "r$N"; do sleep 0.02; done
t1=$(now_ms)
stop_sync
awk -v n="$N" -v ms=$((t1 - t0)) 'BEGIN { printf "  %d revisions in %d ms = %.0f revisions/s (start-up included)\n", n, ms, n * 1000 / ms }'

# The same again under strace, untimed: the connections the mirror makes and
# the opens of its file while it applies them (one writer for its life).
if command -v strace >/dev/null 2>&1; then
    M=${SYNC_TRACED:-40}
    i=1
    while [ "$i" -le "$M" ]; do
        "$HGXREPO" -r "$URL" setprop --snapshot wrn:/bench/sync:default/:properties/config/p0 "t$i" 2>/dev/null
        i=$((i + 1))
    done
    # The mirror (not strace) is stopped, so that strace ends with it.
    rm -f "$WORK/sync.pid"
    strace -f -qq -e trace=connect,openat,sendto -o "$WORK/sync-strace.txt" \
        sh -c 'echo $$ >"$0"; exec "$@"' "$WORK/sync.pid" "$HGXREPO" -r "$MIRROR" sync "$URL" \
        2>/dev/null &
    TRACER=$!
    until mirrored "t$M"; do sleep 0.01; done
    kill "$(cat "$WORK/sync.pid")"
    wait "$TRACER" || true
    connects=$(grep -c ' connect(' "$WORK/sync-strace.txt" || true)
    opens=$(grep -c "openat([^,]*, \"$MIRROR\"," "$WORK/sync-strace.txt" || true)
    printf '  while applying %d revisions: %d connections, %d opens of the mirror file (strace)\n' \
        "$M" "$connects" "$opens"
    # The watch's stream keeps a connection to itself; every other request
    # of the mirror's life shares the connections kept by its client.
    requests=$(grep -c 'sendto(.*"POST /v3/' "$WORK/sync-strace.txt" || true)
    watches=$(grep -c 'sendto(.*"POST /v3/watch' "$WORK/sync-strace.txt" || true)
    printf '  %d requests over those connections, %d of them a watch\n' "$requests" "$watches"
fi

start_sync
sleep 0.5
lag() { # LABEL COUNT: mean lag over LAG_RUNS writes of COUNT properties
    runs=${LAG_RUNS:-10}
    total=0
    k=1
    while [ "$k" -le "$runs" ]; do
        gen=$((k + 1000 * $2))
        instance "$2" "$gen" > "$WORK/sync-gen.json"
        "$HGXREPO" -r "$URL" import "$WORK/sync-gen.json"
        t0=$(now_ms)
        until mirrored "g$gen"; do sleep 0.002; done
        t1=$(now_ms)
        total=$((total + t1 - t0))
        k=$((k + 1))
    done
    printf '  %-42s %6d ms mean lag (%d writes; kelvo polling included)\n' "$1" $((total / runs)) "$runs"
}
echo "lag from a write in the cluster to the mirror"
lag "small revision (an instance of 10)" 10
lag "large revision (an instance of 5,000)" 5000
