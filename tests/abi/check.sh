#!/usr/bin/env bash
# check.sh LIBRARY FOLDER...: checks what an installed libkelvara.so and its modules show: exactly the
# symbols of symbols.txt, no debug symbols, and no path below one of the folders.
#   check.sh --update LIBRARY: writes symbols.txt instead, when a method is added on purpose.
set -euo pipefail
list=$(dirname "$0")/symbols.txt
exported() { nm -DC --defined-only "$1" | cut -d' ' -f3- | LC_ALL=C sort -u; }
if [ "$1" = --update ]; then
  exported "$2" >"$list"
  exit
fi
library=$1
shift

exported "$library" | diff "$list" - || { echo "other symbols than $list names"; exit 1; }
for file in "$library" "${library%/*}"/kelvara-*/*.so; do
  ! readelf -S --wide "$file" | grep -q ' \.symtab' || { echo "$file is not stripped"; exit 1; }
  for folder; do
    ! grep -qaF "$(realpath "$folder")" "$file" || { echo "$file contains $folder"; exit 1; }
  done
done
echo "exported symbols: $(wc -l <"$list")"
