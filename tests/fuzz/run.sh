#!/bin/sh
# Runs each fuzz target for a while: run.sh BUILD_DIR SECONDS [TARGET...]
# (targets: stencil manifest wern hgx_etcd_doc hgx_http; all by default).
# New inputs go to BUILD_DIR/fuzz-corpus/TARGET (the seeds in
# tests/fuzz/corpus are only read), crashes to BUILD_DIR/fuzz-findings/,
# logs to BUILD_DIR/fuzz-TARGET.log. Ends with 1 if any target found
# something. Long runs: make fuzz FUZZ_SECONDS=1800. A finding is replayed
# by running the target on the file alone.
set -u
build=$1
seconds=$2
shift 2
here=$(cd "$(dirname "$0")" && pwd)
targets=${*:-"stencil manifest wern hgx_etcd_doc hgx_http"}
status=0
mkdir -p "$build/fuzz-findings"
for t in $targets; do
    mkdir -p "$build/fuzz-corpus/$t"
    dict=""
    [ -f "$here/$t.dict" ] && dict="-dict=$here/$t.dict"
    # Inputs up to well past the limits that matter: a value's 4096 bytes, a
    # wern's 1024, nesting deeper than a wern can name.
    max_len=65536
    [ "$t" = wern ] && max_len=8192
    echo "== fuzz_$t: $seconds s"
    # A single input that runs 20 s or takes 2 GB is a finding (a hang, a
    # leak); -len_control=100 grows the inputs towards max_len sooner.
    if ! "$build/tests/fuzz/fuzz_$t" $dict -max_total_time="$seconds" -timeout=20 \
        -rss_limit_mb=2048 -max_len="$max_len" -len_control=100 -print_final_stats=1 \
        -artifact_prefix="$build/fuzz-findings/$t-" "$build/fuzz-corpus/$t" "$here/corpus/$t" \
        >"$build/fuzz-$t.log" 2>&1; then
        status=1
        echo "fuzz_$t found a failure; see $build/fuzz-$t.log and $build/fuzz-findings/"
    fi
    grep -E "DONE|stat::number_of_executed_units|stat::peak_rss_mb|cov: " "$build/fuzz-$t.log" | tail -3
done
exit $status
