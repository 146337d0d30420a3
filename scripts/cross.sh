#!/usr/bin/env bash
# Cross builds of the module, size-optimised and stripped, one per
# architecture, each against a sysroot of that architecture's Debian
# packages (scripts/sysroot.sh; kept in SYSROOTS/sysroot-ARCH, by default
# ~/.cache/ws_client, like apt's own package cache, so a new checkout or a
# clean does not download them again):
#   cross.sh [-t] BUILD_ROOT ARCH...
# The module of ARCH is BUILD_ROOT/ARCH/ws_client.so. With -t each is also
# tested under qemu-user (called directly, the sysroot as QEMU_LD_PREFIX):
# that architecture's lua5.1, and luajit where Debian has it, run the
# examples and the demo against the local peer on the host; on s390x (big
# endian) the unit tests run too. An architecture whose packages cannot be
# had is reported in one line and skipped. TLS=mbedtls or TLS=wolfssl builds
# on that library instead of OpenSSL, in BUILD_ROOT/ARCH-TLS.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
test=0
[ "${1:-}" = -t ] && { test=1; shift; }
build_root="$(mkdir -p "$1" && cd "$1" && pwd)"
shift
jobs="${JOBS:-2}"
sysroots="${SYSROOTS:-${XDG_CACHE_HOME:-$HOME/.cache}/ws_client}"
werror="${WERROR:-OFF}"  # make test turns warnings into errors
tls="${TLS:-openssl}"
suffix=""
[ "$tls" = openssl ] || suffix="-$tls"

qemu_for() {
  case "$1" in arm64) echo qemu-aarch64-static ;; armhf) echo qemu-arm-static ;; *) echo "qemu-$1-static" ;; esac
}
# The unit tests on s390x: all but those that need what qemu-user does not
# emulate (select() on descriptors above 1023, select() leaving the time
# that remained after a signal), and the io_timeout bounds: emulation on a
# busy machine stretches a TLS handshake past their 0.3 s (the native groups
# check them). The two queue-drain rows are left out too: under emulation on a
# loaded machine the socket write itself sometimes fails with ENOBUFS ("No
# buffer space available", reported and closed as any failed write), which a
# native kernel does not do on a TCP socket; every native group runs them.
unit_filter='-SocketTest.LoopServesAFullTableAbove1023:WsTest.ConnectTimesOut:ProtectTest.IoTimeoutBoundsEveryUnboundedWait:SocketTest.NonblockingSendsQueueInOrderBoundedByMaxQueue:WsStandardTest.QueueBoundAndDrain'

# build ARCH: sysroot, configure, module.
build() {
  local arch="$1" dir="$build_root/$1$suffix" sysroot="$sysroots/sysroot-$1" status=0 deps
  [ -f "$root/cmake/cross-$arch.cmake" ] || { echo "$arch: no toolchain file cmake/cross-$arch.cmake"; return 1; }
  "$root/scripts/sysroot.sh" "$arch" "$sysroot" || status=$?
  [ "$status" -eq 3 ] && { echo "$arch: skipped"; return 3; }
  [ "$status" -eq 0 ] || return "$status"
  CXXFLAGS="-ffunction-sections -fdata-sections" LDFLAGS="-Wl,--gc-sections -s" \
    cmake -S "$root" -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/cross-$arch.cmake" \
    -DWS_CLIENT_SYSROOT="$sysroot/root" -DCMAKE_CROSSCOMPILING_EMULATOR="$(qemu_for "$arch");-L;$sysroot/root" \
    -DCMAKE_BUILD_TYPE=MinSizeRel -DWS_CLIENT_TLS="$tls" -DWS_CLIENT_WERROR="$werror" \
    -DWS_CLIENT_TESTS=OFF -DWS_CLIENT_SCRIPT_TESTS=OFF >"$dir.configure.log" 2>&1 ||
    { cat "$dir.configure.log"; return 1; }
  cmake --build "$dir" -j "$jobs" --target ws_client >"$dir.build.log" 2>&1 || { cat "$dir.build.log"; return 1; }
  deps="$("$root/tests/module_deps.sh" "$dir/ws_client.so")" || status=1
  echo "$arch$suffix: $(stat -c %s "$dir/ws_client.so") bytes stripped, $deps"
  return "$status"
}

