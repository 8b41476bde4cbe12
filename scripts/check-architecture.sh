#!/bin/sh
# Checks the tree against what docs/architecture.md states of it, as CI does
# ("make format-check" runs it). The module table of that page (Module,
# Library, Interface, Uses) is the rule:
#   - every C++ source belongs to a module of the table, or to tests/, bench/;
#   - a module includes the headers of another module only when its Uses
#     reach that module, and only the headers the table names as its
#     interface; a module's other headers are included by the module and its
#     tests alone (a test belongs to the module its name begins with:
#     tests/unit/stencil_*.cpp, tests/fuzz/fuzz_manifest.cpp for manifest.h);
#   - a module's CMakeLists.txt builds the library the table names and links
#     no library of a module its Uses do not reach;
#   - an include/ directory holds exactly the interface the table names, and
#     no *_internal.h;
#   - every file the page names exists, and so does every source file a
#     comment of the tree names.
# Prints each fault with the file and line and what to change; exits 1 if
# there is any.
#
#   sh scripts/check-architecture.sh [ROOT]    (ROOT: the tree; default: this one)
set -eu
ROOT=${1:-$(dirname "$0")/..}
cd "$ROOT"
DOC=docs/architecture.md
[ -f "$DOC" ] || { echo "check-architecture: $DOC is missing" >&2; exit 1; }
TMP=$(mktemp -d)
trap 'rm -rf "$TMP"' EXIT

# The tree's files: tracked and new ones, not ignored ones (build
# directories), as paths relative to the root.
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files --cached --others --exclude-standard
else
    find . -type f ! -path './.git/*' ! -path './build*' | sed 's|^\./||'
fi | while IFS= read -r f; do [ -f "$f" ] && printf '%s\n' "$f"; done | sort -u >"$TMP/files"

grep -E '\.(cpp|h)$' "$TMP/files" >"$TMP/sources" || :

