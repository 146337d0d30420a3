// WebSocket opening handshake: key, expected accept, request, answer check.
#include "handshake.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#ifdef lua_h
#error "the handshake must stay free of the interpreter"
#endif

#define LOG_UNIT "handshake"

namespace {

constexpr const char* kGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr const char* kStatusPrefix = "HTTP/1.1 101";
constexpr const char* kAcceptHeader = "Sec-WebSocket-Accept";
constexpr const char* kRequestTemplate =
    "GET %s HTTP/1.1\r\nHost: %s\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: %s\r\nSec-WebSocket-Protocol: echo\r\nSec-WebSocket-Version: 13\r\n\r\n";
// ---- SHA-1 ----

struct sha1_state {
    uint32_t h[5];
    uint64_t bytes;  // message length so far
    uint8_t block[64];
    std::size_t used;  // bytes in `block`
};

uint32_t rotate(uint32_t value, int bits) { return (value << bits) | (value >> (32 - bits)); }

void sha1_block(sha1_state& state, const uint8_t* block) {
    uint32_t w[80];
    for (int t = 0; t < 16; ++t)
        w[t] = static_cast<uint32_t>(block[4 * t]) << 24 | static_cast<uint32_t>(block[4 * t + 1]) << 16 |
               static_cast<uint32_t>(block[4 * t + 2]) << 8 | block[4 * t + 3];
    for (int t = 16; t < 80; ++t)
        w[t] = rotate(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
    uint32_t a = state.h[0], b = state.h[1], c = state.h[2], d = state.h[3], e = state.h[4];
    for (int t = 0; t < 80; ++t) {
        uint32_t f, k;
        if (t < 20) {
            f = (b & c) | (~b & d);
            k = 0x5A827999;
        } else if (t < 40) {
            f = b ^ c ^ d;
            k = 0x6ED9EBA1;
        } else if (t < 60) {
            f = (b & c) | (b & d) | (c & d);
            k = 0x8F1BBCDC;
        } else {
            f = b ^ c ^ d;
            k = 0xCA62C1D6;
        }
        const uint32_t next = rotate(a, 5) + f + e + w[t] + k;
        e = d;
        d = c;
        c = rotate(b, 30);
        b = a;
        a = next;
    }
    state.h[0] += a;
    state.h[1] += b;
    state.h[2] += c;
    state.h[3] += d;
    state.h[4] += e;
}

void sha1_add(sha1_state& state, const uint8_t* data, std::size_t length) {
    state.bytes += length;
    while (length > 0) {
        const std::size_t take = std::min(length, sizeof state.block - state.used);
        std::memcpy(state.block + state.used, data, take);
        state.used += take;
        data += take;
        length -= take;
        if (state.used == sizeof state.block) {
            sha1_block(state, state.block);
            state.used = 0;
        }
    }
}

void sha1_begin(sha1_state& state) {
    state = {{0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0}, 0, {}, 0};
}

// Pads with 0x80, zeros and the bit length (big-endian), as RFC 3174 says.
void sha1_end(sha1_state& state, uint8_t* digest) {
    const uint64_t bits = state.bytes * 8;
    const uint8_t one = 0x80;
    sha1_add(state, &one, 1);
    const uint8_t zero = 0;
    while (state.used != 56)
        sha1_add(state, &zero, 1);
    uint8_t length[8];
    for (int i = 0; i < 8; ++i)
        length[i] = static_cast<uint8_t>(bits >> (56 - 8 * i));
    sha1_add(state, length, sizeof length);
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 4; ++j)
            digest[4 * i + j] = static_cast<uint8_t>(state.h[i] >> (24 - 8 * j));
}

}  // namespace

void sha1(const void* data, std::size_t length, uint8_t (&digest)[SHA1_SIZE]) {
    sha1_state state;
    sha1_begin(state);
    sha1_add(state, static_cast<const uint8_t*>(data), length);
    sha1_end(state, digest);
}

int base64_encode(const unsigned char* input, std::size_t length, std::span<char> out) {
    static constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::size_t needed = (length + 2) / 3 * 4;
    if (input == nullptr || out.data() == nullptr || needed + 1 > out.size())
        return -1;
    char* at = out.data();
    for (std::size_t i = 0; i < length; i += 3) {
        const std::size_t left = length - i;
        const uint32_t group = static_cast<uint32_t>(input[i]) << 16 |
                               (left > 1 ? static_cast<uint32_t>(input[i + 1]) << 8 : 0) |
                               (left > 2 ? input[i + 2] : 0);
        *at++ = digits[(group >> 18) & 63];
        *at++ = digits[(group >> 12) & 63];
        *at++ = left > 1 ? digits[(group >> 6) & 63] : '=';
        *at++ = left > 2 ? digits[group & 63] : '=';
    }
    *at = '\0';
    return static_cast<int>(needed);
}

