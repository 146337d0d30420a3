// ws:// and wss:// URLs for the standard mode, split into what a connect
// needs. Lua-free; writes into the caller's buffer only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

struct ws_url_parts {
    bool secure;              // wss
    uint16_t port;            // the URL's own, else 80 (ws) or 443 (wss)
    bool port_written;        // the URL carries a port
    const char* host;         // to resolve: a name or an address, IPv6 without brackets
    const char* target;       // the request target: path and query as written, "/" when none
    const char* host_header;  // the Host value: as written, ":port" only when not the default
};

// Room in `text` that always suffices for a URL of `length` bytes.
constexpr std::size_t ws_url_text_size(std::size_t length) { return 3 * length + 4; }

// Splits `url` (scheme without regard to case; no user information, no
// fragment; a bracketed IPv6 address as the host) into `parts`, whose three
// texts are written one after the other into `text`. Null when done, else
// why the URL is refused (`parts` is then undefined).
const char* ws_url_split(std::string_view url, std::span<char> text, ws_url_parts& parts);
