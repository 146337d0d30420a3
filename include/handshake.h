// The client side of the WebSocket opening handshake, with the SHA-1 and
// Base64 it needs (over caller buffers, so a plain connection never sets up
// the TLS library). Lua-free.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "ws_client.h"

// Sends the upgrade request on the connected (and, for wss, TLS-carrying)
// socket and checks the answer: 1 accepted, -1 otherwise.
int do_handshake(ws_record* ws, const char* host, const char* path);

// A fresh key (24 Base64 characters) into `out`; reseeds rand() from time().
void sec_websocket_key(char (&out)[TEXT_FIELD_SIZE]);
// The accept value the server must answer for `key` (28 characters); 0.
int sec_websocket_accept(const char* key, char (&out)[TEXT_FIELD_SIZE]);

// SHA-1 (RFC 3174) of `length` bytes.
constexpr std::size_t SHA1_SIZE = 20;
void sha1(const void* data, std::size_t length, uint8_t (&digest)[SHA1_SIZE]);
// Base64 (RFC 4648, with padding, no line breaks) of `input` into `out`,
// terminated; the count written, or -1 when `out` is too small.
int base64_encode(const unsigned char* input, std::size_t length, std::span<char> out);

// Waits up to 5 s for the answer and reads it once: 1 accepted, -1 not.
int handshake_result(ws_record* ws);
// 0 when ws->sec_ws_accept follows "Sec-WebSocket-Accept" in `answer`.
int check_ws_accept(const ws_record* ws, const char* answer);

// Formats the upgrade request into `out`; its length, or -1 if it does not fit.
int format_handshake_request(std::span<char> out, const char* path, const char* host, const char* key);
