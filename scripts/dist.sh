#!/usr/bin/env bash
# Release files: ws_client-<version>.tar.gz (the tracked files as they are in
# the working tree, under ws_client-<version>/) and ws_client-<version>-1.rockspec
# whose source is that tarball at URL_BASE (default: OUT_DIR itself, as a
# file:// URL; give the web address the tarball will be served from when
# publishing). The version is the one in VERSION; CHANGELOG.md must have it.
#   scripts/dist.sh [OUT_DIR [URL_BASE]]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
out="${1:-$root/dist}"
mkdir -p "$out"
out="$(cd "$out" && pwd)"
url_base="${2:-file://$out}"
version="$(head -n 1 "$root/VERSION")"
name="ws_client-$version"
[[ "$version" =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || { echo "VERSION: '$version' is not x.y.z" >&2; exit 1; }
grep -q "^## $version\b" "$root/CHANGELOG.md" || { echo "CHANGELOG.md has no '## $version' entry" >&2; exit 1; }

stage="$(mktemp -d)"
trap 'rm -rf "$stage"' EXIT
mkdir "$stage/$name"
(cd "$root" && git ls-files -z | xargs -0 cp --parents -t "$stage/$name")
rockspec="$name-1.rockspec"
sed -e "s|@VERSION@|$version|g" -e "s|@URL@|$url_base/$name.tar.gz|g" -e '/^--!/d' \
  "$root/ws_client.rockspec.in" >"$stage/$name/$rockspec"
cp "$stage/$name/$rockspec" "$out/"
# Same files, same bytes: no owners, the last commit's time, no gzip timestamp.
stamp="$(cd "$root" && git log -1 --format=%ct 2>/dev/null || date +%s)"
tar -C "$stage" --sort=name --owner=0 --group=0 --numeric-owner --mtime="@$stamp" -cf - "$name" |
  gzip -n >"$out/$name.tar.gz"
echo "$out/$name.tar.gz"
echo "$out/$rockspec"
