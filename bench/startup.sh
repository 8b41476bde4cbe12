#!/bin/sh
# Start-up cost of kelvo: one run with a small stencil against an instance of
# 50 properties, in repositories of 10,000 and 1,000,000 properties, beside
# /bin/true.  kelvo reads only the instance it runs for, so the figure should
# barely move with the size of the repository.
#
#   sh bench/startup.sh [BUILD_DIR]
# The 1M repository is generated and imported once (that takes a while) and
# kept in BUILD_DIR/bench-work; FRESH=1 rebuilds it.  BENCH_RUNS sets the
# number of timed runs (default 500).  The installed kelvo (KELVO_INSTALLED,
# else the one on PATH) is measured in the same rounds.
set -eu
. "$(dirname "$0")/common.sh"

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

# The installed kelvo runs beside the build tree's: KELVO_INSTALLED, else the
# kelvo on PATH.
INSTALLED=${KELVO_INSTALLED:-$(command -v kelvo || true)}

echo "kelvo start-up: small stencil, instance of 50 properties"
for size in 10000 1000000; do
    manifest=$WORK/startup-$size.json
    gen_manifest "$size" "$manifest"
    make_repo "startup-$size" "$manifest"
    export HGX_REPOSITORY=$REPO_DB
    args="-f wrn:/bench/target:default -S $STENCIL_DIR -i small.stencil"
    echo " repository of $size properties:"
    if [ -n "$INSTALLED" ]; then
        side_by_side /bin/true /bin/true "kelvo, build tree" "$KELVO $args" \
            "kelvo, installed ($INSTALLED)" "$INSTALLED $args"
    else
        side_by_side /bin/true /bin/true "kelvo, build tree" "$KELVO $args"
        echo "  (no installed kelvo on PATH; KELVO_INSTALLED names one)"
    fi
done
