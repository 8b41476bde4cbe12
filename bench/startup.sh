#!/bin/sh
# Start-up cost of kelvo: one run with a small stencil against an instance of
# 50 properties, in repositories of 10,000 and 1,000,000 properties, beside
# /bin/true.  kelvo reads only the instance it runs for, so the figure should
# barely move with the size of the repository.
#
#   sh bench/startup.sh [BUILD_DIR]
# The 1M repository is generated and imported once (that takes a while) and
# kept in BUILD_DIR/bench-work; FRESH=1 rebuilds it.  BENCH_RUNS sets the
# number of timed runs (default 50).
set -eu
. "$(dirname "$0")/common.sh"

echo "kelvo start-up: small stencil, instance of 50 properties"
measure "/bin/true" /bin/true
TRUE_MS=$MEAN_MS

for size in 10000 1000000; do
    manifest=$WORK/startup-$size.json
    gen_manifest "$size" "$manifest"
    make_repo "startup-$size" "$manifest"
    export HGX_REPOSITORY=$REPO_DB
    measure "kelvo, repository of $size properties" \
        "$KELVO -f wrn:/bench/target:default -S $STENCIL_DIR -i small.stencil"
    echo "    = $(ratio "$MEAN_MS" "$TRUE_MS") x /bin/true"
done
