// HTTP/1.1 chunked transfer decoding and the header cut of the TCP receive
// path. Pure: no interpreter, no I/O. Inputs are the received text (which
// ends at its first zero byte); every read and write stays inside the views
// and spans handed in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// A chunk-size line is searched for its line end over this many bytes.
constexpr int32_t CHUNK_LINE_SPAN = 10240;

// First offset >= *position at which the key_length bytes of key occur in
// buffer[0, length) (raw bytes). 1 and *position set when found; 0 and
// *position unchanged otherwise, or when key is null or *position negative.
int find_key(const char* buffer, int32_t length, const char* key, int32_t key_length, int32_t* position);

// Hexadecimal chunk size: an optional 0x/0X, then digits and letters (g..z
// continue past f as 16..35) until any other character; wraps in 32 bits.
int32_t htoi(std::string_view text);

// The header block is received[0, *header_length): the status line and header
// lines without the blank line that ends them. 1 when a blank line was found,
// else 0 (*header_length untouched).
int get_head(std::string_view received, std::size_t* header_length);

// Decodes the chunked body that follows the header block of `received` into
// body; *body_length is the number of bytes written. 1 when decoding reached
// the final chunk, 0 when it stopped early (what was written stays valid).
// Chunks that would read past the text or write past body are malformed.
int de_chunked(std::string_view received, std::span<char> body, std::size_t* body_length);
