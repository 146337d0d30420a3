// The client side of the WebSocket opening handshake without I/O: key,
// expected accept, request text and the check of the answer, with the SHA-1
// and Base64 they need (over caller buffers, so a plain connection never sets
// up the TLS library). Lua-free; the exchange itself is a connect phase
// (connect_machine.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "ws_client.h"

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

// Formats the upgrade request into `out`; its length, or -1 if it does not fit.
int format_handshake_request(std::span<char> out, const char* path, const char* host, const char* key);

// ---- the answer ----
// The answer is text: a zero byte ends it. What the bytes so far say is kept
// in an answer_scan (zero-filled to start), so that a call with more bytes
// looks only at the new ones.
struct answer_scan {
    std::size_t checked;      // bytes looked at (up to the text's end)
    std::size_t text_end;     // where a zero byte ended the text; 0: none seen
    std::size_t name_at;      // 1 + where "Sec-WebSocket-Accept" begins; 0: not seen
    std::size_t value_end;    // where the expected value, searched from the name on, ends; 0: not seen
    std::size_t block_end;    // the length of the header block, its blank line included; 0: not ended
};
enum class answer_verdict : uint8_t { complete, needs_more, refused };
struct answer_check {
    answer_verdict what;
    std::size_t used;  // complete: the answer's length; what follows it is frames
};

// `got`: every byte received so far (the same bytes again, and more).
// Complete: the status line begins "HTTP/1.1 101", the header block has
// ended, and the expected accept value follows the first
// "Sec-WebSocket-Accept" (exact case) inside it. Refused: the status differs,
// the block ended without it, or a zero byte came first. Needs more otherwise.
answer_check check_upgrade_answer(std::span<const char> got, const char* expected_accept, answer_scan& scan);

// The designed rule over one read: the status line, then the accept value
// anywhere in the text after the name (header block ended or not).
bool answer_status_ok(std::span<const char> got);
// 0 when ws->sec_ws_accept follows "Sec-WebSocket-Accept" in `answer` (text).
int check_ws_accept(const ws_record* ws, const char* answer);
