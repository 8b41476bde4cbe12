#!/bin/sh
# Checks that every C++ source of the tree is formatted by the tree's
# .clang-format, as CI does; prints the files that are not, and exits 1.
#
#   sh scripts/check-format.sh          ("make format-check" runs it)
#   sh scripts/check-format.sh --fix    formats them in place
set -eu
cd "$(dirname "$0")/.."
CLANG_FORMAT=${CLANG_FORMAT:-clang-format}
command -v "$CLANG_FORMAT" >/dev/null 2>&1 ||
    { echo "check-format: $CLANG_FORMAT is not installed (Debian package clang-format)" >&2; exit 1; }
files=$(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--fix" ]; then
    echo "$files" | xargs "$CLANG_FORMAT" -i
    exit 0
fi
bad=""
for f in $files; do
    "$CLANG_FORMAT" --dry-run -Werror "$f" >/dev/null 2>&1 || bad="$bad $f"
done
if [ -n "$bad" ]; then
    echo "check-format: not formatted by .clang-format (sh scripts/check-format.sh --fix):" >&2
    for f in $bad; do echo "  $f" >&2; done
    exit 1
fi
echo "check-format: $(echo "$files" | wc -l) files formatted"
