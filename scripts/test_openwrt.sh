#!/usr/bin/env bash
# The OpenWrt recipe (packaging/openwrt/ws-client/Makefile) run as that build
# system would run it (packaging/openwrt/emulation: its variables, CMake
# call and install step) for arm64 with the mbedTLS option: Debian's arm64
# cross compiler with OpenWrt's flags for a Cortex-A53, a staging directory
# laid out as OpenWrt's (Debian 13's arm64 mbedTLS 3.6 and Lua 5.1 headers,
# scripts/debian_root.sh), the source from `make dist` (the commit checked
# out). The package's files are checked, and the module is loaded by
# Debian's arm64 lua5.1 under qemu-user (the arm64 sysroot of make cross,
# ARM64_SYSROOT, default build-cross/sysroot-arm64).
#   test_openwrt.sh BUILD_DIR
# One line like every make test group; the counts in BUILD_DIR/test-counts.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
dir="$(mkdir -p "$1" && cd "$1" && pwd)"
start=$SECONDS
log="$dir/test.log"
fail() { echo "openwrt: $1 ($log)"; echo "0 1" >"$dir/test-counts"; exit 1; }
: >"$log"
debian="$dir/trixie-arm64"
"$root/scripts/debian_root.sh" trixie arm64 "$debian" libmbedtls-dev libmbedtls21 libmbedx509-7 libmbedcrypto16 \
  liblua5.1-0-dev >>"$log" 2>&1 || fail "Debian 13 arm64 packages cannot be had"
sysroot="${ARM64_SYSROOT:-$root/build-cross/sysroot-arm64}"
"$root/scripts/sysroot.sh" arm64 "$sysroot" >>"$log" 2>&1 || fail "the arm64 sysroot cannot be made"

# OpenWrt's staging directory: headers and libraries straight under usr/.
staging="$dir/staging"
rm -rf "$staging" "$dir/top"
mkdir -p "$staging/usr/include" "$staging/usr/lib" "$dir/top/include"
for from in usr/include usr/include/lua5.1 usr/include/aarch64-linux-gnu; do
  find "$debian/root/$from" -mindepth 1 -maxdepth 1 ! -name lua5.1 ! -name aarch64-linux-gnu \
    -exec ln -s -t "$staging/usr/include" {} +
done
ln -s -t "$staging/usr/lib" "$debian"/root/usr/lib/aarch64-linux-gnu/libmbed*
ln -s "$root/packaging/openwrt/emulation/rules.mk" "$dir/top/rules.mk"
ln -s -t "$dir/top/include" "$root"/packaging/openwrt/emulation/include/*.mk
"$root/scripts/dist.sh" "$dir/top/dl" >>"$log" 2>&1 || fail "make dist failed"

make -C "$root/packaging/openwrt/ws-client" TOPDIR="$dir/top" STAGING_DIR="$staging" ARCH=aarch64 \
  TARGET_CC=aarch64-linux-gnu-gcc TARGET_CXX=aarch64-linux-gnu-g++ \
  TARGET_CFLAGS="-Os -pipe -mcpu=cortex-a53 -fno-caller-saves -fno-plt -fstack-protector -D_FORTIFY_SOURCE=1" \
  TARGET_LDFLAGS="-Wl,-z,now -Wl,-z,relro" CONFIG_WS_CLIENT_TLS_MBEDTLS=y -j "${JOBS:-2}" compile >>"$log" 2>&1 ||
  fail "the recipe's build failed"

package="$(echo "$dir"/top/build_dir/ws_client-*/ipkg-lua-ws-client)"
files="$(cd "$package" && find . -type f | sort | tr '\n' ' ')"
[ "$files" = "./usr/lib/lua/ws_client.so ./usr/lib/lua/ws_client/easy.lua " ] || fail "package files: $files"
module="$package/usr/lib/lua/ws_client.so"
readelf -h "$module" | grep -q 'AArch64' || fail "the module is not for arm64"
deps="$("$root/tests/module_deps.sh" "$module")" || fail "$deps"
[[ "$deps" == *libmbedtls.so.21* ]] || fail "the mbedTLS option built a module on something else: $deps"
QEMU_LD_PREFIX="$sysroot/root" LD_LIBRARY_PATH="$debian/root/usr/lib/aarch64-linux-gnu" \
  LUA_CPATH="$package/usr/lib/lua/?.so" LUA_PATH="$package/usr/lib/lua/?.lua" \
  qemu-aarch64-static "$sysroot/root/usr/bin/lua5.1" -e 'assert(require("ws_client.easy").run)' \
  "$root/tests/lua/load_module.lua" >>"$log" 2>&1 || fail "the packaged module does not load under qemu"
echo "1 0" >"$dir/test-counts"
echo "openwrt: recipe built for arm64 on mbedTLS 3.6, package checked and loaded in $((SECONDS - start)) s ($(stat -c %s "$module") bytes unstripped, $deps)"
