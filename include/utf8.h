// Incremental UTF-8 validation (RFC 3629): the state carries a character cut
// between pieces, and a piece fails at the first byte that cannot start or
// continue a valid sequence (overlong forms, surrogates and code points above
// U+10FFFF are refused at the byte that proves them, not at the sequence's
// end). Runs of ASCII are checked 16 bytes at a time. Lua-free.
#pragma once

#include <cstddef>
#include <cstdint>

// 0 between characters; otherwise the bytes still owed and the range the
// next one must fall in. A failed state stays failed.
using utf8_state = uint32_t;
constexpr utf8_state UTF8_START = 0;

// Advances state over bytes[0, length); false once a byte is invalid.
bool utf8_feed(utf8_state& state, const uint8_t* bytes, std::size_t length);

// A whole text is valid when every byte fed and the state ends between characters.
inline bool utf8_complete(utf8_state state) { return state == UTF8_START; }
