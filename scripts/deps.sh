#!/usr/bin/env bash
# Installs the Debian 12 packages the build, tests and demo need
# (`deps.sh demo`: only what the demo needs). As root it installs what is
# missing; otherwise it prints the one command to run.
set -euo pipefail

# `make demo`: the module against Lua 5.1, OpenSSL, and the local peer.
demo_packages=(
  cmake make g++ pkg-config
  lua5.1 liblua5.1-0-dev
  libssl-dev openssl
  python3 python3-websockets
)
# `make test` adds the other interpreters, the test and fuzzing tools, luarocks,
# c-ares (host names resolved in the loop), Node.js and its ws server (an interop
# peer), ccache (one compile of what the groups build alike), LuaSocket and
# cqueues (the companion module's examples under other loops).
packages=(
  lua5.2 liblua5.2-dev lua5.3 liblua5.3-dev lua5.4 liblua5.4-dev luajit libluajit-5.1-dev
  libmbedtls-dev libwolfssl-dev
  libc-ares-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  luarocks ccache
  lua-socket lua-cqueues
  musl-tools debhelper dpkg-dev
  nodejs node-ws
)
# `deps.sh cross`: also the cross compilers and the emulator (make cross,
# make test; not needed for the demo). apt-get and dpkg-deb make the sysroots.
case "${1:-}" in
  demo) packages=("${demo_packages[@]}") ;;
  cross) packages=("${demo_packages[@]}" "${packages[@]}"
                   crossbuild-essential-arm64 crossbuild-essential-armhf crossbuild-essential-mipsel
                   crossbuild-essential-s390x qemu-user-static) ;;
  *) packages=("${demo_packages[@]}" "${packages[@]}") ;;
esac

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages. Run:" >&2
  echo "  sudo apt-get update && sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi

# apt's output goes to a log; one line here. Another apt or dpkg holding the
# package lock is waited for, LOCK_WAIT seconds at most.
log_dir="$(cd "$(dirname "$0")/.." && pwd)/build-logs"
mkdir -p "$log_dir"
log="$log_dir/deps.log"
lock_wait="${LOCK_WAIT:-600}"
apt_quiet() {
  local waited=0 told=0
  until DEBIAN_FRONTEND=noninteractive apt-get -q -y "$@" >>"$log" 2>&1; do
    if ! tail -n 5 "$log" | grep -qE "Could not get lock|Unable to (acquire|lock)"; then
      echo "apt-get $1 failed; the end of $log:" >&2
      tail -n 15 "$log" >&2
      return 1
    fi
    [ "$told" -eq 1 ] || { echo "deps: waiting for the package lock (another apt or dpkg holds it), ${lock_wait} s at most"; told=1; }
    [ "$waited" -lt "$lock_wait" ] || { echo "deps: the package lock was still held after ${lock_wait} s" >&2; return 1; }
    sleep 5
    waited=$((waited + 5))
  done
}
echo "deps: installing ${missing[*]} (log: $log)"
apt_quiet update
apt_quiet install "${missing[@]}"