void sec_websocket_key(char (&out)[TEXT_FIELD_SIZE]) {
    std::srand(static_cast<unsigned>(std::time(nullptr)));  // same second, same key: kept
    unsigned char material[16];
    for (unsigned char& byte : material)
        byte = static_cast<unsigned char>(std::rand() & 0xff);
    if (base64_encode(material, sizeof material, out) < 0)
        out[0] = '\0';
}

int sec_websocket_accept(const char* key, char (&out)[TEXT_FIELD_SIZE]) {
    sha1_state state;
    sha1_begin(state);
    sha1_add(state, reinterpret_cast<const uint8_t*>(key), std::strlen(key));
    sha1_add(state, reinterpret_cast<const uint8_t*>(kGuid), std::strlen(kGuid));
    uint8_t digest[SHA1_SIZE + 1] = {};  // the log shows it as text: terminated
    sha1_end(state, digest);
    WS_LOG("SHA1 data of accept key is %s\n", reinterpret_cast<const char*>(digest));
    if (base64_encode(digest, SHA1_SIZE, out) < 0)
        out[0] = '\0';
    return 0;
}

int format_handshake_request(std::span<char> out, const char* path, const char* host, const char* key) {
    const int length = std::snprintf(out.data(), out.size(), kRequestTemplate, path, host, key);
    if (length < 0 || static_cast<std::size_t>(length) >= out.size())
        return -1;
    return length;
}

int check_ws_accept(const ws_record* ws, const char* answer) {
    const char* header = std::strstr(answer, kAcceptHeader);
    WS_LOG("ws_accept is %s\n", header != nullptr ? header : "(null)");
    if (header == nullptr || ws->sec_ws_accept[0] == '\0')
        return -1;  // nothing to search from, or nothing to search for: a mismatch
    return std::strstr(header, ws->sec_ws_accept) != nullptr ? 0 : -1;
}

bool answer_status_ok(std::span<const char> got) {
    const std::string_view status(kStatusPrefix);
    return got.size() >= status.size() && std::string_view(got.data(), status.size()) == status;
}

namespace {

// Where `pattern` ends in text[from, to), or 0.
std::size_t find_end(std::string_view text, std::size_t from, std::string_view pattern) {
    const std::size_t at = text.find(pattern, from);
    return at == std::string_view::npos ? 0 : at + pattern.size();
}

// Moves the scan over the new part of `text` (the bytes before any zero).
void scan_text(std::string_view text, const char* expected, answer_scan& scan) {
    const std::string_view name(kAcceptHeader), value(expected), blank("\r\n\r\n");
    // patterns cut by the previous end are looked for again from their start
    auto back = [&](std::size_t length) { return scan.checked > length ? scan.checked - length : 0; };
    if (scan.name_at == 0)
        if (const std::size_t end = find_end(text, back(name.size() - 1), name))
            scan.name_at = end - name.size() + 1;
    if (scan.name_at != 0 && scan.value_end == 0 && !value.empty())
        scan.value_end = find_end(text, std::max(scan.name_at - 1, back(value.size() - 1)), value);
    if (scan.block_end == 0)
        scan.block_end = find_end(text, back(blank.size() - 1), blank);
    scan.checked = text.size();
}

}  // namespace

answer_check check_upgrade_answer(std::span<const char> got, const char* expected_accept, answer_scan& scan) {
    const std::string_view status(kStatusPrefix);
    const std::size_t head = std::min(got.size(), status.size());
    if (std::string_view(got.data(), head) != status.substr(0, head))
        return {answer_verdict::refused, 0};
    if (scan.text_end == 0) {
        const void* zero = std::memchr(got.data() + scan.checked, 0, got.size() - scan.checked);
        const std::size_t end = zero != nullptr ? static_cast<std::size_t>(static_cast<const char*>(zero) - got.data())
                                                : got.size();
        scan_text(std::string_view(got.data(), end), expected_accept, scan);
        if (zero != nullptr)
            scan.text_end = end + 1;  // + 1: a zero at 0 is seen too
    }
    if (scan.block_end == 0)
        return {scan.text_end != 0 ? answer_verdict::refused : answer_verdict::needs_more, 0};
    if (scan.value_end == 0 || scan.value_end > scan.block_end)
        return {answer_verdict::refused, 0};
    return {answer_verdict::complete, scan.block_end};
}