# Quoted includes: FILE<TAB>LINE<TAB>HEADER.
: >"$TMP/includes"
while IFS= read -r f; do
    awk -v f="$f" '/^[ \t]*#[ \t]*include[ \t]*"/ {
        h = $0; sub(/^[^"]*"/, "", h); sub(/".*$/, "", h); print f "\t" FNR "\t" h }' "$f"
done <"$TMP/sources" >>"$TMP/includes"

# File names in comments: FILE<TAB>LINE<TAB>NAME. In C++ what follows //, in
# scripts and CMake what follows #, in Markdown what stands in backquotes.
while IFS= read -r f; do
    case "$f" in
        *.cpp | *.h) mode=cpp ;;
        *.sh | *CMakeLists.txt | *.cmake | Makefile | .ci/*) mode=hash ;;
        "$DOC") continue ;;  # checked whole below
        *.md) mode=md ;;
        *) continue ;;
    esac
    awk -v f="$f" -v mode="$mode" '
        {
            t = ""
            if (mode == "cpp") { i = index($0, "//"); if (i) t = substr($0, i + 2) }
            else if (mode == "hash") {
                if ($0 !~ /^#!/) { i = index($0, "#"); if (i) t = substr($0, i + 1) }
            } else {
                s = $0
                while (match(s, /`[^`]*`/)) {
                    t = t " " substr(s, RSTART + 1, RLENGTH - 2) " "
                    s = substr(s, RSTART + RLENGTH)
                }
            }
            while (match(t, /[A-Za-z0-9_.\/*+-]+\.(cpp|h|md|sh)/)) {
                name = substr(t, RSTART, RLENGTH)
                before = RSTART > 1 ? substr(t, RSTART - 1, 1) : ""
                after = substr(t, RSTART + RLENGTH, 1)
                t = substr(t, RSTART + RLENGTH)
                if (before == "<" || after ~ /[A-Za-z0-9_]/) continue
                sub(/^(\.\.?\/)+/, "", name)
                print f "\t" FNR "\t" name
            }
        }' "$f"
done <"$TMP/files" >"$TMP/mentions"

# The libraries each module's CMakeLists.txt builds (add_library NAME) and
# links (every word of target_link_libraries): DIR<TAB>add|link<TAB>WORD.
while IFS= read -r f; do
    case "$f" in */CMakeLists.txt) ;; *) continue ;; esac
    awk -v dir="${f%/CMakeLists.txt}" '
        { sub(/#.*/, "") }
        /add_library\(/ { s = $0; sub(/.*add_library\([ \t]*/, "", s); split(s, w, /[ \t)]/)
                          print dir "\tadd\t" w[1] }
        /target_link_libraries\(/ { inlink = 1; s = $0; sub(/.*target_link_libraries\(/, "", s)
                                    $0 = s; first = 1 }
        inlink { s = $0; done = sub(/\).*/, "", s); n = split(s, w, /[ \t]+/)
                 for (i = 1; i <= n; i++) if (w[i] != "") {
                     if (first) { first = 0; continue }  # the target itself
                     print dir "\tlink\t" w[i] }
                 if (done) inlink = 0 }' "$f"
done <"$TMP/files" >"$TMP/links"

awk -v DOC="$DOC" -F '\t' '
function fault(where, what) { print "check-architecture: " where ": " what; faults++ }
function base(p) { sub(/.*\//, "", p); return p }
function dir(p) { if (p !~ /\//) return ""; sub(/\/[^\/]*$/, "", p); return p }
# a/./b/../c -> a/c
function normal(p) {
    gsub(/\/\.\//, "/", p); sub(/^\.\//, "", p)
    while (sub(/[^\/.][^\/]*\/\.\.\//, "", p)) continue
    return p
}
function module_of(p,    m, best) {
    best = ""
    for (m in mods) if (index(p, m "/") == 1 && length(m) > length(best)) best = m
    return best
}
function glob_re(g) { gsub(/\./, "\\.", g); gsub(/\+/, "\\+", g); gsub(/\*/, "[^/]*", g); return g }
# Whether a name (a path, a path ending in "/", a bare file name, or any of
# them with *) is a file or directory of the tree.
function exists(name,    re, f) {
    if (name ~ /\/$/) { for (f in files) if (index(f, name) == 1 || index(f, "/" name)) return 1; return 0 }
    if (name !~ /\*/) {
        if (name in files) return 1
        if (name !~ /\// && (name in bases)) return 1
        for (f in files) if (length(f) > length(name) && substr(f, length(f) - length(name)) == "/" name) return 1
        return 0
    }
    re = glob_re(name)
    for (f in files) if (f ~ ("(^|/)" re "$")) return 1
    return 0
}
function cells(line, out,    n, i) {
    n = split(line, out, "|")
    for (i = 1; i <= n; i++) { gsub(/^[ \t]+|[ \t]+$/, "", out[i]) }
    return n
}
function quoted(cell, out,    n) {
    n = 0
    while (match(cell, /`[^`]*`/)) { out[++n] = substr(cell, RSTART + 1, RLENGTH - 2); cell = substr(cell, RSTART + RLENGTH) }
    return n
}
function owner_of_test(p,    b, w, m, f) {
    b = base(p); sub(/^fuzz_/, "", b); w = b; sub(/[_.].*/, "", w)
    for (m in mods) if (base(m) == w) return m
    for (f in files) if (base(f) == w ".h" && module_of(f) != "") return module_of(f)
    return ""
}
function interface(m, p) { return ((m SUBSEP substr(p, length(m) + 2)) in iface) }
function reaches(a, b) { return ((a SUBSEP b) in reach) }

FILENAME == ARGV[1] { files[$0] = 1; bases[base($0)] = ($0 in bases) ? "" : $0; next }
FILENAME == DOC {
    docline = FNR
    if (!intable && $0 ~ /^\| *Module *\| *Library *\| *Interface *\| *Uses *\|/) { intable = 1; next }
    if (intable && $0 ~ /^\|[- |]*$/) next
    if (intable && $0 !~ /^\|/) intable = 0
    if (intable) {
        cells($0, c)
        if (quoted(c[2], q) != 1 || q[1] !~ /\/$/) { fault(DOC ":" docline, "a row of the module table without a module directory like `tool/`"); next }
        m = q[1]; sub(/\/$/, "", m); mods[m] = docline
        if (quoted(c[3], q) == 1) { lib[m] = q[1]; libmod[q[1]] = m; nlib++ }
        else fault(DOC ":" docline, "module " m "/ names no library (`name`) in the Library column")
        n = quoted(c[4], q)
        for (i = 1; i <= n; i++) iface[m, q[i]] = 1
        n = quoted(c[5], q)
        for (i = 1; i <= n; i++) { u = q[i]; sub(/\/$/, "", u); uses[m, u] = docline }
    }
    n = quoted($0, q)
    for (i = 1; i <= n; i++) {
        t = q[i]
        if (t ~ /^[A-Za-z0-9_.\/*-]+$/ && (t ~ /\// || t ~ /\.(cpp|h|md|sh|1|cmake|txt)$/ || t ~ /^\.clang-/)) named[t] = docline
    }
    next
}
FILENAME ~ /\/includes$/ { inc[++ninc] = $0; next }
FILENAME ~ /\/mentions$/ { men[++nmen] = $0; next }
FILENAME ~ /\/links$/ { lnk[++nlnk] = $0; next }

END {
    if (nlib == 0) fault(DOC, "no module table (| Module | Library | Interface | Uses | What it is |) found")
    # The table itself: modules, interfaces and uses that exist.
    for (m in mods) {
        if (!exists(m "/")) fault(DOC ":" mods[m], "module " m "/ is not a directory of the tree")
    }
    for (k in iface) {
        split(k, kv, SUBSEP)
        if (!((kv[1] "/" kv[2]) in files)) fault(DOC ":" mods[kv[1]], "the interface of " kv[1] "/ names " kv[2] ", which is not " kv[1] "/" kv[2])
    }
    for (k in uses) {
        split(k, kv, SUBSEP)
        if (!(kv[2] in mods)) fault(DOC ":" uses[k], kv[1] "/ uses " kv[2] "/, which is no module of the table")
        else reach[kv[1], kv[2]] = 1
    }
    for (m in mods) reach[m, m] = 1
    do {
        grew = 0
        for (k in reach) {
            split(k, kv, SUBSEP)
            for (k2 in uses) {
                split(k2, kw, SUBSEP)
                if (kw[1] == kv[2] && (kw[2] in mods) && !((kv[1] SUBSEP kw[2]) in reach)) { reach[kv[1], kw[2]] = 1; grew = 1 }
            }
        }
    } while (grew)
    for (m in mods) for (k in reach) {
        split(k, kv, SUBSEP)
        if (kv[1] != kv[2] && kv[2] == m && reaches(m, kv[1]))
            fault(DOC ":" mods[m], m "/ and " kv[1] "/ use each other: the layers must not loop")
    }
    # Files the page names.
    for (t in named) if (!exists(t)) fault(DOC ":" named[t], "names `" t "`, which is not in the tree: correct the page")
    # Every source in a module, tests/ or bench/.
    for (f in files) {
        if (f !~ /\.(cpp|h)$/ || f ~ /^(tests|bench)\//) continue
        if (module_of(f) == "")
            fault(f, "belongs to no module of the table in " DOC ": put it in a module directory, or add a row for its directory")
    }
    # include/ directories: the interface and nothing else.
    for (f in files) {
        m = module_of(f)
        if (m == "" || index(f, m "/include/") != 1) continue
        if (f ~ /_internal\.h$/)
            fault(f, "an internal header in a public include/ directory: move it to " m "/")
        else if (!interface(m, f))
            fault(f, "is in " m "/include/ but not in the Interface column of " DOC ": add it there (with a contract on each declaration), or move it to " m "/ if only " m "/ uses it")
    }
    # Includes.
    for (i = 1; i <= ninc; i++) {
        split(inc[i], r, "\t"); src = r[1]; at = src ":" r[2]; h = r[3]
        if (h ~ /\//) path = normal(dir(src) "/" h)
        else if (dir(src) != "" && ((dir(src) "/" h) in files)) path = dir(src) "/" h
        else if ((h in bases) && bases[h] != "") path = bases[h]
        else if (h in bases) { fault(at, "includes \"" h "\", which names more than one header of the tree: include it by its path"); continue }
        else { fault(at, "includes \"" h "\", which is no file of the tree: use <" h "> for a system header"); continue }
        sm = module_of(src); hm = module_of(path)
        if (hm == "") {
            if (sm != "") fault(at, "a module includes " path ", which belongs to no module: move what it needs into the module")
            continue
        }
        if (sm == hm) continue
        if (sm != "") {
            if (!reaches(sm, hm))
                fault(at, sm "/ includes " path ", but " hm "/ is not below " sm "/ (Uses in " DOC "): move the code to a module both may use, or change the layers in " DOC " first")
            else if (!interface(hm, path))
                fault(at, sm "/ includes " path ", which is internal to " hm "/: use " hm "/'"'"'s interface, or make the declaration part of it (with its contract)")
            continue
        }
        if (!interface(hm, path) && owner_of_test(src) != hm)
            fault(at, "includes " path ", which is internal to " hm "/ and only " hm "/ and its tests (files named " base(hm) "_*) may include: use " hm "/'"'"'s interface")
    }
    # Libraries.
    for (m in mods) built[m] = 0
    for (i = 1; i <= nlnk; i++) {
        split(lnk[i], r, "\t"); d = r[1]; m = module_of(d "/x")
        if (m == "" || d != m) continue
        if (r[2] == "add" && r[3] == lib[m]) built[m] = 1
        if (r[2] == "link" && (r[3] in libmod) && !reaches(m, libmod[r[3]]))
            fault(m "/CMakeLists.txt", m "/ links " r[3] " of " libmod[r[3]] "/, which its Uses in " DOC " do not reach")
    }
    for (m in mods) if (m in lib && !built[m] && exists(m "/CMakeLists.txt"))
        fault(m "/CMakeLists.txt", "builds no library " lib[m] ", which " DOC " names for " m "/")
    # File names in comments and pages.
    for (i = 1; i <= nmen; i++) {
        split(men[i], r, "\t")
        if (!exists(r[3])) fault(r[1] ":" r[2], "names " r[3] ", which is not in the tree: correct the comment")
    }
    if (faults) {
        print "check-architecture: " faults " fault(s); the rules are the module table and the text of " DOC
        exit 1
    }
    n = 0; for (m in mods) n++
    print "check-architecture: " n " modules, " ninc " includes checked against " DOC
}' "$TMP/files" "$DOC" "$TMP/includes" "$TMP/mentions" "$TMP/links" >"$TMP/out" || status=$?
if [ "${status:-0}" -ne 0 ]; then
    grep -v '^check-architecture: [0-9]* fault' "$TMP/out" | sort -u >&2
    grep '^check-architecture: [0-9]* fault' "$TMP/out" >&2
    exit 1
fi
cat "$TMP/out"
