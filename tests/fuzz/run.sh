#!/bin/sh
# Runs each fuzz target for a while: run.sh BUILD_DIR SECONDS [TARGET...]
# (targets: stencil manifest wern hgx_etcd_doc; all by default). New inputs go to
# BUILD_DIR/fuzz-corpus/TARGET (the checked-in seeds in tests/fuzz/corpus
# are only read), crashes to BUILD_DIR/fuzz-findings/, each target's log to
# BUILD_DIR/fuzz-TARGET.log. Ends with 1 if any target found something.
#
# The long runs, half an hour each, one after the other on a quiet machine:
#   make fuzz FUZZ_SECONDS=1800
# or, with the targets built (make fuzz FUZZ_SECONDS=0):
#   sh tests/fuzz/run.sh build-fuzz 1800
# A finding is replayed by running the target on the file alone:
#   build-fuzz/tests/fuzz/fuzz_manifest build-fuzz/fuzz-findings/manifest-crash-...
set -u
build=$1
seconds=$2
shift 2
here=$(cd "$(dirname "$0")" && pwd)
targets=${*:-"stencil manifest wern hgx_etcd_doc hgx_http"}
status=0
mkdir -p "$build/fuzz-findings"
for t in $targets; do
    corpus="$build/fuzz-corpus/$t"
    mkdir -p "$corpus"
    dict=""
    [ -f "$here/$t.dict" ] && dict="-dict=$here/$t.dict"
    # Inputs up to well past the limits that matter: a value's 4096 bytes, a
    # wern's 1024, nesting deeper than a wern can name.
    case $t in
        wern) max_len=8192 ;;
        *) max_len=65536 ;;
    esac
    echo "== fuzz_$t: $seconds s"
    # -timeout: a single input that runs this long is a finding (a hang).
    # -rss_limit_mb: so is one that takes this much memory.
    # -len_control=100: grow the inputs towards max_len sooner.
    if ! "$build/tests/fuzz/fuzz_$t" $dict -max_total_time="$seconds" -timeout=20 \
        -rss_limit_mb=2048 -max_len="$max_len" -len_control=100 -print_final_stats=1 \
        -artifact_prefix="$build/fuzz-findings/$t-" "$corpus" "$here/corpus/$t" \
        >"$build/fuzz-$t.log" 2>&1; then
        status=1
        echo "fuzz_$t found a failure; see $build/fuzz-$t.log and $build/fuzz-findings/"
    fi
    grep -E "DONE|stat::number_of_executed_units|stat::peak_rss_mb|cov: " "$build/fuzz-$t.log" | tail -3
done
exit $status
