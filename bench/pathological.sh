#!/bin/sh
# Stencils that once took the machine's memory, hung or crashed, timed beside
# an ordinary stencil on the same small instance. Each now ends promptly:
# with no text for a pattern too costly to compile, "Out of memory" for
# nesting deeper than the stack, the replaced value for a many-star glob.
#
#   sh bench/pathological.sh [BUILD_DIR]
set -eu
. "$(dirname "$0")/common.sh"

D=$WORK/pathological
mkdir -p "$D"
RUNS=${BENCH_RUNS:-10}

MANIFEST=$D/manifest.json
cat > "$MANIFEST" <<'JSON'
{"services": {"bench/patho": {"instances": {"default": {"groups": {
  "config": {"properties": {"host": "h1", "port": 80, "user": "www",
    "name": "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"}},
  "net": {"properties": {"a": "1", "b": "2", "c": "3"}}}}}}}}
JSON
make_repo pathological "$MANIFEST"
export HGX_REPOSITORY=$REPO_DB

# repeat TEXT N
repeat() { awk -v s="$1" -v n="$2" 'BEGIN { for (i = 0; i < n; i++) printf "%s", s }'; }

printf 'host=$%%{config/host} port=$%%{config/port:-8080}\n$%%/net/(.*)/ {$%%1=$%%{net/$%%1}\n}' \
    > "$D/ordinary.stencil"
printf '$%%/config/a%s/ {x}' "$(repeat '{1,9}' 8)" > "$D/stacked_intervals.stencil"
printf '$%%/config/%sa%s/ {x}' "$(repeat '(' 20)" "$(repeat ')+' 20)" > "$D/nested_plus.stencil"
printf '$%%/config/a%s/ {x}' "$(repeat '+' 30)" > "$D/stacked_plus.stencil"
printf '$%%/config/(\\\\b|\\\\B|^|$)*/ {x}' > "$D/looped_anchors.stencil"
printf '%sx%s' "$(repeat '$%{config/name:+' 15000)" "$(repeat '}' 15000)" > "$D/nested_15k.stencil"
printf '%sx%s' "$(repeat '$%{config/name:+' 1000000)" "$(repeat '}' 1000000)" > "$D/nested_1m.stencil"
printf "\$%%{config/name:'*a*a*a*a*a*a*a*a*a*a*b/X}" > "$D/ten_stars.stencil"

run() { measure "$1" "$KELVO -f wrn:/bench/patho:default -S $D -i $2.stencil || true"; }
echo "Each run is a whole kelvo process (start-up included):"
run "ordinary stencil (2 properties, 1 section)" ordinary
run "a{1,9} stacked 8 times (refused: no text)" stacked_intervals
run "20 nested (...)+ (refused: no text)" nested_plus
run "30 stacked + (refused: no text)" stacked_plus
run "(\\b|\\B|^|\$)* (refused: no text)" looped_anchors
run "15,000 nested operands" nested_15k
run "1,000,000 nested operands (Out of memory)" nested_1m
run "ten non-trailing stars on 60 bytes" ten_stars
