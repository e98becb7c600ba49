#!/usr/bin/env bash
# run.sh BUILD_DIR SOURCE_DIR: stages an install of the build, builds the consumer outside the tree
# against it, runs it, and looks at what the library exports.
set -euo pipefail
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
cp -r "$source" "$work/consumer"
cmake -S "$work/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/consumer"

library=$(find "$work/prefix" -name libkelvara.so -print -quit)
foreign=$(nm -D --defined-only -C "$library" | grep -vE ' (kva::|typeinfo (name )?for kva::|vtable for kva::)' || true)
[ -z "$foreign" ] || { echo "exported beside the host API:"; echo "$foreign" | head; exit 1; }
echo "exported symbols: $(nm -D --defined-only "$library" | wc -l), all of them kva::"
