#!/usr/bin/env bash
# `cmake --install` into a staging directory puts ws_client.so, and nothing
# else, into the C module directory, and the installed module loads.
#   install_test.sh BUILD_DIR CMOD_DIR INTERPRETER
set -euo pipefail
build="$1" cmod="$2" lua="$3"
here="$(cd "$(dirname "$0")" && pwd)"
stage="$(mktemp -d)"
trap 'rm -rf "$stage"' EXIT

DESTDIR="$stage" cmake --install "$build" >/dev/null
installed="$(cd "$stage" && find . -type f | sort)"
if [ "$installed" != "./${cmod#/}/ws_client.so" ]; then
  echo "expected only ./${cmod#/}/ws_client.so, installed:" >&2
  echo "$installed" >&2
  exit 1
fi
LUA_CPATH="$stage/$cmod/?.so" "$lua" "$here/lua/load_module.lua"
echo "installed to $cmod and loaded with $lua"
