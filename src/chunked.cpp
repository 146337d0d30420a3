// Chunked transfer decoding for the TCP receive path.
#include "chunked.h"

#include <climits>
#include <cstring>

#include "ws_client.h"

#ifdef lua_h
#error "the chunked decoder must stay free of the interpreter"
#endif

#define LOG_UNIT "tcp"

int find_key(const char* buffer, int32_t length, const char* key, int32_t key_length, int32_t* position) {
    if (key == nullptr || *position < 0 || key_length < 0 || length < 0)
        return 0;
    const std::string_view haystack(buffer, static_cast<std::size_t>(length));
    const std::size_t found = haystack.find(std::string_view(key, static_cast<std::size_t>(key_length)),
                                            static_cast<std::size_t>(*position));
    if (found == std::string_view::npos)
        return 0;
    *position = static_cast<int32_t>(found);
    return 1;
}

static int hex_digit_value(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'z')
        return c - 87;  // a = 10 ... f = 15 ... z = 35, on purpose
    if (c >= 'A' && c <= 'Z')
        return c - 'A' + 'a' - 87;
    return -1;
}

int32_t htoi(std::string_view text) {
    std::size_t i = 0;
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        i = 2;
    uint32_t value = 0;  // unsigned: overflow wraps instead of being undefined
    for (; i < text.size(); ++i) {
        const int digit = hex_digit_value(text[i]);
        if (digit < 0)
            break;
        value = value * 16u + static_cast<uint32_t>(digit);
    }
    return static_cast<int32_t>(value);
}

int get_head(std::string_view received, std::size_t* header_length) {
    const std::size_t blank_line = received.find("\r\n\r\n");
    if (blank_line == std::string_view::npos)
        return 0;
    *header_length = blank_line;
    return 1;
}

namespace {

constexpr std::string_view FINAL_CHUNK = "0\r\n\r\n";

bool final_chunk_at(std::string_view text, std::size_t cursor) {
    return cursor <= text.size() && text.substr(cursor).starts_with(FINAL_CHUNK);
}

}  // namespace

int de_chunked(std::string_view received, std::span<char> body, std::size_t* body_length) {
    *body_length = 0;
    if (received.size() > INT32_MAX)
        return 0;
    const auto length = static_cast<int32_t>(received.size());
    const char* text = received.data();

    // The first final-chunk pattern anywhere (headers included) bounds the
    // decode; an earlier accidental match ends it early, deliberately.
    int32_t end = 0;
    if (find_key(text, length, FINAL_CHUNK.data(), 5, &end) == 0) {
        WS_LOG("---de_chunked--end error--\n");
        return 0;
    }
    int32_t blank_line = 0;
    find_key(text, length, "\r\n\r\n", 4, &blank_line);  // callers cut the header first
    int64_t cursor = int64_t{blank_line} + 4;
    std::size_t out = 0;

    while (!final_chunk_at(received, static_cast<std::size_t>(cursor))) {
        const int64_t remaining = length - cursor;
        const auto span = static_cast<int32_t>(remaining <= 0 ? 0 : std::min<int64_t>(remaining, CHUNK_LINE_SPAN));
        int32_t line_end = 0;
        if (find_key(text + (remaining > 0 ? cursor : 0), span, "\r\n", 2, &line_end) == 0) {
            WS_LOG("---de_chunked-- error--\n");
            return 0;
        }
        const std::string_view size_line = received.substr(static_cast<std::size_t>(cursor),
                                                           static_cast<std::size_t>(line_end));
        WS_LOG("--chunked_hex  %.*s ----\n", static_cast<int>(size_line.size()), size_line.data());
        const int32_t size = htoi(size_line);
        const int64_t begin = cursor + line_end + 2;

        // A negative size, a chunk running past the text or past the body
        // space is as malformed as one not followed by a line break.
        const bool fits = size >= 0 && begin + size + 2 <= length &&
                          out + static_cast<std::size_t>(size) <= body.size();
        if (!fits || text[begin + size] != '\r' || text[begin + size + 1] != '\n') {
            WS_LOG("---de_chunked-data-begin=[%d] chunked_len[%d] error--[[%.*s]]\n", static_cast<int>(begin),
                   size, static_cast<int>(received.size()), text);
            return 0;
        }
        std::memcpy(body.data() + out, text + begin, static_cast<std::size_t>(size));
        out += static_cast<std::size_t>(size);
        *body_length = out;
        cursor = begin + size + 2;
        if (cursor > end) {
            WS_LOG("====end==\n");
            return 0;
        }
    }
    return 1;
}
