#!/usr/bin/env bash
# The module on musl: built with Debian's musl-gcc route (cmake/musl.cmake)
# against mbedTLS 3.6 built for musl, then the script-level tests (module
# load, the examples and the demo, the companion module's test, install, the
# loaded TLS library) under a musl lua5.1 against the local peer. The musl
# world (scripts/musl_root.sh) is kept in BUILD_DIR/root for later runs.
#   test_musl.sh BUILD_DIR
# One line like every make test group; the counts in BUILD_DIR/test-counts.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
dir="$(mkdir -p "$1" && cd "$1" && pwd)"
start=$SECONDS
if ! JOBS="${JOBS:-2}" "$root/scripts/musl_root.sh" "$dir" >"$dir/root.log" 2>&1; then
  echo "musl: the musl root could not be made ($dir/root.log): $(tail -n 1 "$dir/root.log")"
  echo "0 1" >"$dir/test-counts"
  exit 1
fi
musl="$dir/root"
made=$((SECONDS - start))
# The interpreter as one command: musl's loader finds the root's libraries.
printf '#!/bin/sh\nLD_LIBRARY_PATH=%s exec %s "$@"\n' "$musl/lib" "$musl/bin/lua5.1" >"$dir/lua5.1-musl"
chmod +x "$dir/lua5.1-musl"
library="$(basename "$(echo "$musl"/lib/libmbedtls.so.[0-9]*)")"
# The rock is built on OpenSSL for the host's interpreters: not here.
export CTEST_ARGS="${CTEST_ARGS:--E rockspec}"
cd "$root" && scripts/test_group.sh musl "$dir/build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/musl.cmake" \
  -DCMAKE_BUILD_TYPE=MinSizeRel -DWS_CLIENT_TLS=mbedtls -DWS_CLIENT_TESTS=OFF -DLUA_INCDIR="$musl/include" \
  -DMBEDTLS_INCLUDE_DIR="$musl/include" -DMBEDTLS_LIBRARY="$musl/lib/libmbedtls.so" \
  -DMBEDX509_LIBRARY="$musl/lib/libmbedx509.so" -DMBEDCRYPTO_LIBRARY="$musl/lib/libmbedcrypto.so" \
  -DWS_CLIENT_INTERPRETER="$dir/lua5.1-musl" -DWS_CLIENT_EXPECT_TLS_LIBRARY="$library"
status=$?
cp "$dir/build/test-counts" "$dir/test-counts"
[ "$made" -gt 5 ] && echo "  (the musl root took $made s to make, once)"
exit "$status"
