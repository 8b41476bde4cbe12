#!/bin/sh
# Property emission: a stencil of 1,000 property references with mixed
# operators against an instance of 1,000 properties, written to a new file
# and to a file that already holds the result, beside the same job done by a
# Python script with Jinja2 that takes the values from the JSON export of
# the repository.  Also shows that an unchanged file costs no write.
#
#   sh bench/properties.sh [BUILD_DIR]
set -eu
. "$(dirname "$0")/common.sh"

# Python with Jinja2: the Debian package when the interpreter has none.  The
# interpreter is called by its real path, not through a wrapper script that
# may stand first in PATH, so that only Python's own start-up is measured.
PY=$(python3 -c 'import sys; print(sys.executable)' 2>/dev/null || echo /usr/bin/python3)
if ! $PY -c 'import jinja2' 2>/dev/null; then
    if ! /usr/bin/python3 -c 'import jinja2' 2>/dev/null; then
        echo "(installing python3-jinja2)"
        SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
        $SUDO apt-get install -y -qq python3-jinja2 >/dev/null ||
            { $SUDO apt-get update -qq && $SUDO apt-get install -y -qq python3-jinja2 >/dev/null; }
    fi
    PY=/usr/bin/python3
fi

D=$WORK/properties
mkdir -p "$D"
WERN=wrn:/bench/props:default

# 1,000 properties in the group config, four kinds in turn: a list of three
# strings, a boolean, a count and a string.
MANIFEST=$D/manifest.json
if [ "${FRESH:-0}" = 1 ] || [ ! -s "$MANIFEST" ]; then
    awk 'BEGIN {
        printf "{\"services\": {\"bench/props\": {\"instances\": {\"default\": {\"groups\": {\"config\": {\"properties\": {\n"
        for (i = 0; i < 1000; i++) {
            k = i % 4
            if (k == 0) v = sprintf("[\"alpha-%d\", \"beta-%d\", \"gamma-%d\"]", i, i, i)
            else if (k == 1) v = (i % 3 ? "true" : "false")
            else if (k == 2) v = sprintf("%d", i * 7)
            else v = sprintf("\"value-%d-x-%d\"", i, i)
            printf "%s\"p%d\": %s", (i ? ",\n" : ""), i, v
        }
        printf "\n}}}}}}}}\n"
    }' > "$MANIFEST"
fi
make_repo properties "$MANIFEST"
export HGX_REPOSITORY=$REPO_DB

# The same 1,000 references, as a stencil and as a Jinja2 template.  p is a
# dict from property name to its list of values.
awk -v stencil="$D/refs.stencil" -v tpl="$D/refs.j2" 'BEGIN {
    for (i = 0; i < 1000; i++) {
        k = i % 4; v = int(i / 4) % 2; n = "config/p" i; q = "p[\"" n "\"]"
        if (k == 0 && v == 0) {
            s = "list" i " = $%{" n ":,, }"
            j = "list" i " = {{ " q "|join(\", \") }}"
        } else if (k == 0) {
            s = "$%{" n ":^entry /;\\n}"
            j = "{% for x in " q " %}entry {{ x }};\n{% endfor %}"
        } else if (k == 1 && v == 0) {
            s = "flag" i " = $%{" n ":?yes/no}"
            j = "flag" i " = {{ \"yes\" if " q "[0] == \"true\" else \"no\" }}"
        } else if (k == 1) {
            s = "$%{" n ":+enabled " i "}"
            j = "{{ \"enabled " i "\" if " q " else \"\" }}"
        } else if (k == 2 && v == 0) {
            s = "num" i " = $%{" n "}"
            j = "num" i " = {{ " q "|join(\" \") }}"
        } else if (k == 2) {
            s = "num" i " = $%{" n ":^*[/]}"
            j = "num" i " = {% for x in " q " %}[{{ x }}]{% endfor %}"
        } else if (k == 3 && v == 0) {
            s = "str" i " = \"$%{" n ":'\''value/val}\""
            j = "str" i " = \"{{ " q "|map(\"replace\", \"value\", \"val\", 1)|join(\" \") }}\""
        } else {
            s = "str" i " = $%{" n ":'\'''\''-/_}"
            j = "str" i " = {{ " q "|map(\"replace\", \"-\", \"_\")|join(\" \") }}"
        }
        print s > stencil
        print j > tpl
    }
}'

cat > "$D/render.py" <<'PY'
# Renders a Jinja2 template with the properties of one instance, read from an
# export of the repository on standard input, and writes the output file only
# when its content differs, as kelvo does.
import json, sys
import jinja2

