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
