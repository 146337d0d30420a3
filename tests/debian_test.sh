#!/usr/bin/env bash
# The Debian recipe: `dpkg-buildpackage -us -uc -b` on a copy of the tracked
# files, the packages unpacked into a throwaway root (dpkg -x), and the
# module loaded from there by each Lua version and LuaJIT, the way the Lua
# policy's paths put it on their search paths.
#   debian_test.sh SOURCE_DIR
set -euo pipefail
source_dir="$(cd "$1" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
tree="$work/lua-ws-client"
mkdir "$tree"
(cd "$source_dir" && git ls-files -z | xargs -0 cp --parents -t "$tree")
(cd "$tree" && DEB_BUILD_OPTIONS="parallel=${JOBS:-2}" dpkg-buildpackage -us -uc -b) >"$work/build.log" 2>&1 ||
  { tail -n 30 "$work/build.log"; exit 1; }
for deb in "$work"/*.deb; do dpkg -x "$deb" "$work/root"; done
multiarch="$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
depends="$(dpkg-deb -f "$work"/lua-ws-client_*.deb Depends)"
[[ "$depends" == *libssl3* ]] || { echo "package depends on: $depends" >&2; exit 1; }
for lua in lua5.1 lua5.2 lua5.3 lua5.4 luajit; do
  version="${lua#lua}"
  [ "$lua" = luajit ] && version=5.1
  module="$work/root/usr/lib/$multiarch/lua/$version/ws_client.so"
  ! readelf -S "$module" | grep -q '\.symtab' || { echo "$module is not stripped" >&2; exit 1; }
  LUA_CPATH="${module%ws_client.so}?.so" LUA_PATH="$work/root/usr/share/lua/$version/?.lua" \
    "$lua" -e 'assert(require("ws_client.easy").run)' -e "dofile('$here/lua/load_module.lua')"
done
echo "built $(cd "$work" && ls ./*.deb | wc -l) packages; the module loads from each under lua5.1-5.4 and luajit"
