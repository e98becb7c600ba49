#!/usr/bin/env bash
# hardening.sh BUILD_TYPE BINARY...: the ways in which our binaries are built to resist attack, read
# from the binaries themselves. A shared library may lack the entry point that makes a program one
# at a random address; everything else holds for both.
set -euo pipefail
build_type=$1
shift

failed=0
for binary; do
  complain() { echo "$(basename "$binary"): $1"; failed=1; }
  header=$(readelf --wide --file-header "$binary")
  segments=$(readelf --wide --program-headers "$binary")
  dynamic=$(readelf --wide --dynamic "$binary")
  symbols=$(readelf --wide --dyn-syms "$binary")

  grep -q 'Type: *DYN' <<<"$header" || complain "not position independent"
  if grep -q INTERP <<<"$segments"; then
    grep -q 'FLAGS_1.*PIE' <<<"$dynamic" || complain "a program, but no PIE"
  fi
  grep -q GNU_RELRO <<<"$segments" || complain "no RELRO"
  grep -qE 'BIND_NOW|FLAGS_1.*NOW' <<<"$dynamic" || complain "symbols are bound late"
  grep -E 'GNU_STACK' <<<"$segments" | grep -q 'RWE' && complain "an executable stack"
  grep -E '^ *LOAD' <<<"$segments" | grep -q 'RWE' && complain "memory that can be written and run"
  grep -q 'TEXTREL' <<<"$dynamic" && complain "code that is changed when it is loaded"
  grep -q '__stack_chk_fail' <<<"$symbols" || complain "no stack protector"
  # Fortified calls exist only where the optimiser has run.
  case $build_type in
    Release | RelWithDebInfo)
      grep -qE '__[a-z]+_chk' <<<"$(grep -v __stack_chk_fail <<<"$symbols")" ||
        complain "no fortified calls" ;;
  esac
done
[ "$failed" = 0 ] && echo "hardened: $*"
exit "$failed"
