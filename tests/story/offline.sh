#!/usr/bin/env bash
# offline.sh BIN_DIR: runs the SDK in a new network namespace, which has only loopback at first and
# no IPv6. The SDK refuses to start with code 4. Then a link with a default route comes up, and the
# SDK initialises itself. Half a second after the link goes down a bid is refused with code 4, and
# half a second after it is up again a bid is answered. Exits 77 where the system refuses namespaces.
set -euo pipefail
bin=$1

if [ "${2:-}" != inside ]; then
  unshare --net true 2>/dev/null || { echo "network namespaces are refused here: skipped"; exit 77; }
  exec unshare --net "$0" "$bin" inside
fi

work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT
ip link set lo up
echo 1 >/proc/sys/net/ipv6/conf/all/disable_ipv6

"$bin/kelvara-sandbox" --port 0 --quiet --memory >"$work/sandbox" &
for _ in $(seq 100); do
  origin=$(grep -o 'http://[0-9.:]*' "$work/sandbox" | head -1 || true)
  [ -n "$origin" ] && break
  sleep 0.1
done

mkfifo "$work/commands"
"$bin/story_host" "$origin/api/v1" "$work/defaults.sqlite" follow <"$work/commands" >>"$work/host" &
exec 3>"$work/commands"

# Waits until a line of the host contains $1. Sends the command $2, if given, on each try.
await() {
  for _ in $(seq 200); do
    grep -qF "$1" "$work/host" && return 0
    [ -n "${2:-}" ] && echo "$2" >&3
    sleep 0.1
  done
  echo "waited in vain for: $1"; cat "$work/host"; exit 1
}

await "= ready"
echo "start 5e0f6c1a-8d0b-4a52-9b3e-6f2f3c9d7a10" >&3
await "= started 4"
await "<KVA> [E]: Wait connection for initialization."
echo initialized >&3
await "= no"

ip link add outside type veth peer name inside
ip address add 192.0.2.1/24 dev outside
ip link set inside up
ip link set outside up
ip route add default via 192.0.2.2
await "= yes" initialized
[ "$(grep -c '^= started' "$work/host")" = 1 ] || { echo "the retry called the host"; exit 1; }

for rest in 0 0.5 3.5; do
  : >"$work/host"
  ip link set inside down
  sleep 0.5
  echo "bid 0b7c2f9e-5d43-4f0e-8a61-1d9be0a4c201" >&3
  await "= no bid 4"
  sleep $rest
  ip link set inside up
  sleep 0.5
  : >"$work/host"
  echo "bid 0b7c2f9e-5d43-4f0e-8a61-1d9be0a4c201" >&3
  await "= bid "
done
echo "offline: refused with code 4 during each outage, working by itself after each"
