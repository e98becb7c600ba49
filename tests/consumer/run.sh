#!/usr/bin/env bash
# run.sh installed BUILD_DIR KELVARA_SOURCE: stages an install of the build and builds the consumer
#   against it outside the tree, with CMake and with pkg-config. Runs it with each place that the
#   resources may have, with each module missing or foreign, and as an installed application.
# run.sh configured|built BUILD_DIR KELVARA_SOURCE: makes the tree a part of the consumer, with
#   add_subdirectory and with FetchContent, and goes as far as the name says.
set -euo pipefail
export CCACHE_NOHASHDIR=1  # the ways of building from source share the cache
how=$1 build=$2 source=$3
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT
cp -r "$source/tests/consumer" "$work/consumer"
fail() { echo "$*"; exit 1; }
# quietly COMMAND...: shows what it prints only if it fails.
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; fail "failed: $*"; }; }
configure() { cmake -S "$work/consumer" -B "$@" -G Ninja -DCMAKE_BUILD_TYPE=Debug; }

# consumer PROGRAM: prints the lines that it logs of missing resources.
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
    if [ "$how" = built ]; then
      # ccache compiles the library once for both ways.
      quietly cmake --build "$work/$as" --target consumer
      [ -z "$(consumer "$work/$as/consumer")" ] || fail "$as: no resources were embedded"
      rm -r "$work/$as/KelvaraResources.bundle"
      [ -z "$(consumer "$work/$as/consumer")" ] || fail "$as: the library's data were not found"
      loads "$work/$as/consumer" ready
    fi
  done
  echo "$how as a part of another project"
}

# loads PROGRAM PATTERN: checks the outcome of loading an ad of the sandbox server.
loads() {
  local server=$work/server.log
  if [ ! -e "$server" ]; then
    "$build/bin/kelvara-sandbox" --port 0 --memory >"$server" 2>&1 &
    until grep -q http: "$server"; do sleep 0.1; done
  fi
  local origin catalogue=$source/sandbox/Catalogue.h
  origin=$(grep -o 'http://[^ /]*' "$server" | head -1)
  id() { sed -n "s/.* $1 = \"\(.*\)\";/\1/p" "$catalogue"; }
  quietly timeout 60 "$1" "$origin/api/v1" "$(id kApplicationId)" "$(id kInterstitialAdUnit)"
  grep -q "outcome: $2" "$work/log" || { cat "$work/log"; fail "$1: not this outcome: $2"; }
}

resources() {
  local library=$1 data=$work/moved/share/kelvara/KelvaraResources.bundle tried
  mv "$data" "$data.away"
  for program in "$work/build/consumer" "$work/host/bin/consumer"; do
    [ -z "$(consumer "$program")" ] || fail "$program: no resources beside it"
  done
  rm -r "$work/host/bin/KelvaraResources.bundle"
  tried=$(consumer "$work/host/bin/consumer")
  for place in "$work/host/bin/KelvaraResources.bundle" "$data"; do
    [[ $tried == *"$place"* ]] || fail "$place is not named in: $tried"
  done
  mv "$data.away" "$data"
  [ -z "$(consumer "$work/host/bin/consumer")" ] || fail "the library's data were not found"
  cat "$work/log"
}

# A module that is missing or foreign fails what needs it, and the error says which and why.
modules() {
  local folder=$1 program=$work/build/consumer
  loads "$program" ready
  for module in network web; do
    local file=$folder/$module.so
    mv "$file" "$file.away"
    loads "$program" "Could not load $file: .*No such file"
    grep -q "\[E\].*Could not load $file" "$work/log" || fail "no error line names $file"
    cp "$folder"/[!"${module:0:1}"]*.so "$file"
    loads "$program" "Could not load $file: .*undefined symbol: kelvara_$module"
    mv "$file.away" "$file"
  done
}

# Makefiles and the like use pkg-config. Also the application's own install under /usr.
with_pkg_config() {
  local pkgconfig=$1 root=$work/root compiler
  export PKG_CONFIG_PATH=$pkgconfig
  for compiler in c++ clang++; do
    command -v "$compiler" >/dev/null || { echo "skipped: no $compiler"; continue; }
    quietly "$compiler" -std=c++20 -Wall -Wextra -Werror "$work/consumer/main.cpp" \
      -o "$work/consumer-$compiler" $(pkg-config --cflags --libs kelvara)
    quietly "$work/consumer-$compiler"
    install -D "$work/consumer-$compiler" "$root/usr/bin/consumer-$compiler"
  done
  DESTDIR=$root quietly cmake --install "$build" --prefix /usr --component runtime
  library=$(find "$root/usr" -name 'libkelvara.so.?')
  [ -z "$(find "$root/usr" -name '*.h' -o -name '*.pc')" ] || fail "the runtime contains headers"
  LD_LIBRARY_PATH=${library%/*} loads "$root/usr/bin/consumer-c++" ready
}

# A host that was compiled before the last option was added still runs.
with_older_headers() {
  local include=$work/older
  cp -r "$work/moved/include" "$include"
  sed -i '/std::function<void(LogLevel level, const std::string& line)> logSink/d' \
    "$include/Kelvara/KelvaraGtk.h"
  cmp -s "$include/Kelvara/KelvaraGtk.h" "$work/moved/include/Kelvara/KelvaraGtk.h" &&
    fail "the last option has another name"
  quietly c++ -std=c++20 -fsanitize=address "$work/consumer/main.cpp" -o "$work/older-consumer" \
    -I"$include" $(pkg-config --cflags --libs kelvara)
  ASAN_OPTIONS=detect_leaks=0 quietly "$work/older-consumer"
}

installed() {
  quietly cmake --install "$build" --prefix "$work/prefix"
  PKG_CONFIG_LIBDIR=/nonexistent configure "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
    &>"$work/log" && fail "found Kelvara without GTK"
  grep -q 'without Kelvara: .*gtk4' "$work/log" || { cat "$work/log"; fail "not said: no GTK"; }
  quietly configure "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix"
  quietly cmake --build "$work/build"
  quietly cmake --install "$work/build" --prefix "$work/host"

  # The prefix moves: everything is found where it is now.
  mv "$work/prefix" "$work/moved"
  local library
  library=$(find "$work/moved" -name libkelvara.so -print -quit)
  export LD_LIBRARY_PATH=${library%/*}
  resources "$library"
  modules "$(echo "${library%/*}"/kelvara-*)"
  with_pkg_config "${library%/*}/pkgconfig"
  with_older_headers
  "$source/tests/abi/check.sh" "$library" "$source" "$build"
}

if [ "$how" = installed ]; then installed; else from_source; fi
