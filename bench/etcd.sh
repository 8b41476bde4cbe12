#!/bin/sh
# The repository in etcd, on members started for the benchmark on 127.0.0.1
# (stopped at the end): one speaking plain HTTP (etcd://, served by the lean
# client hgx-etcd.so) and one speaking only TLS with client certificates
# (etcds://, served by hgx-etcd-tls.so through libcurl):
#   - kelvo's start-up run of startup.sh against each cluster beside the
#     same run against the file (timed in turn, medians), for repositories
#     of 10,000 and 1,000,000 properties: reading one instance must not grow
#     with the cluster; and the writes and connections of a run, counted
#     with strace;
#   - copying those repositories into the cluster, and an import of 100,000
#     properties into it beside the same import into a file.
#
#   sh bench/etcd.sh [BUILD_DIR]
set -eu
. "$(dirname "$0")/common.sh"

FIXTURE=$BUILD/tests/etcd_fixture
[ -x "$FIXTURE" ] || { echo "bench: $FIXTURE is not built (it comes with the tests)" >&2; exit 1; }
ETCD_DIR=$WORK/etcd
TLS_DIR=$WORK/etcd-tls
"$FIXTURE" start "$ETCD_DIR" >/dev/null || { echo "bench: etcd did not start" >&2; exit 1; }
trap '"$FIXTURE" stop "$ETCD_DIR"; "$FIXTURE" stop "$TLS_DIR"' EXIT
trap 'exit 1' INT TERM
"$FIXTURE" start "$TLS_DIR" 1 tls >/dev/null || { echo "bench: etcd with TLS did not start" >&2; exit 1; }
ENDPOINT=$(cat "$ETCD_DIR/endpoint")
TLS_ENDPOINT=$(cat "$TLS_DIR/endpoint")
TLS_ENV="HGX_ETCD_CACERT=$TLS_DIR/data/ca.pem HGX_ETCD_CERT=$TLS_DIR/data/client.pem HGX_ETCD_KEY=$TLS_DIR/data/client.key"

seconds() { # COMMAND...: runs it, prints its wall time in seconds into $SECS
    t0=$(date +%s%N)
    "$@" >/dev/null || { echo "bench: failed: $*" >&2; exit 1; }
    t1=$(date +%s%N)
    SECS=$(awk -v t=$((t1 - t0)) 'BEGIN { printf "%.2f", t / 1e9 }')
}

ARGS="-f wrn:/bench/target:default -S $STENCIL_DIR -i small.stencil"
OUT=$WORK/etcd-run.conf
echo "kelvo, small stencil, instance of 50 properties: file beside etcd:// and etcds:// (load: $(cut -d' ' -f1-3 /proc/loadavg))"
for size in 10000 1000000; do
    manifest=$WORK/startup-$size.json
    gen_manifest "$size" "$manifest"
    make_repo "startup-$size" "$manifest"
    url=etcd://$ENDPOINT/bench-$size
    tls_url=etcds://$TLS_ENDPOINT/bench-$size
    seconds "$HGXREPO" -r "$REPO_DB" copy "$url"
    plain_secs=$SECS
    seconds env $TLS_ENV "$HGXREPO" -r "$REPO_DB" copy "$tls_url"
    echo " repository of $size properties (copied into etcd in $plain_secs s, with TLS in $SECS s):"
    HGX_REPOSITORY=$REPO_DB "$KELVO" $ARGS -o "$OUT.file"
    HGX_REPOSITORY=$url "$KELVO" $ARGS -o "$OUT.etcd"
    env $TLS_ENV HGX_REPOSITORY="$tls_url" "$KELVO" $ARGS -o "$OUT.etcds"
    SECOND_REF=2 BENCH_RUNS=${BENCH_RUNS:-200} side_by_side \
        /bin/true /bin/true \
        "file" "HGX_REPOSITORY=$REPO_DB $KELVO $ARGS -o $OUT.file" \
        "etcd:// (hgx-etcd.so)" "HGX_REPOSITORY=$url $KELVO $ARGS -o $OUT.etcd" \
        "etcds:// (hgx-etcd-tls.so, libcurl)" "$TLS_ENV HGX_REPOSITORY=$tls_url $KELVO $ARGS -o $OUT.etcds"
    printf '    etcd:// = %s x the file (median), %s x (cpu); etcds:// = %s x, %s x (cpu)\n' \
        "$(ratio "$MEDIAN_3" "$MEDIAN_2")" "$(ratio "$CPU_3" "$CPU_2")" \
        "$(ratio "$MEDIAN_4" "$MEDIAN_2")" "$(ratio "$CPU_4" "$CPU_2")"
done
echo "system calls that write or change a file, in one run on etcd (strace):"
count_writes "output file unchanged" env HGX_REPOSITORY="$url" "$KELVO" $ARGS -o "$OUT.etcd"
if command -v strace >/dev/null 2>&1; then
    # What a run loads and asks: shared objects opened, connections, and the
    # requests where they can be read (not through TLS).
    echo "what one run loads and asks (strace):"
    for where in file etcd etcds; do
        case $where in
            file) run_env="HGX_REPOSITORY=$REPO_DB" ;;
            etcd) run_env="HGX_REPOSITORY=$url" ;;
            etcds) run_env="$TLS_ENV HGX_REPOSITORY=$tls_url" ;;
        esac
        # The settings through strace itself, so that no env(1) is counted.
        settings=""
        for setting in $run_env; do settings="$settings -E $setting"; done
        strace -f -qq $settings -e trace=openat,connect,sendto -o "$WORK/etcd-strace.txt" \
            "$KELVO" $ARGS -o "$OUT.$where" >/dev/null 2>&1 ||
            { echo "bench: failed under strace: $where" >&2; exit 1; }
        objects=$(grep -v ENOENT "$WORK/etcd-strace.txt" | grep -cE 'openat\([^"]*"[^"]*\.so(\.[0-9]+)*"' || true)
        connects=$(grep -c ' connect(' "$WORK/etcd-strace.txt" || true)
        requests=$(grep -c 'POST /v3/' "$WORK/etcd-strace.txt" || true)
        [ "$where" = etcds ] && requests="(encrypted)"
        printf '  %-10s %3d shared objects, %d connections, requests: %s\n' \
            "$where:" "$objects" "$connects" "$requests"
    done
fi

echo "import of 100,000 properties"
manifest=$WORK/startup-100000.json
gen_manifest 100000 "$manifest"
rm -f "$WORK/import.db" "$WORK/import.db-wal" "$WORK/import.db-shm"
seconds "$HGXREPO" -r "$WORK/import.db" import "$manifest"
echo "  file: $SECS s"
seconds "$HGXREPO" -r "etcd://$ENDPOINT/import-$$" import "$manifest"
echo "  etcd: $SECS s"
