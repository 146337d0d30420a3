#!/usr/bin/env bash
# Packages of another Debian release, fetched with package lists of their own
# and unpacked into a private directory; nothing is installed on the host.
#   debian_root.sh SUITE ARCH DIR PACKAGE...     the binary packages (exactly
#       these, no dependencies) unpacked into DIR/root
#   debian_root.sh -s SUITE DIR PACKAGE...       the source packages unpacked
#       with dpkg-source into DIR/src/PACKAGE
# Done once: a later run asking for the same finds DIR/.complete-* and returns
# at once. Exits 3 with one line when the archive cannot be reached.
set -euo pipefail
source_mode=0
[ "$1" = -s ] && { source_mode=1; shift; }
suite="$1"
shift
arch=source
[ "$source_mode" = 1 ] || { arch="$1"; shift; }
dir="$(mkdir -p "$1" && cd "$1" && pwd)"
shift
mirror="${DEBIAN_MIRROR:-http://deb.debian.org/debian}"
stamp="$dir/.complete-$arch"
wanted="$suite $*"
[ -f "$stamp" ] && [ "$(cat "$stamp")" = "$wanted" ] && exit 0

apt="$dir/apt"
mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial"
: >"$apt/status"
kind=deb
[ "$source_mode" = 1 ] && kind=deb-src
echo "$kind [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main" >"$apt/sources.list"
options=(-o "Dir::Etc::sourcelist=$apt/sources.list" -o Dir::Etc::sourceparts=- -o "Dir::State=$apt"
  -o "Dir::State::Lists=$apt/lists" -o "Dir::State::status=$apt/status" -o "Dir::Cache=$apt/cache"
  -o Acquire::Languages=none -o Acquire::Retries=3 -o APT::Sandbox::User=root)
[ "$source_mode" = 1 ] || options+=(-o "APT::Architecture=$arch" -o "APT::Architectures::=$arch")
apt-get -qq "${options[@]}" update >"$apt/update.log" 2>&1 ||
  { echo "$suite: package lists cannot be had (see $apt/update.log)"; exit 3; }

if [ "$source_mode" = 1 ]; then
  rm -rf "$dir/src"
  mkdir -p "$dir/src"
  for package in "$@"; do
    (cd "$dir/src" && apt-get -qq "${options[@]}" source --download-only "$package" >/dev/null) ||
      { echo "$suite: source of $package cannot be had"; exit 3; }
    # apt checked the files against the signed index; the uploader's key is not here
    dpkg-source -x "$dir"/src/"$package"_*.dsc "$dir/src/$package" >/dev/null 2>&1
  done
else
  rm -rf "$dir/root" "$dir/debs"
  mkdir -p "$dir/root" "$dir/debs"
  (cd "$dir/debs" && apt-get -qq "${options[@]}" download "${@/%/:$arch}") ||
    { echo "$suite $arch: download of $* failed"; exit 3; }
  for deb in "$dir"/debs/*.deb; do dpkg-deb -x "$deb" "$dir/root"; done
fi
echo "$wanted" >"$stamp"
