// The chunked decoder and header cut on crafted texts, including inputs that
// try to make them read or write outside their buffers.
#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "chunked.h"

namespace {

// Decodes like the receive path: header cut first, then the body.
struct decoded {
    int header_found = 0;
    int complete = 0;
    std::string header, body;
};

decoded decode(std::string_view text, std::size_t body_capacity = 1 << 20) {
    decoded out;
    std::size_t header_length = 0;
    out.header_found = get_head(text, &header_length);
    if (out.header_found == 0)
        return out;
    out.header = std::string(text.substr(0, header_length));
    std::vector<char> body(body_capacity);
    std::size_t body_length = 0;
    out.complete = de_chunked(text, body, &body_length);
    out.body.assign(body.data(), body_length);
    return out;
}

}  // namespace

TEST(Htoi, HexWithPrefixLettersPastFAndWrap) {
    EXPECT_EQ(htoi("5"), 5);
    EXPECT_EQ(htoi("0x5"), 5);
    EXPECT_EQ(htoi("0X1f"), 31);
    EXPECT_EQ(htoi("1A;ext=1"), 26);
    EXPECT_EQ(htoi("g"), 16);
    EXPECT_EQ(htoi("zz"), 595);
    EXPECT_EQ(htoi("Zz"), 595);
    EXPECT_EQ(htoi(""), 0);
    EXPECT_EQ(htoi(";5"), 0);
    EXPECT_EQ(htoi("0"), 0);
    EXPECT_EQ(htoi("0x"), 0);
    EXPECT_EQ(htoi("ffffffff"), -1);
    EXPECT_EQ(htoi("100000000"), 0);  // wraps silently
}

TEST(FindKey, RawBytesFromPositionWithinLength) {
    const char buffer[] = "ab\0cd\r\n\r\nx";
    const auto length = static_cast<int32_t>(sizeof buffer - 1);
    int32_t position = 0;
    EXPECT_EQ(find_key(buffer, length, "\0c", 2, &position), 1);  // zero bytes compare too
    EXPECT_EQ(position, 2);
    position = 3;
    EXPECT_EQ(find_key(buffer, length, "\r\n", 2, &position), 1);
    EXPECT_EQ(position, 5);
    position = 6;
    EXPECT_EQ(find_key(buffer, length, "\r\n\r\n", 4, &position), 0);
    EXPECT_EQ(position, 6) << "unchanged when not found";
    EXPECT_EQ(find_key(buffer, 9, "\n\r\nx", 4, &position), 0) << "a match must end inside the length";
    position = -1;
    EXPECT_EQ(find_key(buffer, length, "a", 1, &position), 0);
    position = 0;
    EXPECT_EQ(find_key(buffer, length, nullptr, 1, &position), 0);
}

TEST(GetHead, CutsBeforeTheFirstBlankLine) {
    std::size_t length = 99;
    EXPECT_EQ(get_head("HTTP/1.1 200 OK\r\nA: b\r\n\r\nbody\r\n\r\n", &length), 1);
    EXPECT_EQ(length, 21u);
    length = 99;
    EXPECT_EQ(get_head("HTTP/1.1 200 OK\r\nA: b\r\n", &length), 0);
    EXPECT_EQ(length, 99u);
}

TEST(DeChunked, WellFormedAndDeliberateQuirks) {
    const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    decoded d = decode(head + "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n");
    EXPECT_EQ(d.complete, 1);
    EXPECT_EQ(d.header, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked");
    EXPECT_EQ(d.body, "hello world");

    // Chunk data holding the final-chunk pattern ends the decode after it.
    d = decode(head + "7\r\nab0\r\n\r\n\r\n3\r\nxyz\r\n0\r\n\r\n");
    EXPECT_EQ(d.complete, 0);
    EXPECT_EQ(d.body, "ab0\r\n\r\n");

    // Trailer fields: the final pattern never occurs, nothing is decoded.
    d = decode(head + "5\r\nhello\r\n0\r\nX-T: 1\r\n\r\n");
    EXPECT_EQ(d.complete, 0);
    EXPECT_EQ(d.body, "");

    // A zero-size chunk that is not the final pattern is skipped over.
    d = decode(head + "0;x\r\n\r\n5\r\nhello\r\n0\r\n\r\n");
    EXPECT_EQ(d.complete, 1);
    EXPECT_EQ(d.body, "hello");
}

TEST(DeChunked, OverrunsAreMalformedChunks) {
    const std::string head = "HTTP/1.1 200 OK\r\n\r\n";
    struct bad {
        const char* name;
        std::string text;
        std::string kept;
    } cases[] = {
        // Sizes whose chunk would end before its own start or after the text.
        {"minus two", head + "2\r\nab\r\nfffffffe\r\nxx\r\n0\r\n\r\n", "ab"},
        {"minus one", head + "ffffffff\r\n\r\n0\r\n\r\n", ""},
        {"past the text", head + "7fffffff\r\nabc\r\n0\r\n\r\n", ""},
        // The header's "0\r\n\r\n" bounds the decode; the size line is the last byte.
        {"size line at the very end", "HTTP/1.1 200 OK\r\nX: 0\r\n\r\n5", ""},
        {"line end just past the span", head + std::string(CHUNK_LINE_SPAN - 1, '1') + "\r\n0\r\n\r\n", ""},
    };
    for (const bad& c : cases) {
        SCOPED_TRACE(c.name);
        const decoded d = decode(c.text);
        EXPECT_EQ(d.complete, 0);
        EXPECT_EQ(d.body, c.kept);
    }
    // A line end at the last offset of the span is still found.
    const decoded at_edge = decode(head + std::string(CHUNK_LINE_SPAN - 3, '0') + "5\r\nhello\r\n0\r\n\r\n");
    EXPECT_EQ(at_edge.complete, 1);
    EXPECT_EQ(at_edge.body, "hello");
    // The body space bounds the writes too.
    const decoded small = decode("H\r\n\r\n5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n", 8);
    EXPECT_EQ(small.complete, 0);
    EXPECT_EQ(small.body, "hello");
}
