#!/usr/bin/env bash
# Unpacks a foreign architecture's Debian packages into DIR/root: the headers
# and libraries the cross build links against, and the interpreters, C
# library and loader the emulated tests run. Nothing is installed on the
# host: the package lists live in DIR/apt, the packages in DIR/debs.
#   sysroot.sh ARCH DIR
# Done once; later runs find DIR/root/.complete and return at once. Exits 3
# with one line when a package the build needs cannot be had; LuaJIT and the
# GoogleTest sources are left out quietly where the architecture lacks them
# (DIR/root/.complete lists what was unpacked).
set -euo pipefail
arch="$1" dir="$(mkdir -p "$2" && cd "$2" && pwd)"
# Run on the target: these and everything they depend on. Built against:
# the development packages alone.
# Every TLS library the module can be built on is there, so one sysroot serves
# each choice.
runtime=(libssl3 lua5.1)
development=(libssl-dev liblua5.1-0-dev)
optional=(luajit libmbedtls14 libwolfssl35)
development_optional=(libmbedtls-dev libwolfssl-dev)
[ "$arch" = s390x ] && optional+=(libstdc++6) development_optional+=(libgtest-dev libgmock-dev)

# Two builds may want the same sysroot at once: one makes it, the other waits.
exec 9>"$dir.lock"
flock 9
wanted="${runtime[*]} ${development[*]} ${optional[*]} ${development_optional[*]:-}"
if [ -f "$dir/root/.complete" ] && [ "$(head -1 "$dir/root/.complete")" = "$wanted" ]; then
  exit 0
fi
rm -rf "$dir/root" "$dir/debs"
mkdir -p "$dir/apt/lists/partial" "$dir/apt/cache/archives/partial" "$dir/debs" "$dir/root"
: >"$dir/apt/status"
# The host's sources and keys; this architecture's lists only.
apt_options=(-o "Dir::State=$dir/apt" -o "Dir::State::Lists=$dir/apt/lists" -o "Dir::State::status=$dir/apt/status"
  -o "Dir::Cache=$dir/apt/cache" -o "APT::Architecture=$arch" -o "APT::Architectures::=$arch"
  -o Acquire::Languages=none -o Acquire::Retries=3 -o APT::Sandbox::User=root)
# A mirror caught mid-sync fails one list: the others still serve.
apt-get -qq "${apt_options[@]}" update >"$dir/apt/update.log" 2>&1 || true

available() { apt-cache "${apt_options[@]}" show "$1" >/dev/null 2>&1; }
for package in "${runtime[@]}" "${development[@]}"; do
  available "$package" || { echo "$arch: package $package cannot be had (see $dir/apt/update.log)"; exit 3; }
done
roots=("${runtime[@]}")
for package in "${optional[@]}"; do available "$package" && roots+=("$package"); done
packages=("${development[@]}")
for package in ${development_optional[@]+"${development_optional[@]}"}; do available "$package" && packages+=("$package"); done
packages+=($(apt-cache "${apt_options[@]}" depends --recurse --no-recommends --no-suggests --no-conflicts \
  --no-breaks --no-replaces --no-enhances "${roots[@]}" | grep '^[a-z0-9]' | sort -u))

(cd "$dir/debs" && apt-get -qq "${apt_options[@]}" download "${packages[@]/%/:$arch}") ||
  { echo "$arch: download failed"; exit 3; }
for deb in "$dir"/debs/*.deb; do dpkg-deb -x "$deb" "$dir/root"; done

# Absolute links (the loader's, the development links) point into the host:
# make them relative to the sysroot.
find "$dir/root" -type l -lname '/*' | while read -r link; do
  target="$(readlink "$link")"
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$dir/root$target")" "$link"
done
printf '%s\n%s\n' "$wanted" "${packages[*]}" >"$dir/root/.complete"
