# Shared helpers of the benchmark scripts; sourced, not run.
#
# Sets SRC, BUILD, KELVO, HGXREPO and WORK (BUILD/bench-work, where generated
# manifests and repositories are kept between runs; FRESH=1 rebuilds them),
# and provides:
#   measure LABEL [--prepare CMD] CMD   mean wall time of CMD, in ms, into $MEAN_MS
#                                       (hyperfine if installed, else a loop)
#   ratio A B                           A / B with two decimals
#   per_item MS N                       MS / N, in microseconds
#   make_repo NAME MANIFEST             imports MANIFEST into WORK/NAME.db once
#   gen_manifest TOTAL OUT              the start-up benchmarks' repository
#   side_by_side LABEL CMD ...          commands timed in turn, medians side by side
#   count_writes LABEL PROGRAM ARG...   the write system calls of one run
#   start_etcd NAME [MEMBERS]           a cluster of the tests' fixture, stopped on exit
#   start_sync / stop_sync              a mirror of URL in MIRROR, in the background
#   now_ms                              the clock, in milliseconds
# and STENCIL_DIR with small.stencil, their stencil.

. "$(dirname "$0")/../scripts/binaries.sh"
locate_binaries bench "${1:-build}"
WORK=$BUILD/bench-work
mkdir -p "$WORK"

# Runs per measurement; BENCH_RUNS overrides.
RUNS=${BENCH_RUNS:-50}

# BENCH_NO_HYPERFINE=1 uses the plain timing loop even where hyperfine exists.
if [ "${BENCH_NO_HYPERFINE:-0}" != 1 ] && command -v hyperfine >/dev/null 2>&1; then
    HAVE_HYPERFINE=1
else
    HAVE_HYPERFINE=0
fi

# measure LABEL [--prepare CMD] CMD
# CMD is a shell command line.  Its output is discarded.  With hyperfine a
# command without shell syntax runs without an intermediate shell (-N), so
# that short runs are not drowned in the shell's own start-up; otherwise
# hyperfine subtracts the shell's cost itself.  Without hyperfine each run is
# timed with date +%s%N (which adds the cost of two date processes to each
# figure), the prepare step outside the timed part.
measure() {
    label=$1; shift
    prepare=""
    if [ "$1" = "--prepare" ]; then prepare=$2; shift 2; fi
    cmd=$1
    case $cmd in
        *'|'*|*'>'*|*'<'*|*';'*|*'&'*|*'$'*) shell_opt="" ;;
        *) shell_opt="-N" ;;
    esac
    if [ "$HAVE_HYPERFINE" = 1 ]; then
        json=$WORK/hyperfine.json
        if [ -n "$prepare" ]; then
            hyperfine $shell_opt --style none --warmup 3 --runs "$RUNS" \
                --prepare "$prepare" --export-json "$json" "$cmd" >/dev/null 2>&1 ||
                { echo "bench: command failed: $cmd" >&2; exit 1; }
        else
            hyperfine $shell_opt --style none --warmup 3 --runs "$RUNS" \
                --export-json "$json" "$cmd" >/dev/null 2>&1 ||
                { echo "bench: command failed: $cmd" >&2; exit 1; }
        fi
        MEAN_MS=$(jq -r '.results[0].mean * 1000' "$json" 2>/dev/null ||
                  python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["results"][0]["mean"]*1000)' "$json")
        sd=$(jq -r '.results[0].stddev * 1000' "$json" 2>/dev/null || echo 0)
    else
        total=0
        i=0
        while [ "$i" -lt "$RUNS" ]; do
            [ -n "$prepare" ] && sh -c "$prepare" >/dev/null 2>&1
            t0=$(date +%s%N)
            if [ -n "$shell_opt" ]; then
                # no shell syntax: run it directly, split at blanks, unglobbed
                set -f
                $cmd >/dev/null 2>&1 || { set +f; echo "bench: command failed: $cmd" >&2; exit 1; }
                set +f
            else
                sh -c "$cmd" >/dev/null 2>&1 || { echo "bench: command failed: $cmd" >&2; exit 1; }
            fi
            t1=$(date +%s%N)
            total=$((total + t1 - t0))
            i=$((i + 1))
        done
        MEAN_MS=$(awk -v t="$total" -v n="$RUNS" 'BEGIN { printf "%.4f", t / n / 1e6 }')
        sd=0
    fi
    printf '  %-52s %10.3f ms  (± %.3f, %s runs)\n' "$label" "$MEAN_MS" "$sd" "$RUNS"
}

