// The chunked decoder and header cut on crafted texts, including inputs that
// try to make them read or write outside their buffers.
#include <vector>

#include "chunked.h"
#include "lua_fixture.h"

TEST(Htoi, HexWithPrefixLettersPastFAndWrap) {
    const std::pair<const char*, int32_t> cases[] = {
        {"0X1f", 31}, {"1A;ext=1", 26}, {"g", 16}, {"Zz", 595}, {";5", 0}, {"0x", 0}, {"ffffffff", -1},
        {"100000000", 0},  // wraps silently
    };
    for (const auto& [text, value] : cases)
        EXPECT_EQ(htoi(text), value) << text;
}

TEST(FindKey, RawBytesFromPositionWithinLength) {
    const char buffer[] = "ab\0cd\r\n\r\nx";
    const auto length = static_cast<int32_t>(sizeof buffer - 1);
    int32_t position = 0;
    EXPECT_EQ(find_key(buffer, length, "\0c", 2, &position), 1);  // zero bytes compare too
    EXPECT_EQ(position, 2);
    position = 6;
    EXPECT_EQ(find_key(buffer, length, "\r\n\r\n", 4, &position), 0);
    EXPECT_EQ(position, 6) << "unchanged when not found";
    EXPECT_EQ(find_key(buffer, 9, "\n\r\nx", 4, &position), 0) << "a match must end inside the length";
    position = -1;
    EXPECT_EQ(find_key(buffer, length, "a", 1, &position), 0);
}

// Header cut first, then the body, as the receive path does.
TEST(DeChunked, DesignedResultsQuirksAndOverruns) {
    const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const struct {
        const char* name;
        std::string text;
        int complete;
        std::string body;
        std::size_t capacity = 1 << 20;
    } cases[] = {
        {"well formed", head + "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n", 1, "hello world"},
        {"final pattern inside chunk data ends the decode", head + "7\r\nab0\r\n\r\n\r\n3\r\nxyz\r\n0\r\n\r\n", 0,
         "ab0\r\n\r\n"},
        {"trailer fields: no final pattern", head + "5\r\nhello\r\n0\r\nX-T: 1\r\n\r\n", 0, ""},
        {"zero-size chunk that is not final", head + "0;x\r\n\r\n5\r\nhello\r\n0\r\n\r\n", 1, "hello"},
        {"size minus two", head + "2\r\nab\r\nfffffffe\r\nxx\r\n0\r\n\r\n", 0, "ab"},
        {"size past the text", head + "7fffffff\r\nabc\r\n0\r\n\r\n", 0, ""},
        {"size line is the last byte", "HTTP/1.1 200 OK\r\nX: 0\r\n\r\n5", 0, ""},
        {"line end just past the span", head + std::string(CHUNK_LINE_SPAN - 1, '1') + "\r\n0\r\n\r\n", 0, ""},
        {"line end at the span's last offset", head + std::string(CHUNK_LINE_SPAN - 3, '0') + "5\r\nhello\r\n0\r\n\r\n",
         1, "hello"},
        {"body space bounds the writes", head + "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n", 0, "hello", 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::size_t header_length = 0;
        ASSERT_EQ(get_head(c.text, &header_length), 1);
        std::vector<char> body(c.capacity);
        std::size_t body_length = 0;
        EXPECT_EQ(de_chunked(c.text, body, &body_length), c.complete);
        EXPECT_EQ(std::string(body.data(), body_length), c.body);
    }
    std::size_t length = 99;
    EXPECT_EQ(get_head("HTTP/1.1 200 OK\r\nA: b\r\n\r\nbody", &length), 1);
    EXPECT_EQ(length, 21u) << "the header block ends before the blank line";
    EXPECT_EQ(get_head("HTTP/1.1 200 OK\r\nA: b\r\n", &length), 0);
    EXPECT_EQ(length, 21u);
}
