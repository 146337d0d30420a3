#!/usr/bin/env bash
# The installed module loads, installed either way:
#   package_test.sh install BUILD_DIR CMOD_DIR INTERPRETER LMOD_DIR: `cmake
#     --install --prefix` puts ws_client.so into CMOD_DIR and ws_client/easy.lua
#     into LMOD_DIR under the prefix, and nothing else (absolute dirs: under
#     DESTDIR); `--strip` drops the module's symbols;
#   package_test.sh rock SOURCE_DIR: the release tarball and rockspec from
#     scripts/dist.sh, `luarocks pack`, `luarocks build` of both, `luarocks
#     make` in the unpacked tarball with the root rockspec and with the one
#     for mbedTLS, one Lua each of 5.1 to 5.4 into a private tree: each module
#     stripped and loaded by its interpreter.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
quiet() { "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }; }

if [ "$1" = install ]; then
  build="$2" cmod="$3" lua="$4" lmod="$5"
  for mode in plain strip; do
    dest="$work/$mode" flags=()
    [ $mode = strip ] && flags=(--strip)
    if [[ "$cmod" == /* ]]; then
      DESTDIR="$dest" quiet cmake --install "$build" "${flags[@]}"
      module_dir="$dest$cmod" lua_dir="$dest$lmod"
    else
      quiet cmake --install "$build" --prefix "$dest" "${flags[@]}"
      module_dir="$dest/$cmod" lua_dir="$dest/$lmod"
    fi
    installed="$(cd "$dest" && find . -type f | sort)"
    expected="$(printf '%s\n' ".${module_dir#"$dest"}/ws_client.so" ".${lua_dir#"$dest"}/ws_client/easy.lua" | sort)"
    [ "$installed" = "$expected" ] || { printf 'installed:\n%s\n' "$installed" >&2; exit 1; }
    symbols=0
    readelf -S "$module_dir/ws_client.so" | grep -q '\.symtab' && symbols=1
    [ "$symbols" = "$([ $mode = plain ] && echo 1 || echo 0)" ] || { echo "$mode install: symbol table $symbols" >&2; exit 1; }
    LUA_CPATH="$module_dir/?.so" "$lua" "$here/lua/load_module.lua"
    LUA_CPATH="$module_dir/?.so" LUA_PATH="$lua_dir/?.lua" "$lua" -e 'assert(require("ws_client.easy").run)'
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
# A checkout as the tarball has it, and the rockspec for mbedTLS made in it.
tar -C "$work" -xzf "$work"/dist/ws_client-*.tar.gz
checkout="$(echo "$work"/ws_client-*/)"
mbedtls_rockspec="$("$checkout/scripts/rockspec.sh" -t mbedtls "$work/mbedtls")"
export CMAKE_BUILD_PARALLEL_LEVEL=2
# under make test's ccache: the builds sit in different temporary directories,
# and paths relative to them let the four share what they compile alike
export CCACHE_BASEDIR="${TMPDIR:-/tmp}"
# how VERSION: the release rockspec (it fetches the tarball), the source rock
# alone, `luarocks make` in the checkout, the same on mbedTLS.
for how in "build 5.1" "build-src 5.2" "make 5.3" "make-mbedtls 5.4"; do
  version="${how#* }" how="${how% *}"
  case "$how" in
    build) (cd "$work" && quiet luarocks --lua-version "$version" --tree "$work/tree" build "$rockspec") ;;
    build-src) (cd "$work" && quiet luarocks --lua-version "$version" --tree "$work/tree" build "$src_rock") ;;
    make) (cd "$checkout" && quiet luarocks --lua-version "$version" --tree "$work/tree" make) ;;
    make-mbedtls) (cd "$checkout" && rm -rf build.luarocks &&
      quiet luarocks --lua-version "$version" --tree "$work/tree" make "$mbedtls_rockspec") ;;
  esac
  module="$work/tree/lib/lua/$version/ws_client.so"
  [ -f "$module" ] || { echo "no $module" >&2; find "$work/tree" -name ws_client.so >&2; exit 1; }
  ! readelf -S "$module" | grep -q '\.symtab' || { echo "luarocks $how installed an unstripped module" >&2; exit 1; }
  [ "$how" != make-mbedtls ] || readelf -d "$module" | grep -q 'libmbedtls\.so' ||
    { echo "the mbedTLS rockspec built a module without mbedTLS" >&2; exit 1; }
  LUA_CPATH="${module%ws_client.so}?.so" "lua$version" "$here/lua/load_module.lua"
  LUA_CPATH="${module%ws_client.so}?.so" LUA_PATH="$work/tree/share/lua/$version/?.lua" "lua$version" \
    -e 'assert(require("ws_client.easy").run)'
  echo "luarocks $how for Lua $version: stripped, loaded with lua$version"
done
