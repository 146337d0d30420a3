#!/usr/bin/env bash
# Cross builds of the module, size-optimised and stripped, one per
# architecture, each against a sysroot of that architecture's Debian
# packages (scripts/sysroot.sh, cached in BUILD_ROOT/sysroot-ARCH):
#   cross.sh [-t] BUILD_ROOT ARCH...
# The module of ARCH is BUILD_ROOT/ARCH/ws_client.so. With -t each is also
# tested under qemu-user (called directly, the sysroot as QEMU_LD_PREFIX):
# that architecture's lua5.1, and luajit where Debian has it, run the
# examples and the demo against the local peer on the host; on s390x (big
# endian) the unit tests run too. An architecture whose
# packages cannot be had is reported in one line and skipped.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
test=0
[ "${1:-}" = -t ] && { test=1; shift; }
build_root="$(mkdir -p "$1" && cd "$1" && pwd)"
shift
jobs="${JOBS:-2}"

qemu_for() {
  case "$1" in arm64) echo qemu-aarch64-static ;; armhf) echo qemu-arm-static ;; *) echo "qemu-$1-static" ;; esac
}
# The unit tests on s390x: all but three that need what qemu-user does not
# emulate (select() on descriptors above 1023, select() leaving the time
# that remained after a signal).
unit_filter='-MainLoopTest.ServesAFullTableWithDescriptorsAbove1023:MainLoopTest.SignalsCutNeitherTheTimerNorSleep:ToolsTest.ConnectTimeoutConnectsOrReportsRefusedAndTimedOut'

# build ARCH: sysroot, configure, module (and the unit tests on s390x when testing).
build() {
  local arch="$1" dir="$build_root/$1" sysroot="$build_root/sysroot-$1" status=0 tests=OFF
  [ -f "$root/cmake/cross-$arch.cmake" ] || { echo "$arch: no toolchain file cmake/cross-$arch.cmake"; return 1; }
  "$root/scripts/sysroot.sh" "$arch" "$sysroot" || status=$?
  [ "$status" -eq 3 ] && { echo "$arch: skipped"; return 3; }
  [ "$status" -eq 0 ] || return "$status"
  [ "$test" -eq 1 ] && [ "$arch" = s390x ] && grep -q libgtest-dev "$sysroot/root/.complete" && tests=ON
  CXXFLAGS="-ffunction-sections -fdata-sections" LDFLAGS="-Wl,--gc-sections -s" \
    cmake -S "$root" -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/cross-$arch.cmake" \
    -DWS_CLIENT_SYSROOT="$sysroot/root" -DCMAKE_CROSSCOMPILING_EMULATOR="$(qemu_for "$arch");-L;$sysroot/root" \
    -DCMAKE_BUILD_TYPE=MinSizeRel \
    -DWS_CLIENT_TESTS=$tests -DWS_CLIENT_SCRIPT_TESTS=OFF >"$dir.configure.log" 2>&1 ||
    { cat "$dir.configure.log"; return 1; }
  cmake --build "$dir" -j "$jobs" --target ws_client >"$dir.build.log" 2>&1 || { cat "$dir.build.log"; return 1; }
  if [ "$tests" = ON ]; then
    cmake --build "$dir" -j "$jobs" --target ws_client_tests >>"$dir.build.log" 2>&1 || { cat "$dir.build.log"; return 1; }
  fi
  local deps
  deps="$("$root/scripts/module_deps.sh" "$dir/ws_client.so")" || status=1
  echo "$arch: $(stat -c %s "$dir/ws_client.so") bytes stripped, $deps"
  return "$status"
}

# emulated ARCH: the legs, one line each.
emulated() {
  local arch="$1" dir="$build_root/$1" sysroot="$build_root/sysroot-$1/root" qemu lua failed=0 start
  qemu="$(qemu_for "$arch")"
  for lua in lua5.1 luajit; do
    if [ ! -x "$sysroot/usr/bin/$lua" ]; then
      echo "$arch $lua: not run, Debian has no $lua for $arch"
      continue
    fi
    # The interpreter as one command, for the examples' runner.
    printf '#!/bin/sh\nQEMU_LD_PREFIX=%s exec %s %s "$@"\n' "$sysroot" "$qemu" "$sysroot/usr/bin/$lua" >"$dir/$lua"
    chmod +x "$dir/$lua"
    start=$SECONDS
    if ECONNREFUSED_NUMBER="$(case "$arch" in mips*) echo 146 ;; *) echo 111 ;; esac)" \
      "$root/tests/examples_test.sh" "$dir/$lua" "$dir" >"$dir/$lua.log" 2>&1; then
      echo "$arch $lua: examples and demo passed ($((SECONDS - start)) s)"
    else
      echo "$arch $lua: FAILED ($((SECONDS - start)) s)" && sed 's/^/    /' "$dir/$lua.log"
      failed=1
    fi
  done
  if [ -x "$dir/tests/ws_client_tests" ]; then
    start=$SECONDS
    if QEMU_LD_PREFIX="$sysroot" timeout 600 "$qemu" "$dir/tests/ws_client_tests" --gtest_filter="$unit_filter" \
      >"$dir/unit.log" 2>&1; then
      echo "$arch unit tests: $(grep -c '^\[       OK' "$dir/unit.log") passed ($((SECONDS - start)) s)"
    else
      echo "$arch unit tests: FAILED ($((SECONDS - start)) s)" && sed 's/^/    /' "$dir/unit.log"
      failed=1
    fi
  elif [ "$arch" = s390x ]; then
    echo "$arch unit tests: not run, GoogleTest for $arch cannot be had"
  fi
  return "$failed"
}

failed=0
built=()
for arch in "$@"; do
  status=0
  build "$arch" || status=$?
  case "$status" in 0) built+=("$arch") ;; 3) ;; *) echo "$arch: build FAILED"; failed=1 ;; esac
done
if [ "$test" -eq 1 ] && [ ${#built[@]} -gt 0 ]; then
  # Mostly waiting on the peer: the architectures run side by side.
  for arch in "${built[@]}"; do emulated "$arch" >"$build_root/$arch.legs" 2>&1 & done
  for arch in "${built[@]}"; do wait -n || failed=1; done
  for arch in "${built[@]}"; do cat "$build_root/$arch.legs"; done
fi
exit "$failed"
