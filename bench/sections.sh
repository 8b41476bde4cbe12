#!/bin/sh
# Regular expression sections: one section over instances of 1,000, 10,000
# and 100,000 properties, and two nested sections over 1,000, timed side by
# side (in turn, medians); prints the processor time per match, which stays
# flat as the instance grows when matching is linear, and the writes of a
# run that makes the output file.
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

OUT=$WORK/sections.out
echo "Sections (load: $(cut -d' ' -f1-3 /proc/loadavg)); time per match includes start-up:"
BENCH_RUNS=${BENCH_RUNS:-20} side_by_side \
    "section over 1,000 properties" "$KELVO -f wrn:/bench/sections:k1 -S $D -i one.stencil -o $OUT.1" \
    "section over 10,000 properties" "$KELVO -f wrn:/bench/sections:k10 -S $D -i one.stencil -o $OUT.10" \
    "section over 100,000 properties" "$KELVO -f wrn:/bench/sections:k100 -S $D -i one.stencil -o $OUT.100" \
    "10 groups x 100 properties" "$KELVO -f wrn:/bench/sections:nested -S $D -i groups.stencil" \
    "1,000 outer x 1 inner match" "$KELVO -f wrn:/bench/sections:k1 -S $D -i pairs.stencil"
for k in 1 10 100; do
    i=$(case $k in 1) echo 1 ;; 10) echo 2 ;; 100) echo 3 ;; esac)
    eval "cpu=\$CPU_$i median=\$MEDIAN_$i"
    printf '    %6d properties: %.3f us cpu, %.3f us wall per match\n' "$((k * 1000))" \
        "$(per_item "$cpu" $((k * 1000)))" "$(per_item "$median" $((k * 1000)))"
done
printf '    nested, 10 x 100: %.3f us cpu per inner match\n' "$(per_item "$CPU_4" 1000)"
printf '    nested, 1,000 x 1: %.3f us cpu per outer match (each a section over 1,000 names)\n' \
    "$(per_item "$CPU_5" 1000)"

echo "system calls that write or change a file, in one run (strace):"
rm -f "$OUT.100"
count_writes "100,000 matches into a new file" "$KELVO" -f wrn:/bench/sections:k100 -S "$D" \
    -i one.stencil -o "$OUT.100"
printf '  (the output: %d bytes)\n' "$(wc -c <"$OUT.100")"
