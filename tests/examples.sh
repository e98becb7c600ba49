#!/usr/bin/env bash
# examples.sh BIN_DIR NAME: plays an interstitial and a rewarded ad in example-NAME with real
# keys under a window manager, and checks what the sandbox server received. Runs in a new network
# namespace, because the examples use the sandbox's default port. Exits 77 where the system refuses
# namespaces or a tool is missing.
set -euo pipefail
bin=$1 name=$2

if [ -z "${INSIDE:-}" ]; then
  for tool in openbox xdotool "$bin/example-$name"; do
    command -v "$tool" >/dev/null || { echo "$tool is missing: skipped"; exit 77; }
  done
  unshare --net true 2>/dev/null || { echo "network namespaces are refused here: skipped"; exit 77; }
  unset DISPLAY WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS
  INSIDE=1 exec unshare --net xvfb-run -a -s "-screen 0 1280x800x24" dbus-run-session -- "$0" "$@"
fi

work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$work"' EXIT
export GTK_A11Y=none NO_AT_BRIDGE=1 XDG_DATA_HOME=$work XDG_RUNTIME_DIR=$work
ip link set lo up
openbox &
"$bin/kelvara-sandbox" --memory --quiet >"$work/sandbox" &
for _ in $(seq 100); do grep -q http "$work/sandbox" && break; sleep 0.1; done
"$bin/example-$name" &>"$work/host" &

# eventually SECONDS COMMAND...
eventually() {
  local end=$((SECONDS + $1))
  shift
  until "$@" &>/dev/null; do
    [ $SECONDS -lt $end ] || { echo "waited in vain: $*"; cat "$work/host"; exit 1; }
    sleep 0.2
  done
}
# reports FIELD COUNT: the server knows COUNT bids whose FIELD is true.
reports() { [ "$(curl -sf 127.0.0.1:8000/control/state | grep -c "\"$1\": true")" = "$2" ]; }
# Escape closes an ad as soon as its close control is there.
closed() { xdotool key Escape && sleep 1 && reports dism "$1"; }
ready() { grep -q "Application initalized" "$work/host"; }

# The SDL example has no buttons.
modifier=alt+
[ "$name" = sdl ] && modifier=
eventually 20 ready
eventually 10 xdotool getactivewindow
xdotool key "${modifier}i"
eventually 30 reports imp 1
eventually 20 closed 1
xdotool key "${modifier}r"
eventually 30 reports imp 2
eventually 40 reports comp 1
eventually 20 closed 2
echo "example-$name played both formats"