# interpreter ARCH LUA: the examples and the demo under that architecture's LUA.
interpreter() {
  local arch="$1" lua="$2" dir="$build_root/$1$suffix" sysroot="$sysroots/sysroot-$1/root" start=$SECONDS
  local name="$1$suffix"
  if [ ! -x "$sysroot/usr/bin/$lua" ]; then
    echo "$name $lua: not run, Debian has no $lua for $arch"
    return 0
  fi
  # The interpreter as one command, for the examples' runner.
  printf '#!/bin/sh\nQEMU_LD_PREFIX=%s exec %s %s "$@"\n' "$sysroot" "$(qemu_for "$arch")" "$sysroot/usr/bin/$lua" \
    >"$dir/$lua"
  chmod +x "$dir/$lua"
  # Under qemu-user 7.2 Debian's LuaJIT gets float floor and modulo wrong on
  # mipsel (floor(7.5) is 7.5) and faults on them on s390x (Illegal
  # instruction); the companion module uses both, the core's examples neither.
  local skip_easy=""
  local remainder
  remainder="$("$dir/$lua" -e 'io.write(10 % 3)' 2>/dev/null)" || true
  [ "$remainder" = 1 ] || skip_easy="$lua under qemu-user gets 10 % 3 wrong or faults on it"
  # one example at a time: under emulation each one keeps a core busy
  if EXAMPLES_JOBS=1 SKIP_EASY="$skip_easy" ECONNREFUSED_NUMBER="$(case "$arch" in mips*) echo 146 ;; *) echo 111 ;; esac)" \
    "$root/tests/examples_test.sh" "$dir/$lua" "$dir" >"$dir/$lua.log" 2>&1; then
    echo "$name $lua: examples and demo passed ($((SECONDS - start)) s)${skip_easy:+; companion examples skipped: $skip_easy}"
  else
    echo "$name $lua: FAILED ($((SECONDS - start)) s)" && sed 's/^/    /' "$dir/$lua.log"
    return 1
  fi
}

# build_unit_tests ARCH: the unit tests, unoptimised (it compiles twice as fast).
build_unit_tests() {
  local arch="$1" dir="$build_root/$1-tests" sysroot="$sysroots/sysroot-$1/root"
  grep -q libgtest-dev "$sysroot/.complete" || return 0
  { cmake -S "$root" -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/cross-$arch.cmake" -DWS_CLIENT_SYSROOT="$sysroot" \
      -DCMAKE_CROSSCOMPILING_EMULATOR="$(qemu_for "$arch");-L;$sysroot" -DCMAKE_BUILD_TYPE=Plain \
      -DWS_CLIENT_TESTS=ON -DWS_CLIENT_SCRIPT_TESTS=OFF -DWS_CLIENT_WERROR="$werror" &&
    cmake --build "$dir" -j "$jobs" --target ws_client_tests; } >"$dir.build.log" 2>&1 ||
    { echo "$arch unit tests: build FAILED" && cat "$dir.build.log"; return 1; }
}

# unit_tests ARCH: run under the emulator.
unit_tests() {
  local arch="$1" dir="$build_root/$1-tests" sysroot="$sysroots/sysroot-$1/root" start=$SECONDS
  if ! grep -q libgtest-dev "$sysroot/.complete"; then
    echo "$arch unit tests: not run, GoogleTest for $arch cannot be had"
    return 0
  fi
  build_unit_tests "$arch" || return 1
  if QEMU_LD_PREFIX="$sysroot" timeout 600 "$(qemu_for "$arch")" "$dir/tests/ws_client_tests" \
    --gtest_filter="$unit_filter" >"$dir/unit.log" 2>&1; then
    echo "$arch unit tests: $(grep -c '^\[       OK' "$dir/unit.log") passed ($((SECONDS - start)) s)"
  else
    echo "$arch unit tests: FAILED ($((SECONDS - start)) s)" && sed 's/^/    /' "$dir/unit.log"
    return 1
  fi
}

failed=0
built=()
for arch in "$@"; do
  status=0
  build "$arch" || status=$?
  case "$status" in 0) built+=("$arch") ;; 3) ;; *) echo "$arch: build FAILED"; failed=$((failed + 1)) ;; esac
  if [ "$status" -eq 0 ] && [ "$test" -eq 0 ] && [ "$arch" = s390x ] && [ "$tls" = openssl ]; then
    build_unit_tests "$arch" || failed=$((failed + 1))
  fi
done
broken=$failed
if [ "$test" -eq 1 ] && [ ${#built[@]} -gt 0 ]; then
  pids=()
  for arch in "${built[@]}"; do rm -f "$build_root/$arch$suffix".*.leg; done
  # The unit tests first, alone: some bound a wait that emulation on a busy
  # machine stretches. Then the interpreters' legs, all side by side.
  for arch in "${built[@]}"; do
    [ "$arch" = s390x ] && [ "$tls" = openssl ] && { unit_tests "$arch" >"$build_root/$arch.unit.leg" 2>&1 || failed=1; }
  done
  for arch in "${built[@]}"; do
    for lua in lua5.1 luajit; do interpreter "$arch" "$lua" >"$build_root/$arch$suffix.$lua.leg" 2>&1 & pids+=($!); done
  done
  for pid in "${pids[@]}"; do wait "$pid" || failed=1; done
  legs=()
  for arch in "${built[@]}"; do legs+=("$build_root/$arch$suffix".*.leg); done
  cat "${legs[@]}"
  # For make test's total (TEST_COUNTS names the file): legs passed, legs (and builds) failed.
  echo "$(grep -l -E ': [^:]* passed \(' "${legs[@]}" | wc -l) $((broken + $(grep -l 'FAILED' "${legs[@]}" | wc -l)))" \
    >"${TEST_COUNTS:-$build_root/test-counts$suffix}"
fi
[ "$failed" -eq 0 ]
