// The standard-mode session on arbitrary server bytes, and the client frame
// encoder on arbitrary payloads.
// Input: byte 0 seeds the cut points, byte 1 picks max_message (1..256 or
// 64 KiB), the rest is the wire. Oracle: the events are the same whether the
// wire comes whole or in random pieces (each piece in an allocation of its
// own size, so an over-read is caught); no call claims more bytes than it was
// given; every text and close reason is valid UTF-8 by a decoder written here
// independently; payloads respect max_message; close codes are ones allowed
// on the wire. Then the wire, as a payload, is framed by the encoder,
// unmasked byte by byte here and fed back as a server frame.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ws_message.h"

namespace {

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

// Code point by code point: shortest form, no surrogates, at most U+10FFFF.
bool utf8_by_code_points(const uint8_t* p, std::size_t n) {
    for (std::size_t i = 0; i < n;) {
        uint32_t c = p[i];
        std::size_t length = 1;
        uint32_t least = 0;
        if (c >= 0x80) {
            if ((c & 0xE0) == 0xC0)
                length = 2, c &= 0x1F, least = 0x80;
            else if ((c & 0xF0) == 0xE0)
                length = 3, c &= 0x0F, least = 0x800;
            else if ((c & 0xF8) == 0xF0)
                length = 4, c &= 0x07, least = 0x10000;
            else
                return false;
        }
        if (i + length > n)
            return false;
        for (std::size_t k = 1; k < length; ++k) {
            if ((p[i + k] & 0xC0) != 0x80)
                return false;
            c = c << 6 | (p[i + k] & 0x3F);
        }
        if (c < least || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}

struct event {
    ws_event what;
    uint16_t code;
    std::string bytes;
    bool operator==(const event&) const = default;
};

void check(const ws_out& e, std::size_t max_message) {
    const auto* b = e.bytes.data();
    if (e.what == ws_event::text || e.what == ws_event::close)
        require(utf8_by_code_points(b, e.bytes.size()));
    if (e.what == ws_event::text || e.what == ws_event::binary)
        require(e.bytes.size() <= max_message);
    if (e.what == ws_event::ping || e.what == ws_event::pong || e.what == ws_event::close)
        require(e.bytes.size() <= 123 + 2 * (e.what != ws_event::close));
    if (e.what == ws_event::close)
        require((e.code >= 1000 && e.code <= 1003) || (e.code >= 1007 && e.code <= 1014) ||
                (e.code >= 3000 && e.code <= 4999) || (e.code == 1005 && e.bytes.empty()));
    if (e.what == ws_event::fail)
        require(e.code == 1002 || e.code == 1007 || e.code == 1009);
}

// Feeds the wire in pieces whose sizes come from `seed` (0: whole).
std::vector<event> run(const uint8_t* wire, std::size_t size, uint32_t seed, std::size_t max_message) {
    ws_session s;
    ws_session_init(s, max_message);
    std::vector<event> events;
    for (std::size_t at = 0; at < size;) {
        seed = seed * 1103515245u + 12345u;
        const std::size_t piece = seed == 12345u ? size : std::min<std::size_t>(1 + (seed >> 16) % 17, size - at);
        const std::unique_ptr<uint8_t[]> own(new uint8_t[piece]);
        std::memcpy(own.get(), wire + at, piece);
        at += piece;
        std::span<const uint8_t> in(own.get(), piece);
        while (!in.empty()) {
            const ws_out e = ws_session_feed(s, in);
            require(e.used <= in.size() && (e.what != ws_event::none || e.used == in.size()));
            in = in.subspan(e.used);
            if (e.what == ws_event::none)
                break;
            check(e, max_message);
            events.push_back({e.what, e.code, {e.bytes.begin(), e.bytes.end()}});
            if (e.what == ws_event::fail)
                at = size, in = {};
        }
    }
    ws_session_free(s);
    return events;
}

void encode_round_trip(const uint8_t* payload, std::size_t length, uint8_t opcode) {
    std::vector<uint8_t> frame(frame_size(length));
    require(frame_encode(frame, opcode, {payload, length}) == frame.size());
    const std::size_t extra = length < 126 ? 0 : length <= 0xFFFF ? 2 : 8;
    require(frame[0] == (0x80 | opcode) && (frame[1] & 0x80));
    uint64_t encoded = frame[1] & 0x7F;
    if (extra != 0)
        encoded = 0;
    for (std::size_t i = 0; i < extra; ++i)
        encoded = encoded << 8 | frame[2 + i];
    require(encoded == length && (frame[1] & 0x7F) == (extra == 0 ? length : extra == 2 ? 126 : 127));
    // the server's view of the same message: no mask bit, no key, payload in clear
    std::vector<uint8_t> server(frame.begin(), frame.begin() + 2 + extra);
    server[0] = 0x82;
    server[1] &= 0x7F;
    const uint8_t* key = frame.data() + 2 + extra;
    for (std::size_t i = 0; i < length; ++i)
        server.push_back(key[4 + i] ^ key[i % 4]);
    require(std::memcmp(server.data() + 2 + extra, payload, length) == 0);
    const std::vector<event> events = run(server.data(), server.size(), 0, 1 << 16);
    require(events.size() == 1 && events[0].what == ws_event::binary &&
            events[0].bytes == std::string(payload, payload + length));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    const std::size_t max_message = data[1] == 0xFF ? 1 << 16 : 1 + data[1];
    const uint8_t* wire = data + 2;
    const std::size_t length = size - 2;
    const std::vector<event> whole = run(wire, length, 0, max_message);
    require(run(wire, length, 1 + data[0], max_message) == whole);
    static constexpr uint8_t opcodes[] = {ws_opcode::TEXT, ws_opcode::BINARY, ws_opcode::PING, ws_opcode::PONG};
    if (length <= 1 << 16)
        encode_round_trip(wire, length, opcodes[data[0] & 3]);
    return 0;
}
