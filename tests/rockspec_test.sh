#!/usr/bin/env bash
# The rockspec is well formed, and `luarocks make` builds the module with
# CMake and installs it into a rock tree, from which it loads.
#   rockspec_test.sh SOURCE_DIR INTERPRETER
set -euo pipefail
source_dir="$1" lua="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

rockspec="$(cd "$source_dir" && ls ws_client-*.rockspec)"
luarocks lint "$source_dir/$rockspec"

# luarocks builds inside the tree it is given: use a copy of the sources.
mkdir "$work/src"
cp -r "$source_dir/CMakeLists.txt" "$source_dir/include" "$source_dir/src" "$source_dir/$rockspec" "$work/src/"
(cd "$work/src" && luarocks make --tree "$work/tree" "$rockspec") >"$work/make.log" 2>&1 || {
  cat "$work/make.log" >&2
  exit 1
}
module="$(find "$work/tree" -name ws_client.so)"
[ "$module" = "$work/tree/lib/lua/5.1/ws_client.so" ] || { echo "module at '$module'" >&2; exit 1; }
LUA_CPATH="$work/tree/lib/lua/5.1/?.so" "$lua" "$source_dir/tests/lua/load_module.lua"
echo "luarocks make installed $module and it loads"
