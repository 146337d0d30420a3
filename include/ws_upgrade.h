// The standard mode's opening handshake without I/O: a key from the CSPRNG,
// the request (target, Host, offered subprotocols, extra header lines) and
// the check of the server's answer as HTTP says it (header names without
// regard to case, token lists, the blank line found however the answer is
// cut). Lua-free.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "handshake.h"

// Longest header block accepted (status line to the blank line included).
constexpr std::size_t WS_ANSWER_MAX = 16384;

// What the answer must carry, and what it chose. Zero-fill, then set
// `accept` and `offered`.
struct ws_upgrade {
    const char* accept;     // the Sec-WebSocket-Accept value expected
    const char* offered;    // subprotocols offered, "a, b" as sent; "" none
    std::size_t scanned;    // bytes already searched for the blank line
    std::string_view chosen;  // complete: the subprotocol chosen (inside `offered`); empty: none
};

// A fresh Sec-WebSocket-Key (24 characters) from the CSPRNG; -1 when the
// random source failed.
int ws_upgrade_key(char (&out)[TEXT_FIELD_SIZE]);

// The request into `out`: its length, or -1 when it does not fit. `extra` is
// zero or more complete "Name: value\r\n" lines.
int ws_upgrade_request(std::span<char> out, const char* target, const char* host, const char* key,
                       const char* offered, const char* extra);

// `got`: every byte received so far. Complete (used: the answer's length;
// what follows is frames) when the status is 101 on HTTP/1.1, Upgrade names
// websocket, Connection lists upgrade, the accept value matches exactly, no
// extension is named and a subprotocol, if any, is one offered. Needs more
// until the blank line (refused past WS_ANSWER_MAX); refused otherwise.
answer_check ws_upgrade_check(std::span<const char> got, ws_upgrade& u);

// Whether `list` ("a, b,c") holds `token`, compared exactly or without regard
// to ASCII case.
bool ws_token_listed(std::string_view list, std::string_view token, bool any_case);
