// The bits of a WebSocket frame header (RFC 6455 section 5.2), shared by the
// designed dialect's codec and the standard mode's. Lua-free.
#pragma once

#include <cstdint>

constexpr uint8_t FIN_BIT = 0x80;
constexpr uint8_t RSV_BITS = 0x70;
constexpr uint8_t OPCODE_BITS = 0x0F;
constexpr uint8_t MASK_BIT = 0x80;
constexpr uint8_t LENGTH_BITS = 0x7F;
constexpr uint8_t LENGTH_16 = 126;  // the 7-bit length's marks for the longer forms
constexpr uint8_t LENGTH_64 = 127;
