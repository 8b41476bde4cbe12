#!/bin/sh
# The repository in etcd, on a member started for the benchmark on
# 127.0.0.1 (stopped at the end):
#   - kelvo's start-up run of startup.sh against the cluster beside the same
#     run against the file (timed in turn, medians), for repositories of
#     10,000 and 1,000,000 properties: reading one instance must not grow
#     with the cluster; and the writes of a run, counted with strace;
#   - copying those repositories into the cluster, and an import of 100,000
#     properties into it beside the same import into a file.
#
#   sh bench/etcd.sh [BUILD_DIR]
set -eu
. "$(dirname "$0")/common.sh"

FIXTURE=$BUILD/tests/etcd_fixture
[ -x "$FIXTURE" ] || { echo "bench: $FIXTURE is not built (it comes with the tests)" >&2; exit 1; }
ETCD_DIR=$WORK/etcd
"$FIXTURE" start "$ETCD_DIR" >/dev/null || { echo "bench: etcd did not start" >&2; exit 1; }
trap '"$FIXTURE" stop "$ETCD_DIR"' EXIT
trap 'exit 1' INT TERM
ENDPOINT=$(cat "$ETCD_DIR/endpoint")

seconds() { # COMMAND...: runs it, prints its wall time in seconds into $SECS
    t0=$(date +%s%N)
    "$@" >/dev/null || { echo "bench: failed: $*" >&2; exit 1; }
    t1=$(date +%s%N)
    SECS=$(awk -v t=$((t1 - t0)) 'BEGIN { printf "%.2f", t / 1e9 }')
}

ARGS="-f wrn:/bench/target:default -S $STENCIL_DIR -i small.stencil"
OUT=$WORK/etcd-run.conf
echo "kelvo, small stencil, instance of 50 properties: file beside etcd (load: $(cut -d' ' -f1-3 /proc/loadavg))"
for size in 10000 1000000; do
    manifest=$WORK/startup-$size.json
    gen_manifest "$size" "$manifest"
    make_repo "startup-$size" "$manifest"
    url=etcd://$ENDPOINT/bench-$size
    seconds "$HGXREPO" -r "$REPO_DB" copy "$url"
    echo " repository of $size properties (copied into etcd in $SECS s):"
    HGX_REPOSITORY=$REPO_DB "$KELVO" $ARGS -o "$OUT.file"
    HGX_REPOSITORY=$url "$KELVO" $ARGS -o "$OUT.etcd"
    BENCH_RUNS=${BENCH_RUNS:-200} side_by_side \
        /bin/true /bin/true \
        "file" "HGX_REPOSITORY=$REPO_DB $KELVO $ARGS -o $OUT.file" \
        "etcd" "HGX_REPOSITORY=$url $KELVO $ARGS -o $OUT.etcd"
    printf '    etcd = %s x the file (median), %s x (cpu)\n' "$(ratio "$MEDIAN_3" "$MEDIAN_2")" \
        "$(ratio "$CPU_3" "$CPU_2")"
done
echo "system calls that write or change a file, in one run on etcd (strace):"
count_writes "output file unchanged" env HGX_REPOSITORY="$url" "$KELVO" $ARGS -o "$OUT.etcd"

echo "import of 100,000 properties"
manifest=$WORK/startup-100000.json
gen_manifest 100000 "$manifest"
rm -f "$WORK/import.db" "$WORK/import.db-wal" "$WORK/import.db-shm"
seconds "$HGXREPO" -r "$WORK/import.db" import "$manifest"
echo "  file: $SECS s"
seconds "$HGXREPO" -r "etcd://$ENDPOINT/import-$$" import "$manifest"
echo "  etcd: $SECS s"
