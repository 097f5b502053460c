#!/usr/bin/env bash
# Checks that a shared library exports exactly the C functions the installed
# headers declare, all under the symbol version ZBSHR_5, and nothing of C++.
# usage: check_exports.sh LIBZBSHR.so INCLUDE_DIR
set -euo pipefail
lib=$1 inc=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
nm -D --defined-only "$lib" | awk '$2 == "T" || $2 == "D" || $2 == "B" || $2 == "R" {print $3}' > "$tmp/all"
if grep -v '@@ZBSHR_5$' "$tmp/all"; then echo "symbols without version ZBSHR_5 (above)"; exit 1; fi
sed 's/@@ZBSHR_5$//' "$tmp/all" | sort > "$tmp/exported"
if grep '^_Z' "$tmp/exported"; then echo "C++ symbols are exported (above)"; exit 1; fi
# Declared: NAME after ZBSHR_API(...), and the four calls of each ZBSHR_OSSAVE_DECLARE(fmt).
{
  sed 's#/\*.*\*/##' "$inc"/zbshr/*.h | tr '\n' ' ' | grep -o 'ZBSHR_API([^)]*)[ *]*[A-Za-z_][A-Za-z0-9_]* *(' |
    sed -E 's/^ZBSHR_API\([^)]*\)[ *]*([A-Za-z_][A-Za-z0-9_]*).*/\1/'
  grep -ho '^ZBSHR_OSSAVE_DECLARE([A-Za-z0-9_]*)' "$inc"/zbshr/export.h | sed -E 's/.*\((.*)\)/\1/' |
    while read -r f; do printf 'osSave%sBegin\nosSave%sColumn\nosSave%sItem\nosSave%sEnd\n' "$f" "$f" "$f" "$f"; done
} | grep -v -e '##' -e '^name$' | sort -u > "$tmp/declared"
extra=$(comm -23 "$tmp/exported" "$tmp/declared")
if [ -n "$extra" ]; then echo "exported but not declared in a public header:"; echo "$extra"; exit 1; fi
echo "$(wc -l < "$tmp/exported") exported functions, all declared, version ZBSHR_5"
