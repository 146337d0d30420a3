// RFC 6455 frames for the standard mode: a resumable decoder for server
// frames and the client side's header encoder and masking. Plain procedures
// over caller buffers: no allocation, no I/O but the random source, no
// interpreter. The designed dialect's codec (packets.h) is separate.
//
// Decoding: zero-fill a frame_decoder, then hand it bytes as they arrive, cut
// anywhere:
//     while (!in.empty()) {
//         frame_step s = frame_decode(d, in);
//         in = in.subspan(s.used);
//         ... s.what: need_more (all used), header (d.frame is the new frame's
//         head), piece (s.piece points into `in`), fail (s.code; stop here)
//     }
// A frame's end is flagged on the step that completes it (`frame_end`): the
// header step of an empty frame, or the piece holding its last byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace ws_opcode {
constexpr uint8_t CONTINUATION = 0x0, TEXT = 0x1, BINARY = 0x2, CLOSE = 0x8, PING = 0x9, PONG = 0xA;
}
constexpr bool is_control_opcode(uint8_t opcode) { return (opcode & 0x08) != 0; }

constexpr std::size_t WS_CONTROL_MAX = 125;  // payload bound of a control frame
constexpr std::size_t WS_HEADER_MAX = 14;    // 2 + 8 length bytes + 4 key bytes
constexpr std::size_t WS_KEY_SIZE = 4;
constexpr uint16_t WS_PROTOCOL_ERROR = 1002;

enum class frame_event : uint8_t { need_more, header, piece, fail };

struct frame_head {
    uint64_t length;
    uint8_t opcode;
    bool fin;
};

// Zero-filled: waiting for a header. Trivial, so it can live in any record.
struct frame_decoder {
    frame_head frame;  // the latest header; readable until the next one starts
    uint64_t left;     // payload bytes of that frame still to come
    uint8_t held[10];  // header bytes received so far (server frames carry no key)
    uint8_t have;
    bool in_payload;
};

struct frame_step {
    frame_event what;
    std::size_t used;                 // bytes of the input this step took
    std::span<const uint8_t> piece;   // payload, inside the input (piece only)
    bool frame_end;                   // the current frame is complete
    uint16_t code;                    // close code (fail only)
};

// Reads one header or one payload piece from `in`. Fails with 1002 at the
// first byte that shows a masked frame, RSV bits (no extension is ever
// negotiated), a reserved opcode, a fragmented or over-long control frame, or
// a 64-bit length with its top bit set. After a failure the decoder must be
// zero-filled again before reuse.
frame_step frame_decode(frame_decoder& d, std::span<const uint8_t> in);

// Bytes still needed to finish the header or the payload the decoder is in:
// header bytes known so far (2 until the length form is seen), or payload
// bytes. A layer reading only what a frame needs can size its reads by it.
uint64_t frame_bytes_needed(const frame_decoder& d);

// Writes a client frame header with FIN, opcode, MASK and `key`, the length
// in the shortest form (16- and 64-bit forms in network order). Returns its
// size: 6, 8 or 14 bytes.
std::size_t frame_header_encode(uint8_t out[WS_HEADER_MAX], bool fin, uint8_t opcode, uint64_t length,
                                const uint8_t key[WS_KEY_SIZE]);

// dst[i] = src[i] ^ key[(offset + i) % 4]; `offset` is the position of src[0]
// in the payload, so a payload can be masked in pieces of any size. dst may
// equal src; other overlaps are not allowed.
void frame_mask(uint8_t* dst, const uint8_t* src, std::size_t length, const uint8_t key[WS_KEY_SIZE],
                std::size_t offset);

// Size of the one-frame encoding of a payload of `length` bytes.
constexpr std::size_t frame_size(std::size_t length) {
    return length + WS_KEY_SIZE + (length < 126 ? 2 : length <= 0xFFFF ? 4 : 10);
}

// One final client frame (fresh key from the CSPRNG, masked payload) into
// out. Returns frame_size(payload.size()), or 0 when out is too small or the
// random source failed (errno set).
std::size_t frame_encode(std::span<uint8_t> out, uint8_t opcode, std::span<const uint8_t> payload);
