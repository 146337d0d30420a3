#!/usr/bin/env bash
# The installed module loads, installed either way:
#   package_test.sh install BUILD_DIR CMOD_DIR INTERPRETER: `cmake --install
#     --prefix` puts ws_client.so, and nothing else, into CMOD_DIR under the
#     prefix (an absolute CMOD_DIR: under DESTDIR); `--strip` drops its symbols;
#   package_test.sh rock SOURCE_DIR: the release tarball and rockspec from
#     scripts/dist.sh, `luarocks pack`, and `luarocks build` into a private tree
#     for each of Lua 5.1 to 5.4, each loaded by its interpreter.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
quiet() { "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }; }

if [ "$1" = install ]; then
  build="$2" cmod="$3" lua="$4"
  for mode in plain strip; do
    dest="$work/$mode" flags=()
    [ $mode = strip ] && flags=(--strip)
    if [[ "$cmod" == /* ]]; then
      DESTDIR="$dest" quiet cmake --install "$build" "${flags[@]}"
      module_dir="$dest$cmod"
    else
      quiet cmake --install "$build" --prefix "$dest" "${flags[@]}"
      module_dir="$dest/$cmod"
    fi
    installed="$(cd "$dest" && find . -type f)"
    [ "$installed" = ".${module_dir#"$dest"}/ws_client.so" ] || { printf 'installed:\n%s\n' "$installed" >&2; exit 1; }
    symbols=0
    readelf -S "$module_dir/ws_client.so" | grep -q '\.symtab' && symbols=1
    [ "$symbols" = "$([ $mode = plain ] && echo 1 || echo 0)" ] || { echo "$mode install: symbol table $symbols" >&2; exit 1; }
    LUA_CPATH="$module_dir/?.so" "$lua" "$here/lua/load_module.lua"
  done
  echo "installed into $module_dir (plain and stripped) and loaded with $lua"
  exit 0
fi

source_dir="$2"
quiet "$source_dir/scripts/dist.sh" "$work/dist"
rockspec="$(echo "$work"/dist/ws_client-*.rockspec)"
luarocks lint "$rockspec"
(cd "$work/dist" && quiet luarocks pack "$rockspec")
src_rock="$(echo "$work"/dist/ws_client-*.src.rock)"
[ -f "$src_rock" ] || { echo "luarocks pack made no source rock" >&2; exit 1; }
export CMAKE_BUILD_PARALLEL_LEVEL=2
for version in 5.1 5.2 5.3 5.4; do
  # 5.1 from the rockspec (it fetches the tarball), the others from the source rock alone.
  from="$src_rock"; [ "$version" = 5.1 ] && from="$rockspec"
  (cd "$work" && quiet luarocks --lua-version "$version" --tree "$work/tree" build "$from")
  module="$work/tree/lib/lua/$version/ws_client.so"
  [ -f "$module" ] || { echo "no $module" >&2; find "$work/tree" -name ws_client.so >&2; exit 1; }
  LUA_CPATH="${module%ws_client.so}?.so" "lua$version" "$here/lua/load_module.lua"
  echo "luarocks build $(basename "$from") for Lua $version: loaded with lua$version"
done
