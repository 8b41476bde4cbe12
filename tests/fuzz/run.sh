#!/bin/sh
# Runs each fuzz target for a while: run.sh BUILD_DIR SECONDS [TARGET...]
# New inputs go to BUILD_DIR/fuzz-corpus/TARGET (the checked-in seeds in
# tests/fuzz/corpus are only read), crashes to BUILD_DIR/fuzz-findings/.
# Ends with 1 if any target found something.
set -u
build=$1
seconds=$2
shift 2
here=$(cd "$(dirname "$0")" && pwd)
targets=${*:-"stencil manifest wern hgx_http"}
status=0
mkdir -p "$build/fuzz-findings"
for t in $targets; do
    corpus="$build/fuzz-corpus/$t"
    mkdir -p "$corpus"
    dict=""
    [ -f "$here/$t.dict" ] && dict="-dict=$here/$t.dict"
    echo "== fuzz_$t: $seconds s"
    # -timeout: a single input that runs this long is a finding (a hang).
    # -rss_limit_mb: so is one that takes this much memory.
    if ! "$build/tests/fuzz/fuzz_$t" $dict -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=2048 -max_len=4096 -print_final_stats=1 \
        -artifact_prefix="$build/fuzz-findings/$t-" "$corpus" "$here/corpus/$t" \
        >"$build/fuzz-$t.log" 2>&1; then
        status=1
        echo "fuzz_$t found a failure; see $build/fuzz-$t.log and $build/fuzz-findings/"
    fi
    grep -E "DONE|stat::number_of_executed_units|stat::peak_rss_mb" "$build/fuzz-$t.log"
done
exit $status
