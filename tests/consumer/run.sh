#!/usr/bin/env bash
# run.sh installed BUILD_DIR KELVARA_SOURCE: stages an install of the build, builds the consumer
#   outside the tree against it, runs it with each place that the resources may have, and looks at
#   what the library exports.
# run.sh configured|built BUILD_DIR KELVARA_SOURCE: brings the tree itself into the consumer, both
#   ways, and goes as far as the name says.
set -euo pipefail
how=$1 build=$2 source=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$source/tests/consumer" "$work/consumer"
fail() { echo "$*"; exit 1; }
# quietly COMMAND...: shows what it prints only if it fails.
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; fail "failed: $*"; }; }
configure() { cmake -S "$work/consumer" -B "$@" -G Ninja -DCMAKE_BUILD_TYPE=Debug; }

# consumer PROGRAM: what it logs of resources that it does not find.
consumer() {
  quietly "$1"
  grep Tried "$work/log" || true
}

from_source() {
  for as in subdirectory fetched; do
    quietly configure "$work/$as" -DKELVARA_SOURCE="$source" -DKELVARA_AS="$as"
    # The library alone: no tests, sandbox or demo, and nothing that only they need.
    if grep -E '^(HTTPLIB|XTEST|FFMPEG|GTest|GTEST)' "$work/$as/CMakeCache.txt"; then
      fail "$as looks for what the library does not need"
    fi
    cmake --build "$work/$as" -- -n >"$work/log"
    grep -E '/(sandbox|demo|stage|tests|headless)/' "$work/log" && fail "$as builds more"
    grep -rq libkelvara --include=cmake_install.cmake "$work/$as" && fail "$as installs the library"
    # Both ways build the same targets, so one build serves.
    if [ "$how" = built ] && [ "$as" = subdirectory ]; then
      quietly cmake --build "$work/$as"
      [ -z "$(consumer "$work/$as/consumer")" ] || fail "$as: no resources were embedded"
      rm -r "$work/$as/KelvaraResources.bundle"
      [ -z "$(consumer "$work/$as/consumer")" ] || fail "$as: the library's data were not found"
    fi
  done
  echo "$how as a part of another project"
}

installed() {
  quietly cmake --install "$build" --prefix "$work/prefix"
  PKG_CONFIG_LIBDIR=/nonexistent configure "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
    &>"$work/log" && fail "found Kelvara without GTK"
  grep -q 'without Kelvara: .*gtk4' "$work/log" || { cat "$work/log"; fail "not said: no GTK"; }
  quietly configure "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix"
  quietly cmake --build "$work/build"
  quietly cmake --install "$work/build" --prefix "$work/host"

  # The prefix moves: the library finds its data where it now is.
  mv "$work/prefix" "$work/moved"
  local library data=$work/moved/share/kelvara/KelvaraResources.bundle
  library=$(find "$work/moved" -name libkelvara.so -print -quit)
  export LD_LIBRARY_PATH=${library%/*}
  mv "$data" "$data.away"
  for program in "$work/build/consumer" "$work/host/bin/consumer"; do
    [ -z "$(consumer "$program")" ] || fail "$program: no resources beside it"
  done
  rm -r "$work/host/bin/KelvaraResources.bundle"
  local tried
  tried=$(consumer "$work/host/bin/consumer")
  for place in "$work/host/bin/KelvaraResources.bundle" "$data"; do
    [[ $tried == *"$place"* ]] || fail "$place is not named in: $tried"
  done
  mv "$data.away" "$data"
  [ -z "$(consumer "$work/host/bin/consumer")" ] || fail "the library's data were not found"
  cat "$work/log"

  local foreign
  foreign=$(nm -D --defined-only -C "$library" | grep -vE ' (kva::|typeinfo (name )?for kva::|vtable for kva::)' || true)
  [ -z "$foreign" ] || fail "exported beside the host API: $foreign"
  echo "exported symbols: $(nm -D --defined-only "$library" | wc -l), all of them kva::"
}

if [ "$how" = installed ]; then installed; else from_source; fi
