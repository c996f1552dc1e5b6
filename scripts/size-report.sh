#!/usr/bin/env bash
# The footprint of the device's library in a build tree: the stripped size of
# libzelta.so, what its sections hold, the source files and the functions
# whose code takes the most. Exits 1 when the stripped library is above the budget.
#   scripts/size-report.sh BUILD_DIR [BUDGET_BYTES]
# The binutils are the build's own (CMAKE_STRIP, CMAKE_NM from its cache), so
# a cross build is measured with the target's tools. Budget: the second
# argument, else ZELTA_SIZE_BUDGET, else 200000.
set -euo pipefail
build=${1:?usage: size-report.sh BUILD_DIR [BUDGET_BYTES]}
budget=${2:-${ZELTA_SIZE_BUDGET:-200000}}

cache=$build/CMakeCache.txt
[ -f "$cache" ] || { echo "size: no CMakeCache.txt in $build" >&2; exit 2; }
tool() { sed -n "s/^$1:[A-Z]*=//p" "$cache"; }
strip=$(tool CMAKE_STRIP)
nm=$(tool CMAKE_NM)
sizetool=${nm%nm}size
library=$(find "$build/lib" -maxdepth 1 -name 'libzelta.so.*.*.*' | head -1)
[ -n "$library" ] || { echo "size: no libzelta.so.X.Y.Z in $build/lib" >&2; exit 2; }

stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"$strip" -o "$stripped" "$library"
bytes=$(stat -c %s "$stripped")

group() {  # bytes of the sections whose names match $1
  "$sizetool" -A "$stripped" | awk -v re="$1" '$1 ~ re { s += $2 } END { print s + 0 }'
}
echo "size: $(basename "$library") stripped: $bytes bytes (budget $budget)"
printf 'size:   %-44s %8d\n' "code (.text, .plt)" "$(group '^[.](text|plt|init|fini)$')" \
  "constants (.rodata)" "$(group '^[.]rodata$')" \
  "exception tables (.ARM.extab/exidx, .eh_frame)" "$(group '^[.](ARM[.]ex|eh_frame|gcc_except)')" \
  "dynamic symbols (.dynsym, .dynstr, hash)" "$(group '^[.](dynsym|dynstr|gnu[.]hash|hash|gnu[.]version)')" \
  "relocations, GOT and data" "$(group '^[.](rel|got|data|dynamic|init_array|fini_array)')"
echo "size: largest source files (code of the functions each defines, after inlining):"
# From the unstripped library's line information: with link-time optimisation
# the object files hold no code of their own to measure.
"$nm" -S -l --defined-only "$library" |
  awk -F'\t' 'NF == 2 { split($1, f, " "); if (f[3] !~ /^[tTwW]$/) next;
                          file = $2; sub(/:[0-9]+$/, "", file); sub(/.*\/lib\/src\//, "", file); sub(/.*\/include\//, "", file); print f[2], file }' |
  while read -r hex file; do echo "$((16#$hex)) $file"; done |
  awk '{ bytes[$2] += $1 } END { for (f in bytes) print bytes[f], f }' | sort -rn | head -10 |
  awk '{ printf "size:   %-44.44s %8d\n", $2, $1 }'
echo "size: largest functions:"
"$nm" -C --size-sort -S "$library" | awk '$3 ~ /^[tTwW]$/ && !/localalias/' | tail -12 | tac |
  while read -r _ hex _ name; do printf 'size:   %-64.64s %6d\n' "$name" "$((16#$hex))"; done

if [ "$bytes" -gt "$budget" ]; then
  echo "size: libzelta.so is $((bytes - budget)) bytes above its budget of $budget" >&2
  exit 1
fi
