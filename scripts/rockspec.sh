#!/usr/bin/env bash
# Writes a rockspec derived from ws_client-dev-1.rockspec into OUT_DIR and
# prints its path:
#   rockspec.sh [-t openssl|mbedtls|wolfssl] [-r VERSION URL] OUT_DIR
# -t: the TLS library the rock is built on, declared as its external
#     dependency (luarocks checks those before it reads any variable, so the
#     choice is made here, one rockspec per library; `luarocks make
#     OUT_DIR/ws_client-dev-1.rockspec` in the checkout builds it).
# -r: a release: version VERSION-1, source the tarball at URL.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
tls=openssl version="" url=""
while getopts "t:r:" option; do
  case "$option" in
    t) tls="$OPTARG" ;;
    r) version="$OPTARG" url="${!OPTIND}"; OPTIND=$((OPTIND + 1)) ;;
    *) exit 2 ;;
  esac
done
shift $((OPTIND - 1))
out="$(mkdir -p "$1" && cd "$1" && pwd)"
case "$tls" in
  openssl) dependency='OPENSSL = { header = "openssl/ssl.h", library = "ssl" }' ;;
  mbedtls) dependency='MBEDTLS = { header = "mbedtls/ssl.h", library = "mbedtls" }' ;;
  wolfssl) dependency='WOLFSSL = { header = "wolfssl/ssl.h", library = "wolfssl" }' ;;
  *) echo "rockspec.sh: TLS library '$tls': openssl, mbedtls or wolfssl" >&2; exit 2 ;;
esac
name="${dependency%% *}"
edits=(-e "s|^   OPENSSL = {.*|   $dependency,|" -e "s|\"\$(OPENSSL_|\"\$(${name}_|"
  -e "s|WS_CLIENT_TLS = \"openssl\"|WS_CLIENT_TLS = \"$tls\"|" -e '/^-- /d')
file="ws_client-dev-1.rockspec"
if [ -n "$version" ]; then
  file="ws_client-$version-1.rockspec"
  edits+=(-e "s|^version = \"dev-1\"|version = \"$version-1\"|"
    -e "s|^   url = \"git+file://.\",|   url = \"$url\",\n   dir = \"ws_client-$version\",|")
fi
sed "${edits[@]}" "$root/ws_client-dev-1.rockspec" >"$out/$file"
echo "$out/$file"
