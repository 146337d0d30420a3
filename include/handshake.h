// The client side of the WebSocket opening handshake.
#pragma once

#include <cstddef>
#include <span>

#include "ws_client.h"

// Sends the upgrade request on the connected (and, for wss, TLS-carrying)
// socket and checks the answer: 1 accepted, -1 otherwise.
int do_handshake(ws_record* ws, const char* host, const char* path);

// A fresh key (24 Base64 characters) into `out`; reseeds rand() from time().
void sec_websocket_key(char (&out)[TEXT_FIELD_SIZE]);
// The accept value the server must answer for `key` (28 characters); 0.
int sec_websocket_accept(const char* key, char (&out)[TEXT_FIELD_SIZE]);
// Base64 of `input` into `out` with the filter's newlines; the count
// written (newlines included), or -1 for null pointers or too small an `out`.
int base64_encode(const unsigned char* input, std::size_t length, std::span<char> out);

// Waits up to 5 s for the answer and reads it once: 1 accepted, -1 not.
int handshake_result(ws_record* ws);
// 0 when ws->sec_ws_accept follows "Sec-WebSocket-Accept" in `answer`.
int check_ws_accept(const ws_record* ws, const char* answer);

// Formats the upgrade request into `out`; its length, or -1 if it does not fit.
int format_handshake_request(std::span<char> out, const char* path, const char* host, const char* key);
