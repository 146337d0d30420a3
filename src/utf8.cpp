// UTF-8 validation: ranges from RFC 3629's syntax table.
#include "utf8.h"

#include <cstring>

#ifdef lua_h
#error "the UTF-8 validator must stay free of the interpreter"
#endif

namespace {

constexpr utf8_state FAILED = 0xFFFFFFFFu;
constexpr uint64_t HIGH_BITS = 0x8080808080808080ull;

// What a lead byte owes: count of continuation bytes (0 = not a lead byte)
// and the range of the first of them; the later ones are always 80..BF.
struct owed {
    uint8_t count, low, high;
};

constexpr owed after_lead(uint8_t lead) {
    if (lead < 0xC2)
        return {0, 0, 0};  // a continuation byte, or C0/C1 (overlong by construction)
    if (lead < 0xE0)
        return {1, 0x80, 0xBF};
    if (lead == 0xE0)
        return {2, 0xA0, 0xBF};  // below A0 would be overlong
    if (lead == 0xED)
        return {2, 0x80, 0x9F};  // A0 and up are surrogates
    if (lead < 0xF0)
        return {2, 0x80, 0xBF};
    if (lead == 0xF0)
        return {3, 0x90, 0xBF};  // below 90 would be overlong
    if (lead < 0xF4)
        return {3, 0x80, 0xBF};
    if (lead == 0xF4)
        return {3, 0x80, 0x8F};  // 90 and up is past U+10FFFF
    return {0, 0, 0};
}

constexpr utf8_state pack(owed o) { return o.count | uint32_t{o.low} << 8 | uint32_t{o.high} << 16; }

// One byte through the state machine (used at piece ends, where a character is cut).
bool step(utf8_state& state, uint8_t byte) {
    if (state == UTF8_START) {
        if (byte < 0x80)
            return true;
        const owed o = after_lead(byte);
        state = o.count ? pack(o) : FAILED;
        return o.count != 0;
    }
    const auto low = static_cast<uint8_t>(state >> 8), high = static_cast<uint8_t>(state >> 16);
    if (byte < low || byte > high) {
        state = FAILED;
        return false;
    }
    const auto left = static_cast<uint8_t>((state & 0xFF) - 1);
    state = left ? pack({left, 0x80, 0xBF}) : UTF8_START;
    return true;
}

std::size_t skip_ascii(const uint8_t* bytes, std::size_t i, std::size_t length) {
    if (i < length && bytes[i] >= 0x80)
        return i;  // characters back to back: no block test
    for (; i + 16 <= length; i += 16) {
        uint64_t a, b;
        std::memcpy(&a, bytes + i, 8);
        std::memcpy(&b, bytes + i + 8, 8);
        if ((a | b) & HIGH_BITS)
            break;
    }
    while (i < length && bytes[i] < 0x80)
        ++i;
    return i;
}

}  // namespace

bool utf8_feed(utf8_state& state, const uint8_t* bytes, std::size_t length) {
    if (state == FAILED)
        return false;
    std::size_t i = 0;
    while (i < length && state != UTF8_START)
        if (!step(state, bytes[i++]))
            return false;
    while ((i = skip_ascii(bytes, i, length)) < length) {
        const owed o = after_lead(bytes[i]);
        if (i + o.count >= length || o.count == 0) {
            // the character is cut by the piece's end, or the lead is invalid
            while (i < length)
                if (!step(state, bytes[i++]))
                    return false;
            return true;
        }
        const uint8_t* c = bytes + i + 1;
        bool ok = c[0] >= o.low && c[0] <= o.high;
        for (uint8_t k = 1; k < o.count; ++k)
            ok = ok && (c[k] & 0xC0) == 0x80;
        if (!ok) {
            state = FAILED;
            return false;
        }
        i += 1u + o.count;
    }
    return true;
}
