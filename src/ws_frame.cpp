// RFC 6455 section 5.2 framing, client side.
#include "ws_frame.h"

#include <algorithm>
#include <cstring>

#include "csprng.h"
#include "frame_bits.h"

#ifdef lua_h
#error "the frame codec must stay free of the interpreter"
#endif

namespace {

// 0-2 and 8-10 as bits
constexpr uint16_t KNOWN_OPCODES = 0x0707;

// Header length once byte 1 is known (2 until then).
std::size_t header_length(const frame_decoder& d) {
    if (d.have < 2)
        return 2;
    const uint8_t code = d.held[1] & LENGTH_BITS;
    return code == LENGTH_64 ? 10 : code == LENGTH_16 ? 4 : 2;
}

// The checks each of the first two bytes allows, made as soon as it arrives.
bool first_byte_ok(uint8_t b) {
    return (b & RSV_BITS) == 0 && ((KNOWN_OPCODES >> (b & OPCODE_BITS)) & 1) != 0 &&
           (!is_control_opcode(b & OPCODE_BITS) || (b & FIN_BIT) != 0);
}

bool second_byte_ok(uint8_t first, uint8_t b) {
    return (b & MASK_BIT) == 0 && (!is_control_opcode(first & OPCODE_BITS) || (b & LENGTH_BITS) <= WS_CONTROL_MAX);
}

uint64_t read_length(const frame_decoder& d) {
    const uint8_t code = d.held[1] & LENGTH_BITS;
    if (code < LENGTH_16)
        return code;
    const std::size_t bytes = code == LENGTH_16 ? 2 : 8;
    uint64_t length = 0;
    for (std::size_t i = 0; i < bytes; ++i)
        length = length << 8 | d.held[2 + i];
    return length;
}

frame_step failed(std::size_t used) { return {frame_event::fail, used, {}, false, WS_PROTOCOL_ERROR}; }

}  // namespace

frame_step frame_decode(frame_decoder& d, std::span<const uint8_t> in) {
    if (d.in_payload) {
        const auto take = static_cast<std::size_t>(std::min<uint64_t>(d.left, in.size()));
        d.left -= take;
        d.in_payload = d.left != 0;
        return {frame_event::piece, take, in.first(take), !d.in_payload, 0};
    }
    std::size_t used = 0;
    while (used < in.size()) {
        // byte by byte: at most 10, and each is checked the moment it arrives
        d.held[d.have++] = in[used++];
        if ((d.have == 1 && !first_byte_ok(d.held[0])) || (d.have == 2 && !second_byte_ok(d.held[0], d.held[1])))
            return failed(used);
        if (d.have < header_length(d))
            continue;
        const uint64_t length = read_length(d);
        if (length >> 63)
            return failed(used);
        d.frame = {length, static_cast<uint8_t>(d.held[0] & OPCODE_BITS), (d.held[0] & FIN_BIT) != 0};
        d.left = length;
        d.have = 0;
        d.in_payload = length != 0;
        return {frame_event::header, used, {}, length == 0, 0};
    }
    return {frame_event::need_more, used, {}, false, 0};
}

uint64_t frame_bytes_needed(const frame_decoder& d) { return d.in_payload ? d.left : header_length(d) - d.have; }

std::size_t frame_header_encode(uint8_t out[WS_HEADER_MAX], bool fin, uint8_t opcode, uint64_t length,
                                const uint8_t key[WS_KEY_SIZE]) {
    out[0] = static_cast<uint8_t>((fin ? FIN_BIT : 0) | (opcode & OPCODE_BITS));
    std::size_t at = 2;
    if (length < LENGTH_16) {
        out[1] = static_cast<uint8_t>(MASK_BIT | length);
    } else {
        const std::size_t bytes = length <= 0xFFFF ? 2 : 8;
        out[1] = MASK_BIT | (bytes == 2 ? LENGTH_16 : LENGTH_64);
        for (std::size_t i = 0; i < bytes; ++i)
            out[at + i] = static_cast<uint8_t>(length >> (8 * (bytes - 1 - i)));
        at += bytes;
    }
    std::memcpy(out + at, key, WS_KEY_SIZE);
    return at + WS_KEY_SIZE;
}

// 16 bytes handled as one value: SIMD registers where the target has them,
// word operations where it does not.
using mask_chunk = uint8_t __attribute__((vector_size(16)));

void frame_mask(uint8_t* dst, const uint8_t* src, std::size_t length, const uint8_t key[WS_KEY_SIZE],
                std::size_t offset) {
    // The key turned to the payload's phase and repeated in memory order, so
    // the XOR of whole chunks does not depend on the byte order.
    uint8_t turned[sizeof(mask_chunk)];
    for (std::size_t k = 0; k < WS_KEY_SIZE; ++k)
        turned[k] = key[(offset + k) & 3];
    for (std::size_t k = WS_KEY_SIZE; k < sizeof turned; k += WS_KEY_SIZE)
        std::memcpy(turned + k, turned, WS_KEY_SIZE);
    mask_chunk key_chunk;
    std::memcpy(&key_chunk, turned, sizeof key_chunk);
    std::size_t i = 0;
    // each chunk is loaded before it is stored, so dst == src is safe
    for (; i + 4 * sizeof(mask_chunk) <= length; i += 4 * sizeof(mask_chunk)) {
        mask_chunk a, b, c, d;
        std::memcpy(&a, src + i, sizeof a);
        std::memcpy(&b, src + i + 16, sizeof b);
        std::memcpy(&c, src + i + 32, sizeof c);
        std::memcpy(&d, src + i + 48, sizeof d);
        a ^= key_chunk, b ^= key_chunk, c ^= key_chunk, d ^= key_chunk;
        std::memcpy(dst + i, &a, sizeof a);
        std::memcpy(dst + i + 16, &b, sizeof b);
        std::memcpy(dst + i + 32, &c, sizeof c);
        std::memcpy(dst + i + 48, &d, sizeof d);
    }
    for (; i + sizeof(mask_chunk) <= length; i += sizeof(mask_chunk)) {
        mask_chunk c;
        std::memcpy(&c, src + i, sizeof c);
        c ^= key_chunk;
        std::memcpy(dst + i, &c, sizeof c);
    }
    if (i + sizeof(uint64_t) <= length) {
        uint64_t word, key_word;
        std::memcpy(&word, src + i, sizeof word);
        std::memcpy(&key_word, turned, sizeof key_word);
        word ^= key_word;
        std::memcpy(dst + i, &word, sizeof word);
        i += sizeof word;
    }
    // i is a multiple of 8 here: the phase of byte i is turned[i % 16]
    for (; i < length; ++i)
        dst[i] = src[i] ^ turned[i & (sizeof(mask_chunk) - 1)];
}

std::size_t frame_encode(std::span<uint8_t> out, uint8_t opcode, std::span<const uint8_t> payload) {
    if (out.size() < frame_size(payload.size()))
        return 0;
    uint8_t key[WS_KEY_SIZE];
    if (csprng_fill(key, sizeof key) != 0)
        return 0;
    const std::size_t header = frame_header_encode(out.data(), true, opcode, payload.size(), key);
    frame_mask(out.data() + header, payload.data(), payload.size(), key, 0);
    return header + payload.size();
}