ratio() {
    awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "n/a" }'
}

per_item() {
    awk -v ms="$1" -v n="$2" 'BEGIN { if (n > 0) printf "%.3f", ms * 1000 / n; else print "n/a" }'
}

# make_repo NAME MANIFEST: WORK/NAME.db from MANIFEST, kept between runs
# unless FRESH=1 or the manifest is newer than the repository.
make_repo() {
    db=$WORK/$1.db
    if [ "${FRESH:-0}" = 1 ] || [ ! -s "$db" ] || [ "$2" -nt "$db" ]; then
        rm -f "$db" "$db-wal" "$db-shm"
        t0=$(date +%s%N)
        "$HGXREPO" -r "$db" import "$2" || { echo "bench: import of $2 failed" >&2; exit 1; }
        t1=$(date +%s%N)
        printf '  (imported %s in %.1f s)\n' "$1" "$(awk -v t=$((t1 - t0)) 'BEGIN { print t / 1e9 }')"
    fi
    REPO_DB=$db
}

# side_by_side LABEL CMD [LABEL CMD]...
# Wall time of each CMD (a program and its arguments, split at blanks, no
# shell, optionally behind NAME=VALUE settings of its environment), with the
# commands run in turn so that the machine's load falls on all of them alike
# (bench/spawn_time.cpp), BENCH_RUNS runs each (default 500 here). Prints the
# median and fastest run of each, its median processor time and page faults,
# and its median over the first command's; with SECOND_REF=N also over the
# Nth's. The medians go into $MEDIAN_1, $MEDIAN_2, ..., the processor times
# into $CPU_1, $CPU_2, ... and the page faults into $FAULTS_1, ...
side_by_side() {
    timer=$BUILD/bench/spawn_time
    [ -x "$timer" ] || { echo "bench: $timer is missing; build first (make build)" >&2; exit 1; }
    : >"$WORK/labels"
    n=$#
    odd=1
    for arg in "$@"; do
        if [ "$odd" = 1 ]; then printf '%s\n' "$arg" >>"$WORK/labels"; else set -- "$@" "$arg"; fi
        odd=$((1 - odd))
    done
    shift "$n"
    "$timer" "${BENCH_RUNS:-500}" "$@" >"$WORK/figures" || { echo "bench: a command failed" >&2; exit 1; }
    first=$(sed -n '1s/ .*//p' "$WORK/figures")
    ref1=$(sed -n 1p "$WORK/labels")
    second=""
    if [ -n "${SECOND_REF:-}" ]; then
        second=$(sed -n "${SECOND_REF}s/ .*//p" "$WORK/figures")
        ref2=$(sed -n "${SECOND_REF}p" "$WORK/labels")
    fi
    i=1
    while read -r median mean fastest cpu faults; do
        label=$(sed -n "${i}p" "$WORK/labels")
        line=$(printf '  %-36s %7.3f ms (fastest %6.3f, cpu %6.3f, %4d faults)  = %s x %s' \
            "$label" "$median" "$fastest" "$cpu" "$faults" "$(ratio "$median" "$first")" "$ref1")
        [ -n "$second" ] && line="$line, $(ratio "$median" "$second") x $ref2"
        printf '%s\n' "$line"
        eval "MEDIAN_$i=$median CPU_$i=$cpu FAULTS_$i=$faults"
        i=$((i + 1))
    done <"$WORK/figures"
}

# count_writes LABEL PROGRAM [ARG]...
# Every system call of one run of PROGRAM that writes or changes a file
# (write, pwrite64, writev, ftruncate, fchown, fchmod and their kin, on any
# descriptor, in every thread), counted with strace: "LABEL: N" and the
# count of each call. The count goes into $WRITES.
WRITE_CALLS=write,pwrite64,pwritev,pwritev2,writev,ftruncate,truncate,fchown,fchownat,chown,lchown,fchmod,fchmodat,chmod
count_writes() {
    label=$1
    shift
    if ! command -v strace >/dev/null 2>&1; then
        printf '  %-44s (strace is not installed)\n' "$label:"
        WRITES=""
        return 0
    fi
    strace -f -qq -e trace="$WRITE_CALLS" -o "$WORK/strace.txt" "$@" >/dev/null 2>&1 ||
        { echo "bench: failed under strace: $*" >&2; exit 1; }
    WRITES=$(grep -Evc 'resumed>|^[0-9]+ +\+\+\+' "$WORK/strace.txt" || true)
    calls=$(grep -Ev 'resumed>|^[0-9]+ +\+\+\+' "$WORK/strace.txt" |
        sed -n 's/^[0-9]* *\([a-z0-9_]*\)(.*/\1/p' | sort | uniq -c |
        awk '{ printf "%s%s %s", (NR > 1 ? ", " : ""), $2, $1 }')
    printf '  %-44s %d%s\n' "$label:" "$WRITES" "${calls:+ ($calls)}"
}

