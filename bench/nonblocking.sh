#!/usr/bin/env bash
# bench/nonblocking.lua against the local default peer and bench/stall_peer.py.
#   bench/nonblocking.sh BUILD_DIR
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-build}"
work="$(mktemp -d)"
trap 'exec 3>&-; rm -rf "$work"' EXIT
exec 3> >(/usr/bin/python3 "$here/bench/stall_peer.py" "$work/stall.env" slow.test 3)
for _ in $(seq 50); do [ -s "$work/stall.env" ] && break; sleep 0.1; done
export $(cat "$work/stall.env")
WS_CLIENT_DNS_SERVER="127.0.0.1:$STALL_DNS_PORT" LUA_CPATH="$build/?.so" \
  "$here/scripts/with_peer.sh" -- lua5.1 "$here/bench/nonblocking.lua"
