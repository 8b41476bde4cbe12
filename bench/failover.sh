#!/bin/sh
# A cluster of three members on 127.0.0.1 (stopped at the end), the URL
# naming member 1 first, while that member is healthy, hung (SIGSTOP: it
# accepts connections and never answers) or killed:
#   - a kelvo run, an hgxrepo write, an export and the hosts' table (read
#     page by page), healthy beside member 1 hung;
#   - a write to a cluster whose every member hangs: when it gives up;
#   - a running mirror (hgxrepo sync): from a write in the cluster to the
#     mirror, healthy, with the member its watch is on hung, and killed.
#
#   sh bench/failover.sh [BUILD_DIR]
set -eu
. "$(dirname "$0")/common.sh"

start_etcd failover 3
MIRROR=$WORK/failover-mirror.db
URL=etcd://$ENDPOINT/bench-failover
FIRST=$(head -n 1 "$ETCD_DIR/pid")
WERN=wrn:/bench/failover:default
rm -f "$MIRROR" "$MIRROR-wal" "$MIRROR-shm"
# generation GEN: the instance with p0 = gGEN
generation() {
    echo "{\"services\": {\"bench/failover\": {\"instances\": {\"default\": {\"groups\": {\"config\": {\"properties\": {\"p0\": \"g$1\"}}}}}}}}" |
        "$HGXREPO" -r "$URL" import - >/dev/null
}
generation 0
printf '$%%{config/p0}\n' > "$WORK/failover.stencil"
export HGX_REPOSITORY=$URL
RUN="$KELVO -f $WERN -S $WORK -i failover.stencil"
WRITE="$HGXREPO -r $URL setprop $WERN/:properties/config/p1 x"
EXPORT="$HGXREPO -r $URL export"
HOSTS="$HGXREPO -r $URL hosts"

RUNS=${BENCH_RUNS:-10}
echo "member 1 of 3 healthy beside hung ($RUNS runs each)"
measure "kelvo run, healthy" "$RUN"
HEALTHY=$MEAN_MS
measure "hgxrepo setprop, healthy" "$WRITE"
WRITE_HEALTHY=$MEAN_MS
measure "hgxrepo export, healthy" "$EXPORT"
EXPORT_HEALTHY=$MEAN_MS
measure "hgxrepo hosts, healthy" "$HOSTS"
HOSTS_HEALTHY=$MEAN_MS
kill -STOP "$FIRST"
measure "kelvo run, member 1 hung" "$RUN"
echo "    = $(ratio "$MEAN_MS" "$HEALTHY") x healthy"
measure "hgxrepo setprop, member 1 hung" "$WRITE"
echo "    = $(ratio "$MEAN_MS" "$WRITE_HEALTHY") x healthy"
measure "hgxrepo export, member 1 hung" "$EXPORT"
echo "    = $(ratio "$MEAN_MS" "$EXPORT_HEALTHY") x healthy"
measure "hgxrepo hosts, member 1 hung" "$HOSTS"
echo "    = $(ratio "$MEAN_MS" "$HOSTS_HEALTHY") x healthy"
kill -CONT "$FIRST"

echo "a write to a cluster whose every member hangs"
for pid in $(cat "$ETCD_DIR/pid"); do kill -STOP "$pid"; done
t0=$(now_ms)
$WRITE 2>/dev/null && { echo "bench: a write to a hung cluster succeeded" >&2; exit 1; }
t1=$(now_ms)
for pid in $(cat "$ETCD_DIR/pid"); do kill -CONT "$pid"; done
echo "  gave up after $((t1 - t0)) ms"

# caught_up GEN: ms from a write of generation GEN to the mirror showing it
caught_up() {
    sleep 1
    t0=$(now_ms)
    until generation "$1"; do sleep 0.1; done
    until [ "$(HGX_REPOSITORY=$MIRROR "$KELVO" -f "$WERN" -S "$WORK" -i failover.stencil 2>/dev/null)" = "g$1" ]; do
        sleep 0.01
    done
    t1=$(now_ms)
    echo $((t1 - t0))
}
# A mirror's watch starts on member 1, the first the URL names.
SYNC_LOG=$WORK/failover-sync.log
: > "$SYNC_LOG"
start_sync
caught_up 1 >/dev/null
echo "from a write to the mirror (the write included)"
echo "  healthy:                   $(caught_up 2) ms"
kill -STOP "$FIRST"
echo "  member 1, watched, hung:   $(caught_up 3) ms"
kill -CONT "$FIRST"
stop_sync
start_sync
caught_up 4 >/dev/null
kill -KILL "$FIRST"
echo "  member 1, watched, killed: $(caught_up 5) ms"
echo "  \"lost the cluster\" logged: $(grep -c "lost the cluster" "$SYNC_LOG" || true) times"
