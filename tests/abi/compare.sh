#!/usr/bin/env bash
# compare.sh LIBRARY: compares the types and functions that a host compiles against with those of
# baseline.abi.xz. LIBRARY has its debug information: build/release/lib/libkelvara.so.
#   compare.sh --update LIBRARY: writes the baseline instead, after a compatible addition.
# Exit status 77 without abidiff.
set -euo pipefail
source=$(realpath "$(dirname "$0")/../..")
baseline=$source/tests/abi/baseline.abi.xz
command -v abidiff >/dev/null || { echo "no abidiff: skipped"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if [ "$1" = --update ]; then
  mkdir "$work/headers"
  cp "$source"/Kelvara/*.h "$work/headers"
  abidw --headers-dir "$work/headers" --drop-private-types --exported-interfaces-only --no-comp-dir-path \
    --no-corpus-path --no-show-locs --no-parameter-names --no-elf-needed --out-file "$work/abi" "$2"
  xz -9 <"$work/abi" >"$baseline"
  exit
fi
xz -d <"$baseline" >"$work/abi"
abidiff --exported-interfaces-only --no-added-syms "$work/abi" "$1"
echo "compatible with $(basename "$baseline")"
