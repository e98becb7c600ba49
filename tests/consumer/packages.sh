#!/usr/bin/env bash
# packages.sh FOLDER: unpacks the Debian packages of FOLDER and runs the demo from them. Needs a
# display.
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "$*"; exit 1; }
declare -A needed=([libkelvara1]="libcurl4 libgtk-4-1 libsqlite3-0 libwebkitgtk-6.0-4"
  [libkelvara-dev]="libkelvara1 libgtk-4-dev" [kelvara-tools]=libkelvara1)
for package in "${!needed[@]}"; do
  deb=$(echo "$1"/${package}_*.deb)
  dpkg-deb -x "$deb" "$work/root"
  depends=$(dpkg-deb -f "$deb" Depends)
  for one in ${needed[$package]}; do
    [[ $depends == *"$one"* ]] || fail "$package does not depend on $one: $depends"
  done
done
library=$(ldd "$work/root/usr/bin/kelvara-demo" | sed -n 's/.*libkelvara.* => \(.*\) (.*/\1/p')
[[ $(realpath "$library") == "$work/root"/* ]] || fail "the demo uses $library"
"$work/root/usr/bin/kelvara-demo" --output "$work/demo"
