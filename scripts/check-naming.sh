#!/bin/sh
# Checks the names of every C++ source of the tree against the rule of
# docs/architecture.md (House style), as CI does ("make format-check" runs
# it): clang-tidy's readability-identifier-naming, configured in .clang-tidy,
# over every .cpp with the headers of the tree it includes. Prints each name
# at fault, with the name to use, and exits 1.
#
#   sh scripts/check-naming.sh [BUILD_DIR]
#
# BUILD_DIR (default build-tidy) is configured here with clang for its
# compile commands only; nothing is built. JOBS clang-tidy processes run at
# once (default: the number of processors).
set -eu
cd "$(dirname "$0")/.."
ROOT=$(pwd)
BUILD=${1:-build-tidy}
CLANG_TIDY=${CLANG_TIDY:-clang-tidy}
JOBS=${JOBS:-$(nproc)}
command -v "$CLANG_TIDY" >/dev/null 2>&1 ||
    { echo "check-naming: $CLANG_TIDY is not installed (Debian package clang-tidy)" >&2; exit 1; }
start=$(date +%s)

# Compile commands for every source, the fuzz targets' included.
CC=clang CXX=clang++ cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKELVO_FUZZ=ON \
    -DKELVO_WERROR=OFF >"$BUILD.log" 2>&1 ||
    { cat "$BUILD.log" >&2; echo "check-naming: cmake could not configure $BUILD" >&2; exit 1; }
rm -f "$BUILD.log"
TMP=$(mktemp -d)
trap 'rm -rf "$TMP"' EXIT

if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files --cached --others --exclude-standard '*.cpp'
else
    find . -name '*.cpp' ! -path './build*' | sed 's|^\./||'
fi | while IFS= read -r f; do [ -f "$f" ] && printf '%s\n' "$f"; done | sort -u >"$TMP/sources"
sed -n 's|^ *"file": "\(.*\)",\{0,1\}$|\1|p' "$BUILD/compile_commands.json" | sort -u >"$TMP/compiled"
missing=0
while IFS= read -r f; do
    if ! grep -qxF "$ROOT/$f" "$TMP/compiled"; then
        echo "check-naming: $f is compiled by no target, so its names go unchecked: add it to a CMakeLists.txt" >&2
        missing=1
    fi
done <"$TMP/sources"

# The headers of the tree (not of the system) are checked where a source
# includes them.
filter="^$ROOT/(apply|bench|diff|hgxrepo|lint|platform|repository|stencil|support|tests|tool)/"
sed "s|^|$ROOT/|" "$TMP/sources" |
    xargs -P "$JOBS" -n 4 "$CLANG_TIDY" -p "$BUILD" --quiet --header-filter="$filter" \
        >"$TMP/out" 2>"$TMP/err" || :

# A finding is its line, the source line, a caret line, then the name that
# fits the rule. Other diagnostics (a source that does not parse) are shown
# as they are.
awk -v root="$ROOT/" '
# a/./b/../c -> a/c
function normal(p) {
    gsub(/\/\.\//, "/", p); sub(/^\.\//, "", p)
    while (sub(/[^\/.][^\/]*\/\.\.\//, "", p)) continue
    return p
}
function rule(kind) {
    if (kind ~ /^(class|struct|union|enum|typedef|type alias|template parameter|abstract class)$/)
        return "our C++ types are CamelCase; only the C-style records listed in .clang-tidy keep their designed names, see docs/architecture.md"
    if (kind ~ /constant|constexpr|macro/)
        return "constants are UPPER_SNAKE: constexpr, const at namespace scope or static, enum constants, macros"
    if (kind ~ /private member/)
        return "private members are snake_case ending in _"
    return "functions, variables, parameters and members are snake_case"
}
function flush() {
    if (where != "") print where ": " kind " \047" name "\047: rename to \047" (fix != "" ? fix : "?") "\047 (" rule(kind) ")"
    where = ""
}
/: (warning|error): invalid case style for / {
    flush()
    line = $0
    loc = line; sub(/: (warning|error): .*/, "", loc)
    n = split(loc, parts, ":")
    file = parts[1]; if (index(file, root) == 1) file = substr(file, length(root) + 1)
    where = normal(file) ":" parts[2]
    kind = line; sub(/.*invalid case style for /, "", kind); sub(/ \047.*/, "", kind)
    name = line; sub(/^[^\047]*\047/, "", name); sub(/\047.*/, "", name)
    fix = ""; after = 0
    next
}
where != "" { after++; if (after == 3) { fix = $0; gsub(/^[ \t]+|[ \t]+$/, "", fix); if (fix !~ /^[A-Za-z_][A-Za-z0-9_]*$/) fix = ""; flush() } next }
/: (warning|error): / { print "clang-tidy: " $0 }
END { flush() }' "$TMP/out" | sort -u >"$TMP/faults"
# clang-tidy's own troubles (a missing compile command, a crash).
grep -E 'error|Error' "$TMP/err" | grep -v 'generated\.$\|treated as errors\|Suppressed\|Use -header-filter\|Use -system-headers' \
    >>"$TMP/faults" || :

count=$(wc -l <"$TMP/sources")
took=$(($(date +%s) - start))
if [ -s "$TMP/faults" ] || [ "$missing" -ne 0 ]; then
    sed 's/^/check-naming: /' "$TMP/faults" >&2
    echo "check-naming: names at fault in $count sources (${took}s); the rule is docs/architecture.md's (House style)" >&2
    exit 1
fi
echo "check-naming: $count sources named by the rule (${took}s, $JOBS at once)"
