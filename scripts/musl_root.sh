#!/usr/bin/env bash
# A musl world in DIR/root, built here with Debian's musl-gcc from Debian's
# source packages (scripts/debian_root.sh -s): lua5.1 (bin/lua5.1 and its
# headers) and mbedTLS 3.6 (shared libraries and headers, the upstream
# configuration: TLS 1.2 and 1.3). Nothing goes into the host's directories.
#   musl_root.sh DIR
# Done once: a later run finds DIR/root/.complete and returns at once.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
dir="$(mkdir -p "$1" && cd "$1" && pwd)"
jobs="${JOBS:-2}"
# Bookworm's lua5.1 (the host's own release), Debian 13's mbedTLS.
wanted="lua5.1 bookworm, mbedtls trixie"
[ -f "$dir/root/.complete" ] && [ "$(cat "$dir/root/.complete")" = "$wanted" ] && exit 0
command -v musl-gcc >/dev/null || { echo "musl-gcc not found (Debian's musl-tools)"; exit 3; }
"$root/scripts/debian_root.sh" -s bookworm "$dir/lua-source" lua5.1
"$root/scripts/debian_root.sh" -s trixie "$dir/mbedtls-source" mbedtls
rm -rf "$dir/root"
mkdir -p "$dir/root/bin" "$dir/root/include" "$dir/root/lib"

# Lua: the interpreter and its library in one program (Debian's makefile
# wants libtool), POSIX and dlopen, no readline, every symbol exported for
# the modules. Debian's module path patch reads its multiarch name from a
# header its rules write.
lua="$dir/lua-source/src/lua5.1/src"
echo '#define DEB_HOST_MULTIARCH "x86_64-linux-musl"' >"$lua/lua5.1-deb-multiarch.h"
(cd "$lua" && musl-gcc -O2 -Wall -DLUA_USE_POSIX -DLUA_USE_DLOPEN -Wl,-E -o lua \
  $(ls l*.c | grep -vx 'luac.c') -lm) >"$dir/lua.log" 2>&1 || { tail -n 20 "$dir/lua.log"; exit 1; }
cp "$lua/lua" "$dir/root/bin/lua5.1"
cp "$lua"/{lua.h,luaconf.h,lualib.h,lauxlib.h,lua5.1-deb-multiarch.h} "$lua/../etc/lua.hpp" "$dir/root/include/"

# mbedTLS: its own makefile, shared libraries.
mbedtls="$dir/mbedtls-source/src/mbedtls"
make -C "$mbedtls/library" -j "$jobs" CC=musl-gcc SHARED=1 CFLAGS="-Os -fPIC" >"$dir/mbedtls.log" 2>&1 ||
  { tail -n 20 "$dir/mbedtls.log"; exit 1; }
cp -a "$mbedtls"/library/lib*.so* "$dir/root/lib/"
cp -a "$mbedtls/include/mbedtls" "$mbedtls/include/psa" "$dir/root/include/"
echo "$wanted" >"$dir/root/.complete"
