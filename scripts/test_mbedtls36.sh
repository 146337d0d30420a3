#!/usr/bin/env bash
# The whole suite (unit tests, examples, demo, companion, install) on
# mbedTLS 3.6: Debian 13's packages unpacked into BUILD_DIR/trixie/root
# (scripts/debian_root.sh, kept for later runs), the module built against
# them and run with that root's libraries first on the search path.
#   test_mbedtls36.sh BUILD_DIR
# One line like every make test group; the counts in BUILD_DIR/test-counts.
#   test_mbedtls36.sh --settings BUILD_DIR
# Makes the root only and prints LD_LIBRARY_PATH=DIR and the CMake options,
# one a line (for tools/mutate.py).
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
settings=0
[ "$1" = --settings ] && { settings=1; shift; }
dir="$(mkdir -p "$1" && cd "$1" && pwd)"
debian="$dir/trixie"
if ! "$root/scripts/debian_root.sh" trixie amd64 "$debian" \
  libmbedtls-dev libmbedtls21 libmbedx509-7 libmbedcrypto16 >"$dir/root.log" 2>&1; then
  echo "mbedtls3.6: Debian 13 packages cannot be had: $(tail -n 1 "$dir/root.log")"
  echo "0 1" >"$dir/test-counts"
  exit 1
fi
libs="$debian/root/usr/lib/x86_64-linux-gnu"
library="$(basename "$(echo "$libs"/libmbedtls.so.3.*)")"
# The host's own mbedTLS 2.28 stays installed: every path points into the root.
options=(-DWS_CLIENT_TLS=mbedtls -DMBEDTLS_INCLUDE_DIR="$debian/root/usr/include" -DMBEDTLS_LIBRARY="$libs/libmbedtls.so"
  -DMBEDX509_LIBRARY="$libs/libmbedx509.so" -DMBEDCRYPTO_LIBRARY="$libs/libmbedcrypto.so"
  -DWS_CLIENT_EXPECT_TLS_LIBRARY="$library")
if [ "$settings" = 1 ]; then
  printf '%s\n' "LD_LIBRARY_PATH=$libs" "${options[@]}"
  exit 0
fi
export LD_LIBRARY_PATH="$libs"
# The rock is built on OpenSSL, from the 5.1 build of `make test-plain`.
export CTEST_ARGS="${CTEST_ARGS:--E rockspec}"
cd "$root" && exec scripts/test_group.sh mbedtls3.6 "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${options[@]}"
