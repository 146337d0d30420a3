#!/usr/bin/env bash
# Runs a command against a fresh local default peer (tools/peer.py):
#
#   scripts/with_peer.sh [-c CERT_DIR] [-l PEER_LOG] [-t PEER_LIFETIME] [-i IDLE] -- COMMAND [ARGS...]
#
# The peer binds 127.0.0.1 on ports the system picks; its PEER_* settings are
# exported to the command. The peer is stopped when the command ends (and
# stops by itself after PEER_LIFETIME seconds, default 300, whatever happens
# here). IDLE: seconds of silence after which the peer's TCP and TLS echoes
# close (its default otherwise). Exits with the command's status.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cert_dir=""
peer_log=""
lifetime=300
idle=()
while getopts "c:l:t:i:" option; do
  case "$option" in
    c) cert_dir="$OPTARG" ;;
    l) peer_log="$OPTARG" ;;
    t) lifetime="$OPTARG" ;;
    i) idle=(--idle "$OPTARG") ;;
    *) exit 2 ;;
  esac
done
shift $((OPTIND - 1))
[ "${1:-}" = "--" ] && shift
[ $# -gt 0 ] || { echo "usage: $0 [-c CERT_DIR] [-l PEER_LOG] [-t SECONDS] [-i IDLE] -- COMMAND..." >&2; exit 2; }

work="$(mktemp -d)"
[ -n "$cert_dir" ] || cert_dir="$work/certs"
[ -n "$peer_log" ] || peer_log="$work/peer.log"

# Debian's interpreter: the one that has python3-websockets.
/usr/bin/python3 "$here/tools/peer.py" --any-port --lifetime "$lifetime" ${idle[@]+"${idle[@]}"} --cert-dir "$cert_dir" \
  --env-file "$work/peer.env" >"$work/peer.out" 2>"$peer_log" &
peer=$!
child=""
stop_peer() {
  [ -z "$child" ] || kill "$child" 2>/dev/null || true
  kill "$peer" 2>/dev/null || true
  wait "$peer" 2>/dev/null || true
  rm -rf "$work"
}
trap stop_peer EXIT
trap 'exit 130' INT TERM  # through the EXIT trap: the peer goes too

# The env file appears, whole, once every service listens.
for _ in $(seq 1 300); do
  [ -f "$work/peer.env" ] && break
  if ! kill -0 "$peer" 2>/dev/null; then
    echo "the peer did not start:" >&2
    cat "$peer_log" >&2
    exit 1
  fi
  sleep 0.1
done
[ -f "$work/peer.env" ] || { echo "the peer did not get ready in 30 s" >&2; cat "$peer_log" >&2; exit 1; }
cat "$work/peer.out"
set -a
# shellcheck disable=SC1091
. "$work/peer.env"
set +a

# In the background so that a signal to this script is handled at once.
"$@" <&0 &
child=$!
status=0
wait "$child" || status=$?
child=""
exit "$status"