# gen_manifest TOTAL OUT: the instance wrn:/bench/target:default with 50
# properties, and TOTAL - 50 more in services bench/fill_<n>, 1,000 each.
gen_manifest() {
    [ "${FRESH:-0}" != 1 ] && [ -s "$2" ] && return 0
    awk -v total="$1" 'BEGIN {
        printf "{\"services\": {\n"
        printf "\"bench/target\": {\"instances\": {\"default\": {\"groups\": {\n"
        printf "  \"general\": {\"type\": \"framework\", \"properties\": {\"enabled\": true}},\n"
        printf "  \"config\": {\"properties\": {"
        for (i = 0; i < 49; i++)
            printf "%s\"p%d\": \"value-%d\"", (i ? ", " : ""), i, i
        printf "}}}}}}"
        left = total - 50
        s = 0
        while (left > 0) {
            n = left < 1000 ? left : 1000
            printf ",\n\"bench/fill_%d\": {\"instances\": {\"default\": {\"groups\": {\"data\": {\"properties\": {", s
            for (i = 0; i < n; i++)
                printf "%s\"p%d\": \"filler value %d\"", (i ? ", " : ""), i, i
            printf "}}}}}}"
            left -= n
            s++
        }
        printf "\n}}\n"
    }' > "$2"
}

STENCIL_DIR=$WORK/stencils
mkdir -p "$STENCIL_DIR"
cat > "$STENCIL_DIR/small.stencil" <<'STENCIL'
; a small stencil: a few references, one section
# $%f
listen $%{config/p1}:$%{config/port}$%{config/port:-8080}
hosts $%{config/p3:,,}
$%/config/p(4[0-9])/ {opt$%1 = $%{config/p$%1}
}
STENCIL

# start_etcd NAME [MEMBERS]: an etcd cluster on 127.0.0.1 started by the
# tests' fixture in WORK/etcd-NAME (ETCD_DIR), ENDPOINT its first member's
# address. On exit the mirror of start_sync and every process in PIDS are
# ended first, then the cluster.
start_etcd() {
    FIXTURE=$BUILD/tests/etcd_fixture
    [ -x "$FIXTURE" ] || { echo "bench: $FIXTURE is not built (it comes with the tests)" >&2; exit 1; }
    ETCD_DIR=$WORK/etcd-$1
    SYNC_PID=""
    PIDS=""
    "$FIXTURE" start "$ETCD_DIR" ${2:-} >/dev/null || { echo "bench: etcd did not start" >&2; exit 1; }
    trap stop_etcd EXIT
    trap 'exit 1' INT TERM
    ENDPOINT=$(cat "$ETCD_DIR/endpoint")
}
stop_etcd() {
    if [ -n "$SYNC_PID" ]; then kill "$SYNC_PID" 2>/dev/null && wait "$SYNC_PID" 2>/dev/null; fi
    for p in $PIDS; do kill "$p" 2>/dev/null || true; done
    for p in $PIDS; do wait "$p" 2>/dev/null || true; done
    "$FIXTURE" stop "$ETCD_DIR"
}

# start_sync: hgxrepo sync of URL into MIRROR in the background (SYNC_PID),
# its messages appended to SYNC_LOG (default: none); stop_sync ends it.
start_sync() {
    "$HGXREPO" -r "$MIRROR" sync "$URL" 2>>"${SYNC_LOG:-/dev/null}" &
    SYNC_PID=$!
}
stop_sync() { kill "$SYNC_PID"; wait "$SYNC_PID" || true; SYNC_PID=""; }

now_ms() { echo $(( $(date +%s%N) / 1000000 )); }
