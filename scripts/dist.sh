#!/usr/bin/env bash
# Release files: ws_client-<version>.tar.gz (the files of the commit checked
# out, under ws_client-<version>/) and ws_client-<version>-1.rockspec whose
# source is that tarball at URL_BASE (default: OUT_DIR itself, as a file://
# URL; give the web address the tarball will be served from when
# publishing). The version is the one in VERSION; CHANGELOG.md must have it.
#   scripts/dist.sh [OUT_DIR [URL_BASE]]
# The tarball is the commit's alone, byte for byte the same from any clone:
# git archive fixes order, modes, owners and times (the commit's), gzip -n
# leaves out its own time stamp. Uncommitted changes are not in it.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
out="${1:-$root/dist}"
mkdir -p "$out"
out="$(cd "$out" && pwd)"
url_base="${2:-file://$out}"
version="$(cd "$root" && git show HEAD:VERSION | head -n 1)"
name="ws_client-$version"
[[ "$version" =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || { echo "VERSION: '$version' is not x.y.z" >&2; exit 1; }
(cd "$root" && git show HEAD:CHANGELOG.md) | grep -q "^## $version\b" ||
  { echo "CHANGELOG.md has no '## $version' entry" >&2; exit 1; }
(cd "$root" && git diff --quiet HEAD -- .) || echo "dist.sh: uncommitted changes are left out of the tarball" >&2
(cd "$root" && git -c tar.umask=0022 archive --format=tar --prefix="$name/" HEAD) | gzip -n -9 >"$out/$name.tar.gz"
echo "$out/$name.tar.gz"
"$root/scripts/rockspec.sh" -r "$version" "$url_base/$name.tar.gz" "$out"
