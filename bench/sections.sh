#!/bin/sh
# Regular expression sections: one section over instances of 1,000, 10,000
# and 100,000 properties, and two nested sections over 1,000; prints the time
# per match.
#
#   sh bench/sections.sh [BUILD_DIR]
set -eu
. "$(dirname "$0")/common.sh"

D=$WORK/sections
mkdir -p "$D"

# Instances k1, k10 and k100 of bench/sections, with 1k, 10k and 100k
# properties item<n> in the group data; instance nested with 1,000
# properties in 10 groups g<m> of 100.
MANIFEST=$D/manifest.json
if [ "${FRESH:-0}" = 1 ] || [ ! -s "$MANIFEST" ]; then
    awk 'BEGIN {
        printf "{\"services\": {\"bench/sections\": {\"instances\": {\n"
        split("1 10 100", ks, " ")
        for (t = 1; t <= 3; t++) {
            n = ks[t] * 1000
            printf "%s\"k%d\": {\"groups\": {\"data\": {\"properties\": {", (t > 1 ? ",\n" : ""), ks[t]
            for (i = 0; i < n; i++)
                printf "%s\"item%d\": \"value %d\"", (i ? ", " : ""), i, i
            printf "}}}}"
        }
        printf ",\n\"nested\": {\"groups\": {"
        for (g = 0; g < 10; g++) {
            printf "%s\"g%d\": {\"properties\": {", (g ? ", " : ""), g
            for (i = 0; i < 100; i++)
                printf "%s\"item%d\": \"value %d.%d\"", (i ? ", " : ""), i, g, i
            printf "}}"
        }
        printf "}}\n}}}}\n"
    }' > "$MANIFEST"
fi
make_repo sections "$MANIFEST"
export HGX_REPOSITORY=$REPO_DB

# One section over every property of the group data.
cat > "$D/one.stencil" <<'STENCIL'
$%/data/item([0-9]+)/ {$%1 = $%{data/item$%1}
}
STENCIL
# Nested, by group: the outer section visits the 10 groups, the inner one
# the 100 properties of each.
cat > "$D/groups.stencil" <<'STENCIL'
$%/(g[0-9]+)/ {[$%1]
$%/$%1/item([0-9]+)/ {  $%2 = $%{$%1/item$%2}
}}
STENCIL
# Nested, by property: the outer section visits 1,000 properties and the
# inner section picks the one it is on, so that the inner pattern is
# compiled and run over the instance 1,000 times.
cat > "$D/pairs.stencil" <<'STENCIL'
$%/data/item([0-9]+)/ {$%/data/item$%1/ {$%1 = $%{data/item$%1}
}}
STENCIL

echo "One section, one match per property (time per match includes start-up):"
for k in 1 10 100; do
    n=$((k * 1000))
    measure "section over $n properties" \
        "$KELVO -f wrn:/bench/sections:k$k -S $D -i one.stencil"
    echo "    = $(per_item "$MEAN_MS" "$n") us per match"
done

echo "Two nested sections over 1,000 properties:"
measure "10 groups x 100 properties" \
    "$KELVO -f wrn:/bench/sections:nested -S $D -i groups.stencil"
echo "    = $(per_item "$MEAN_MS" 1000) us per inner match"
measure "1,000 outer matches x 1 inner match each" \
    "$KELVO -f wrn:/bench/sections:k1 -S $D -i pairs.stencil"
echo "    = $(per_item "$MEAN_MS" 1000) us per outer match (each runs a section over 1,000 names)"
