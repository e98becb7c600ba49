#!/usr/bin/env bash
# diff.sh LIBRARY: fails if programs that were built with the ABI of libkelvara.abi cannot run with
# this library. LIBRARY has debug symbols, as in a build tree.
#   diff.sh --update LIBRARY: writes libkelvara.abi.
set -euo pipefail
cd "$(dirname "$0")/../.."
abi=tests/abi/libkelvara.abi
dump() {
  abidw --headers-dir Kelvara --drop-private-types --no-corpus-path --no-comp-dir-path --no-show-locs \
    --no-elf-needed "$1"
}
if [ "$1" = --update ]; then
  dump "$2" >"$abi"
  exit
fi
now=$(mktemp)
trap 'rm -f "$now"' EXIT
dump "$1" >"$now"
status=0
abidiff "$abi" "$now" || status=$?
# Bit 4 is a change; bit 8 is one that breaks programs. Additions need a new dump, so they fail too.
[ "$status" -eq 0 ] || { echo "the ABI changed: abidiff $status"; exit 1; }
echo "the ABI is that of $abi"
