#!/usr/bin/env bash
# The Debian recipe: `dpkg-buildpackage -us -uc -b` on a copy of the tracked
# files, the packages unpacked into a throwaway root (dpkg -x), and the
# module loaded from there by each Lua version and LuaJIT, the way the Lua
# policy's paths put it on their search paths.
#   test_debian.sh BUILD_DIR   (the build's log in BUILD_DIR/test.log)
# One line like every make test group; the counts in BUILD_DIR/test-counts.
set -uo pipefail
source_dir="$(cd "$(dirname "$0")/.." && pwd)"
here="$source_dir/tests"
dir="$(mkdir -p "$1" && cd "$1" && pwd)"
start=$SECONDS
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
fail() { echo "debian: $1 ($dir/test.log)"; echo "0 1" >"$dir/test-counts"; exit 1; }
tree="$work/lua-ws-client"
mkdir "$tree"
(cd "$source_dir" && git ls-files -z | xargs -0 cp --parents -t "$tree")
(cd "$tree" && DEB_BUILD_OPTIONS="parallel=${JOBS:-2}" dpkg-buildpackage -us -uc -b) >"$dir/test.log" 2>&1 ||
  fail "dpkg-buildpackage failed"
for deb in "$work"/*.deb; do dpkg -x "$deb" "$work/root"; done
multiarch="$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
depends="$(dpkg-deb -f "$work"/lua-ws-client_*.deb Depends)"
[[ "$depends" == *libssl3* ]] || fail "the package depends on: $depends"
for lua in lua5.1 lua5.2 lua5.3 lua5.4 luajit; do
  version="${lua#lua}"
  [ "$lua" = luajit ] && version=5.1
  module="$work/root/usr/lib/$multiarch/lua/$version/ws_client.so"
  ! readelf -S "$module" | grep -q '\.symtab' || fail "$module is not stripped"
  LUA_CPATH="${module%ws_client.so}?.so" LUA_PATH="$work/root/usr/share/lua/$version/?.lua" \
    "$lua" -e 'assert(require("ws_client.easy").run)' -e "dofile('$here/lua/load_module.lua')" >>"$dir/test.log" 2>&1 ||
    fail "the packaged module does not load under $lua"
done
echo "1 0" >"$dir/test-counts"
echo "debian: $(cd "$work" && ls ./*.deb | wc -l) packages built, the module loaded from them by lua5.1-5.4 and luajit in $((SECONDS - start)) s"
