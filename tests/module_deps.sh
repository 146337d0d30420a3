#!/usr/bin/env bash
# Prints the libraries a built module needs on the device, one line, and
# fails if it needs more than the C library (glibc's, its loader included, or
# musl's), the TLS library and c-ares (when built with it), leaves a
# C++ runtime or unwinder symbol to be found at load time, or exports more
# than its entry point. Any architecture (readelf reads them all).
#   module_deps.sh MODULE
set -euo pipefail
module="$1"
needed="$(readelf -d "$module" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')"
symbols="$(readelf -W --dyn-syms "$module" | awk 'NR > 3 && $8 != "" && $5 != "LOCAL" { print $7, $8 }')"
extra="$(tr ' ' '\n' <<<"$needed" | grep -vE '^(libc\.so(\.6)?|libcares\.so\.[0-9]+|ld-linux[-a-z0-9_]*\.so\.[0-9]+|libssl\.so\.3|libcrypto\.so\.3|libmbed(tls|x509|crypto)\.so\.[0-9]+|libwolfssl\.so\.[0-9]+|)$' || true)"
runtime="$(awk '$1 == "UND" && ($2 ~ /^(_Z|__cxa_|__gxx_|_Unwind_|__gcc_personality)/ || $2 ~ /@(CXXABI|GLIBCXX|GCC)_/) && $2 !~ /^__cxa_(atexit|finalize)(@|$)/ { print $2 }' <<<"$symbols")"
exported="$(awk '$1 != "UND" { print $2 }' <<<"$symbols" | grep -vx 'luaopen_ws_client' || true)"
echo "needs: $needed"
[ -z "$extra$runtime$exported" ] && exit 0
for name in $extra; do echo "needs more than the C and TLS libraries: $name"; done
for name in $runtime; do echo "C++ runtime symbol left undefined: $name"; done
for name in $exported; do echo "exported besides the entry point: $name"; done
exit 1
