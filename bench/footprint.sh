#!/usr/bin/env bash
# Memory footprint of the built module against a fresh local peer:
#   bench/footprint.sh INTERPRETER MODULE_DIR [LABEL]
# For each kind, one process (bench/footprint.lua) reports its VmRSS before
# and after loading the module, after one connection and after 100; then the
# module's stripped size, the TLS libraries it loads and their sizes, and the
# wss round-trip rate of the same build. The TLS echo is kept open for the
# whole run (-i), so that 100 TLS connections are alive together.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
if [ "${1:-}" != "--inner" ]; then
  exec "$root/scripts/with_peer.sh" -t 300 -i 120 -- "$0" --inner "$@"
fi
lua="$2" module_dir="$(cd "$3" && pwd)" label="${4:-$(basename "$module_dir")}"
module="$module_dir/ws_client.so"
export LUA_CPATH="$module_dir/?.so"

echo "== footprint: $label (VmRSS in kB; deltas over the loaded module)"
printf '%-5s %12s %8s %10s %12s %14s\n' kind interpreter loaded "+1 conn" "+100 conns" "per conn (99)"
lines=()
for kind in ws wss tcp tls udp; do
  line="$("$lua" "$root/bench/footprint.lua" "$kind")"
  lines+=("$line")
  awk '{ printf "%-5s %12d %8d %10d %12d %14.1f\n", $1, $2, $3, $4 - $3, $5 - $3, ($5 - $4) / 99 }' <<<"$line"
done
echo "== the same in kB of VmSize (virtual); 'loaded' is what loading the module added"
printf '%-5s %12s %8s %10s %12s %14s\n' kind interpreter loaded "+1 conn" "+100 conns" "per conn (99)"
for line in "${lines[@]}"; do
  awk '{ printf "%-5s %12d %8d %10d %12d %14.1f\n", $1, $6, $7 - $6, $8 - $7, $9 - $7, ($9 - $8) / 99 }' <<<"$line"
done

stripped="$(mktemp)"
trap 'rm -f "$stripped"' EXIT
strip --strip-unneeded -o "$stripped" "$module"
echo "module: $(stat -c %s "$stripped") bytes stripped ($(stat -c %s "$module") as built)"
# The TLS and crypto libraries the module pulls in, by file size.
tls_total=0
while read -r name path; do
  size="$(stat -L -c %s "$path")"
  tls_total=$((tls_total + size))
  echo "library: $name $size bytes"
done < <(ldd "$module" | awk '$1 ~ /ssl|crypto|mbed|wolf/ && $3 ~ /^\// { print $1, $3 }')
echo "TLS libraries: $tls_total bytes"

line="$("$lua" "$root/bench/footprint.lua" rate 3)"
awk '{ printf "wss round trips: %d/s (%d in %d s, one in flight)\n", $2 / $3, $2, $3 }' <<<"$line"
