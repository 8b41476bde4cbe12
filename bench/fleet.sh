#!/bin/sh
# A fleet on an etcd member started for the benchmark on 127.0.0.1 (stopped
# at the end): a service of FLEET_HOSTS (10,000) instances of 20 properties,
# beside a service of 10.
#   - hgxrepo setprop --snapshot on one instance of each, side by side (the
#     cost of a change must not grow with the size of its service);
#   - etcd revisions per such command;
#   - the bytes a running mirror reads from the cluster for that change (a
#     mirror of the whole service, and a host's mirror of its instance);
#   - the time of a first copy of the whole service;
#   - the lag from a change to its mirrors, 20 of them following at once.
#
#   sh bench/fleet.sh [BUILD_DIR]
set -eu
. "$(dirname "$0")/common.sh"

command -v etcdctl >/dev/null || { echo "bench: etcdctl is missing (etcd-client)" >&2; exit 1; }
start_etcd fleet
FLEET_DIR=$WORK/fleet
URL=etcd://$ENDPOINT/bench-fleet
rm -rf "$FLEET_DIR"
mkdir -p "$FLEET_DIR"
HOSTS=${FLEET_HOSTS:-10000}

revision() {
    ETCDCTL_API=3 etcdctl --endpoints="$ENDPOINT" get nothing -w json |
        sed 's/.*"revision":\([0-9]*\).*/\1/'
}
# manifest SERVICE COUNT: own groups of 20 defaults, COUNT instances host00000...
# of 20 properties each.
manifest() {
    awk -v svc="$1" -v n="$2" 'BEGIN {
        printf "{\"services\": {\"%s\": {\"groups\": {\"config\": {\"properties\": {", svc
        for (i = 0; i < 20; i++) printf "%s\"d%d\": \"default %d\"", (i ? ", " : ""), i, i
        printf "}}}, \"instances\": {"
        for (k = 0; k < n; k++) {
            printf "%s\"host%05d\": {\"groups\": {\"config\": {\"properties\": {", (k ? ", " : ""), k
            for (i = 0; i < 20; i++)
                printf "%s\"p%d\": \"value %d of host %05d\"", (i ? ", " : ""), i, i, k
            printf "}}}}"
        }
        printf "}}}}\n" }'
}

manifest bench/fleet "$HOSTS" >"$FLEET_DIR/fleet.json"
manifest bench/small 10 >"$FLEET_DIR/small.json"
t0=$(now_ms)
"$HGXREPO" -r "$URL" import "$FLEET_DIR/fleet.json"
t1=$(now_ms)
"$HGXREPO" -r "$URL" import "$FLEET_DIR/small.json"
echo "a service of $HOSTS instances x 20 properties (imported in $((t1 - t0)) ms), one of 10"

echo "setprop --snapshot on one instance"
SET="$HGXREPO -r $URL setprop --snapshot"
side_by_side "service of 10 instances" "$SET wrn:/bench/small:host00003/:properties/config/p1 x" \
    "service of $HOSTS instances" "$SET wrn:/bench/fleet:host04242/:properties/config/p1 x"

echo "etcd revisions per command"
for svc in small fleet; do
    r0=$(revision)
    $SET "wrn:/bench/$svc:host00007/:properties/config/p2" "r$r0"
    r1=$(revision)
    printf '  %-44s %d\n' "setprop --snapshot, service bench/$svc" $((r1 - r0))
done

echo "first copy of the whole service by a mirror"
t0=$(now_ms)
"$HGXREPO" -r "$FLEET_DIR/whole.db" sync --once --service bench/fleet "$URL" 2>/dev/null
t1=$(now_ms)
printf '  %-44s %d ms\n' "$HOSTS instances" $((t1 - t0))

# follow NAME OPTIONS...: a mirror in the background, its log in NAME.log
# and a line with the time of each applied change in NAME.at.
follow() {
    name=$1
    shift
    HGX_SYNC_DEBUG=1 "$HGXREPO" -r "$FLEET_DIR/$name.db" sync "$@" \
        --exec "date +%s%N >> $FLEET_DIR/$name.at" "$URL" 2>"$FLEET_DIR/$name.log" &
    PIDS="$PIDS $!"
}
# started NAME: until the mirror NAME has copied or resumed, for at most a minute.
started() {
    tries=0
    until grep -q 'copied\|resuming' "$FLEET_DIR/$1.log" 2>/dev/null; do
        tries=$((tries + 1))
        [ "$tries" -lt 6000 ] || { echo "bench: the mirror $1 did not start" >&2; exit 1; }
        sleep 0.01
    done
}
# lines FILE: how many lines FILE has (0 when missing).
lines() { [ -f "$1" ] && wc -l <"$1" || echo 0; }
# wait_lines FILE N: until FILE has N lines, for at most a minute.
wait_lines() {
    tries=0
    while [ "$(lines "$1")" -lt "$2" ]; do
        tries=$((tries + 1))
        [ "$tries" -lt 6000 ] || { echo "bench: $1 never reached $2 lines" >&2; exit 1; }
        sleep 0.01
    done
}

echo "bytes a running mirror reads for one change of one instance"
follow whole --service bench/fleet
follow host --instance wrn:/bench/fleet:host04242
started whole
started host
before_whole=$(lines "$FLEET_DIR/whole.at")
before_host=$(lines "$FLEET_DIR/host.at")
$SET wrn:/bench/fleet:host04242/:properties/config/p3 changed
wait_lines "$FLEET_DIR/whole.at" $((before_whole + 1))
wait_lines "$FLEET_DIR/host.at" $((before_host + 1))
for name in whole host; do
    bytes=$(sed -n 's/.*applied revision [0-9]*: \([0-9]*\) bytes.*/\1/p' "$FLEET_DIR/$name.log" | tail -1)
    label="mirror of the whole service"
    [ "$name" = host ] && label="a host's mirror of its instance"
    printf '  %-44s %d bytes\n' "$label" "$bytes"
done

MIRRORS=20
ROUNDS=${FLEET_ROUNDS:-50}
echo "lag from a change to its mirrors ($MIRRORS mirrors of 20 instances, $ROUNDS changes)"
m=0
while [ "$m" -lt "$MIRRORS" ]; do
    follow "lag$m" --instance 'wrn:/bench/fleet:host000[01][0-9]'
    m=$((m + 1))
done
m=0
while [ "$m" -lt "$MIRRORS" ]; do
    started "lag$m"
    wait_lines "$FLEET_DIR/lag$m.at" 1
    m=$((m + 1))
done
: >"$FLEET_DIR/lags"
k=1
while [ "$k" -le "$ROUNDS" ]; do
    host=$(printf 'host%05d' $((k % 20)))
    start=$(date +%s%N)
    $SET "wrn:/bench/fleet:$host/:properties/config/p4" "round $k"
    m=0
    while [ "$m" -lt "$MIRRORS" ]; do
        wait_lines "$FLEET_DIR/lag$m.at" $((k + 1))
        at=$(tail -1 "$FLEET_DIR/lag$m.at")
        echo $(((at - start) / 1000000)) >>"$FLEET_DIR/lags"
        m=$((m + 1))
    done
    k=$((k + 1))
done
sort -n "$FLEET_DIR/lags" | awk '{ v[NR] = $1 } END {
    p50 = v[int((NR + 1) * 0.50)]; p99 = v[int(NR * 0.99 + 0.5)]
    printf "  %-44s p50 %d ms, p99 %d ms, max %d ms (%d samples, from the start of the command)\n",
        "lag", p50, p99, v[NR], NR }'
