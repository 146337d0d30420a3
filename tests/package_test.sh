#!/usr/bin/env bash
# The installed module loads, installed either way:
#   package_test.sh install BUILD_DIR CMOD_DIR INTERPRETER LMOD_DIR: `cmake
#     --install` into a staging directory puts ws_client.so into CMOD_DIR and
#     ws_client/easy.lua into LMOD_DIR, and nothing else;
#   package_test.sh rock SOURCE_DIR INTERPRETER: the rockspec is well formed and
#     `luarocks make` builds the module with CMake into a rock tree.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
if [ "$1" = install ]; then
  lua="$4" module_dir="$work/$3" lua_dir="$work/$5"
  DESTDIR="$work" cmake --install "$2" >/dev/null
  installed="$(cd "$work" && find . -type f | sort)"
  expected="$(printf '%s\n' "./${3#/}/ws_client.so" "./${5#/}/ws_client/easy.lua" | sort)"
  [ "$installed" = "$expected" ] || { printf 'installed:\n%s\n' "$installed" >&2; exit 1; }
else
  source_dir="$2" lua="$3" module_dir="$work/tree/lib/lua/5.1" lua_dir="$work/tree/share/lua/5.1"
  rockspec="$(cd "$source_dir" && ls ws_client-*.rockspec)"
  luarocks lint "$source_dir/$rockspec"
  # luarocks builds inside the tree it is given: use a copy of the sources.
  mkdir "$work/src"
  cp -r "$source_dir/CMakeLists.txt" "$source_dir/include" "$source_dir/src" "$source_dir/$rockspec" "$work/src/"
  (cd "$work/src" && luarocks make --tree "$work/tree" "$rockspec") >"$work/make.log" 2>&1 ||
    { cat "$work/make.log" >&2; exit 1; }
  installed="$(find "$work/tree" -name ws_client.so)"
  [ "$installed" = "$module_dir/ws_client.so" ] || { echo "module at '$installed'" >&2; exit 1; }
fi
LUA_CPATH="$module_dir/?.so" "$lua" "$here/lua/load_module.lua"
LUA_CPATH="$module_dir/?.so" LUA_PATH="$lua_dir/?.lua" "$lua" -e 'assert(require("ws_client.easy").run)'
echo "installed into $module_dir and loaded with $lua"