def values(v):
    if isinstance(v, dict):
        vals = v.get("values", [])
        return [vals] if isinstance(vals, str) else [str(x) for x in vals]
    if isinstance(v, list):
        return [json_scalar(x) for x in v]
    return [json_scalar(v)]

def json_scalar(x):
    if isinstance(x, bool):
        return "true" if x else "false"
    return str(x)

def walk(groups, prefix, out):
    for gname, g in groups.items():
        for pname, pv in g.get("properties", {}).items():
            out[prefix + gname + "/" + pname] = values(pv)
        walk(g.get("groups", {}), prefix + gname + "/", out)

template_path, output_path = sys.argv[1], sys.argv[2]
doc = json.load(sys.stdin)
props = {}
for svc in doc["services"].values():
    for inst in svc.get("instances", {}).values():
        walk(inst.get("groups", {}), "", props)
with open(template_path) as f:
    tpl = jinja2.Template(f.read(), keep_trailing_newline=True)
text = tpl.render(p=props)
try:
    with open(output_path) as f:
        if f.read() == text:
            sys.exit(0)
except FileNotFoundError:
    pass
with open(output_path, "w") as f:
    f.write(text)
PY

"$HGXREPO" export "$WERN" > "$D/export.json"

OUT=$D/out.conf
PYOUT=$D/out-python.conf
# Each job as a script, so that the two sides run in turn (side_by_side) and
# alike through one shell: a new file (the old one removed first), and a file
# that already holds the result.
for side in kelvo python-export python-saved; do
    for case_ in new same; do
        f=$D/$side-$case_.sh
        out=$OUT
        [ "$side" != kelvo ] && out=$PYOUT
        [ "$case_" = new ] && out=$out.new
        {
            [ "$case_" = new ] && echo "rm -f '$out'"
            case $side in
                kelvo) echo "exec '$KELVO' -f $WERN -S '$D' -i refs.stencil -o '$out'" ;;
                python-export) echo "'$HGXREPO' export $WERN | exec '$PY' '$D/render.py' '$D/refs.j2' '$out'" ;;
                python-saved) echo "exec '$PY' '$D/render.py' '$D/refs.j2' '$out' <'$D/export.json'" ;;
            esac
        } >"$f"
    done
done
sh "$D/kelvo-same.sh"
sh "$D/python-export-same.sh"

echo "1,000 property references, instance of 1,000 properties (load: $(cut -d' ' -f1-3 /proc/loadavg))"
BENCH_RUNS=${BENCH_RUNS:-20} side_by_side \
    "kelvo, new file" "/bin/sh $D/kelvo-new.sh" \
    "kelvo, unchanged file" "/bin/sh $D/kelvo-same.sh" \
    "jinja2 (export+render), new file" "/bin/sh $D/python-export-new.sh" \
    "jinja2 (saved export), new file" "/bin/sh $D/python-saved-new.sh" \
    "jinja2 (export+render), unchanged" "/bin/sh $D/python-export-same.sh"
echo "    python+jinja2 / kelvo, processor time (wall time):"
printf '      export + render, new file:        %s x (%s x)\n' "$(ratio "$CPU_3" "$CPU_1")" "$(ratio "$MEDIAN_3" "$MEDIAN_1")"
printf '      render from saved export, new:    %s x (%s x)\n' "$(ratio "$CPU_4" "$CPU_1")" "$(ratio "$MEDIAN_4" "$MEDIAN_1")"
printf '      export + render, unchanged file:  %s x (%s x)\n' "$(ratio "$CPU_5" "$CPU_2")" "$(ratio "$MEDIAN_5" "$MEDIAN_2")"
KCMD="$KELVO -f $WERN -S $D -i refs.stencil -o $OUT"
if cmp -s "$OUT" "$PYOUT"; then
    echo "    (both wrote the same $(wc -c < "$OUT") bytes)"
else
    echo "    (note: the two outputs differ; diff $OUT $PYOUT)"
fi

echo
echo "An unchanged file costs no write:"
before=$(stat -c '%i %y %z' "$OUT")
$KCMD
after=$(stat -c '%i %y %z' "$OUT")
echo "  inode mtime ctime before: $before"
echo "  inode mtime ctime after:  $after"
echo "  system calls that write or change a file, in one run (strace):"
count_writes "kelvo, unchanged file" $KCMD
rm -f "$OUT"
count_writes "kelvo, new file" $KCMD
