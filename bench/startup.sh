#!/bin/sh
# Start-up cost of kelvo: one run with a small stencil (50 property
# references, one section) against an instance of 50 properties, in
# repositories of 10,000 and 1,000,000 properties, side by side with
# /bin/true and with the floor of such a run (bench/startup_floor.c: start,
# open the repository, one read, one write), wholly static and linked as
# kelvo is. kelvo reads only the instance it runs for, so the figures should
# barely move with the size of the repository. Then the system calls that
# write, counted with strace: none for a run whose output file is
# unchanged, and one write() for a file made anew. Beside the times, each
# program's page faults, relocations and instructions: what kelvo costs
# beyond the floor.
#
#   sh bench/startup.sh [BUILD_DIR]
# The 1M repository is generated and imported once (that takes a while) and
# kept in BUILD_DIR/bench-work; FRESH=1 rebuilds it.  BENCH_RUNS sets the
# number of timed runs (default 500).  The installed kelvo (KELVO_INSTALLED,
# else the one on PATH) is measured in the same rounds.
set -eu
. "$(dirname "$0")/common.sh"

# The installed kelvo runs beside the build tree's: KELVO_INSTALLED, else the
# kelvo on PATH.
INSTALLED=${KELVO_INSTALLED:-$(command -v kelvo || true)}
FLOOR=$BUILD/bench/startup_floor
FLOOR_STATIC=$BUILD/bench/startup_floor_static
[ -x "$FLOOR" ] || { echo "bench: $FLOOR is missing; build first (make build)" >&2; exit 1; }

echo "kelvo start-up: small stencil, instance of 50 properties (load: $(cut -d' ' -f1-3 /proc/loadavg))"
OUT=$WORK/startup.conf
for size in 10000 1000000; do
    manifest=$WORK/startup-$size.json
    gen_manifest "$size" "$manifest"
    make_repo "startup-$size" "$manifest"
    export HGX_REPOSITORY=$REPO_DB
    args="-f wrn:/bench/target:default -S $STENCIL_DIR -i small.stencil"
    "$KELVO" $args -o "$OUT"
    echo " repository of $size properties (output file unchanged):"
    set -- /bin/true /bin/true
    if [ -x "$FLOOR_STATIC" ]; then
        set -- "$@" "floor, static" "$FLOOR_STATIC $REPO_DB config p1"
        SECOND_REF=2
    else
        SECOND_REF=""
    fi
    set -- "$@" "floor, linked as kelvo" "$FLOOR $REPO_DB config p1" \
        "kelvo, build tree" "$KELVO $args -o $OUT"
    if [ -n "$INSTALLED" ]; then
        set -- "$@" "kelvo, installed" "$INSTALLED $args -o $WORK/startup-installed.conf"
        "$INSTALLED" $args -o "$WORK/startup-installed.conf"
    fi
    side_by_side "$@"
    [ -n "$INSTALLED" ] || echo "  (no installed kelvo on PATH; KELVO_INSTALLED names one)"
done

# Where a run goes beyond the floor: the dynamic loader's relocations (for
# every object it loads) and the instructions run (valgrind, where installed).
echo "one run each, repository of 1,000,000 properties: relocations (symbol + relative), instructions"
for program in static floor kelvo; do
    case $program in
        static) label="floor, static"; cmd="$FLOOR_STATIC $REPO_DB config p1" ;;
        floor) label="floor, linked as kelvo"; cmd="$FLOOR $REPO_DB config p1" ;;
        kelvo) label="kelvo"; cmd="$KELVO $args -o $OUT" ;;
    esac
    [ "$program" = static ] && [ ! -x "$FLOOR_STATIC" ] && continue
    relocations=$(LD_DEBUG=statistics $cmd 2>&1 >/dev/null |
        awk '/final number of relocations:/ { s = $NF } /number of relative relocations:/ { r += $NF }
             END { printf "%d + %d", s, r }')
    instructions="(valgrind is not installed)"
    if command -v valgrind >/dev/null 2>&1; then
        instructions=$(valgrind --tool=callgrind --callgrind-out-file=/dev/null $cmd 2>&1 >/dev/null |
            sed -n 's/.*Collected : *\([0-9]*\).*/\1/p' | awk '{ printf "%.2f M", $1 / 1e6 }')
    fi
    printf '  %-36s %-14s %s\n' "$label" "$relocations" "$instructions"
done

echo "system calls that write or change a file, in one run (strace):"
count_writes "output file unchanged" "$KELVO" $args -o "$OUT"
rm -f "$OUT"
count_writes "output file made anew" "$KELVO" $args -o "$OUT"
count_writes "to standard output" "$KELVO" $args
printf '  (the output: %d bytes)\n' "$(wc -c <"$OUT")"
