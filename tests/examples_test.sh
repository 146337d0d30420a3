#!/usr/bin/env bash
# Every example, the README's tour and the demo run against a fresh local
# default peer, so that they cannot rot; then the demo runs once more with nothing listening and
# must fail within its time limit. The runs are independent and mostly wait:
# they run side by side, their reports printed in order at the end.
#   examples_test.sh INTERPRETER MODULE_DIR
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
if [ "${1:-}" != "--inner" ]; then
  exec "$root/scripts/with_peer.sh" -t 240 -- "$0" --inner "$@"
fi
lua="$2"
export LUA_CPATH="$3/?.so"
reports="$(mktemp -d)"
trap 'rm -rf "$reports"' EXIT
count=0

# run NAME EXPECTED_STATUS SCRIPT [LINE...]: the script exits with the
# expected status and prints every LINE as a whole line (re:LINE: a whole line
# matching that extended regular expression). Started in the background; the
# report goes to a numbered file.
check_run() {
  local name="$1" expected="$2" script="$3" output status=0 problems=() text start=$SECONDS
  shift 3
  [[ "$script" == /* ]] || script="$root/examples/$script"
  output="$(timeout 120 "$lua" "$script" 2>&1)" || status=$?
  [ "$status" -eq "$expected" ] || problems+=("exit status $status, expected $expected")
  for text in "$@"; do
    if [[ "$text" == re:* ]]; then grep -qxE -- "${text#re:}" <<<"$output" || problems+=("no line matching: ${text#re:}")
    else grep -qxF -- "$text" <<<"$output" || problems+=("no line: $text"); fi
  done
  [ ${#problems[@]} -eq 0 ] && { echo "ok   $name ($((SECONDS - start)) s)"; return; }
  printf 'FAIL %s\n' "$name" && printf '     %s\n' "${problems[@]}" && sed 's/^/     | /' <<<"$output"
  return 1
}
run() {  # EXAMPLES_JOBS runs at a time (default 4)
  while [ "$(jobs -rp | wc -l)" -ge "${EXAMPLES_JOBS:-4}" ]; do wait -n || true; done
  count=$((count + 1))
  check_run "$@" >"$reports/$(printf %03d $count)" 2>&1 &
}

run demo 0 demo.lua \
  "ws    message 'hello over ws://'" \
  "wss   message 'hello over wss://'" \
  "http  answer 'HTTP/1.1 200 OK', body 'Hello from the local peer: this body came in four chunks.'" \
  "tls   message 'hello over TLS with a client certificate'" \
  "udp   message 'hello over udp' from 127.0.0.1:$PEER_UDP_PORT" \
  "udp   closed: User do close" \
  "re:summary: 5 of 5 seen in [0-9]+ s"

run ws_echo 0 ws_echo.lua \
  "connection 1 echo: message 3 on connection 1" \
  "connection 1 closed: User do close" \
  "connection 2 open" \
  "6 echoes over 2 connections, 2 rounds complete"

WS_URL="wss://127.0.0.1/echo" PEER_WS_PORT="$PEER_WSS_PORT" run ws_echo_over_wss 0 ws_echo.lua \
  "6 echoes over 2 connections, 2 rounds complete"

run ws_standard 0 ws_standard.lua \
  "ws    open, protocol echo" "ws    text 'a\\0b' (3 bytes)" "ws    binary of 100000 bytes, intact" \
  "ws    closed: User do close, code 4000, reason 'done'" "wss   binary of 100000 bytes, intact" \
  "summary: 2 of 2 closed"

run tcp_http 0 tcp_http.lua \
  "re:sent [0-9]+ bytes" \
  "| HTTP/1.1 200 OK" \
  "| Transfer-Encoding: chunked" \
  "| Hello from the local peer: this body came in four chunks."

run udp_echo 0 udp_echo.lua \
  "sent datagram 5 (10 bytes)" \
  "echo from 127.0.0.1:$PEER_UDP_PORT: datagram 5" \
  "5 sent, 5 echoed"

# The same exchanges written with ws_client.easy (src/ws_client/easy.lua);
# SKIP_EASY (set by cross.sh, with the reason) leaves them out.
if [ -n "${SKIP_EASY:-}" ]; then
  echo "skip easy examples: $SKIP_EASY"
else
  export LUA_PATH="$root/src/?.lua;;"
  run easy_demo 0 easy/demo.lua \
    "ws    message 'hello over ws://'" \
    "wss   message 'hello over wss://'" \
    "http  answer 'HTTP/1.1 200 OK', body 'Hello from the local peer: this body came in four chunks.'" \
    "tls   message 'hello over TLS with a client certificate'" \
    "udp   message 'hello over udp' from 127.0.0.1:$PEER_UDP_PORT" \
    "udp   closed: User do close" \
    "re:summary: 5 of 5 seen in [0-9]+ s"
  run easy_ws_echo 0 easy/ws_echo.lua "reconnect attempt 1: open" "3 echoes over 3 connections"
  WS_URL="wss://127.0.0.1:$PEER_WSS_PORT/close" run easy_ws_echo_over_wss 0 easy/ws_echo.lua \
    "3 echoes over 3 connections"
  run easy_tcp_http 0 easy/tcp_http.lua \
    "| HTTP/1.1 200 OK" \
    "| Hello from the local peer: this body came in four chunks."
  run easy_udp_echo 0 easy/udp_echo.lua \
    "echo from 127.0.0.1:$PEER_UDP_PORT: datagram 5" \
    "5 sent, 5 echoed"
fi

# The README's first script (ws_client.easy) and its tour of the core as
# written, but for the port the peer got.
readme_block() { awk -v want="$1" '/^```lua$/ { n++; on = n == want; next } /^```$/ { on = 0 } on' "$root/README.md"; }
tour="$reports/tour.lua"
readme_block 2 | sed "s/port = 8801,/port = $PEER_WS_PORT,/" >"$tour"
if [ -z "${SKIP_EASY:-}" ]; then
  readme_block 1 | sed "s|:8801/|:$PEER_WS_PORT/|" >"$reports/first.lua"
  run readme_first 0 "$reports/first.lua" "got hello" "closed: User do close"
fi
run readme_tour 0 "$tour" "open" "got hello" "closed: User do close"

run wss_verify 0 wss_verify.lua \
  "wss wrong name: closed: ssl_connect_fail" \
  "summary: right name echo, wrong name refused, tls echo"

# Nothing listens on a port that was just free: every connect is refused and
# the datagram goes unanswered, so the demo ends at its limit and says so.
(
free_port="$(/usr/bin/python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')"
for service in WS WSS HTTP TLS UDP; do export "PEER_${service}_PORT=$free_port"; done
# ECONNREFUSED is 146 on MIPS (cross.sh says so there).
DEMO_SECONDS=2 run demo_without_peer 1 demo.lua \
  "http  error ${ECONNREFUSED_NUMBER:-111}: Connection refused" \
  "re:summary: 0 of 5 seen in [0-9]+ s, missing: ws, wss, http, tls, udp"
[ -n "${SKIP_EASY:-}" ] || DEMO_SECONDS=2 run easy_demo_without_peer 1 easy/demo.lua \
  "http  error ${ECONNREFUSED_NUMBER:-111}: Connection refused" \
  "re:summary: 0 of 5 seen in [0-9]+ s, missing: ws, wss, http, tls, udp"
wait
)

wait
cat "$reports"/[0-9]*
failed="$(cat "$reports"/[0-9]* | grep -c '^FAIL' || true)"
echo "$failed failed"
[ "$failed" -eq 0 ]
