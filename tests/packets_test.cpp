// Frame codec: built frames and the parse outcomes (masking against a
// byte-wise reference and odd inputs are left to the fuzz targets).
#include <algorithm>
#include <filesystem>
#include <regex>
#include <vector>

#include "lua_fixture.h"
#include "packets.h"
#include "ws_client.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint8_t CANARY = 0xAA;

Bytes pattern(std::size_t length) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<uint8_t>(i * 7 + 3 + (i >> 8));
    return bytes;
}

void reference_mask(uint8_t* dst, const uint8_t* src, std::size_t length, const uint8_t* key) {
    for (std::size_t i = 0; i < length; ++i)
        dst[i] = src[i] ^ key[i % 4];
}

// A frame in a buffer of canaries, byte 1 zeroed as callers must.
Bytes build(const Bytes& payload, FrameType type, uint32_t* length) {
    Bytes buffer(payload.size() + WS_MAX_FRAME_HEADER + 16, CANARY);
    buffer[1] = 0;
    wsMakeFrame(payload.empty() ? nullptr : payload.data(), static_cast<uint32_t>(payload.size()), buffer.data(),
                length, type);
    return buffer;
}

}  // namespace

// Header bytes of each length class, the 127 class least significant byte
// first with the payload address after it, and nothing written past the frame.
TEST(FrameBuild, LengthClassesAndMaskedPayload) {
    const std::pair<std::size_t, Bytes> cases[] = {
        {0, {0x81, 0x80}}, {125, {0x81, 0xFD}}, {126, {0x81, 0xFE, 0, 126}}, {65535, {0x81, 0xFE, 0xFF, 0xFF}},
        {65536, {0x81, 0xFF, 0, 0, 1, 0}},
    };
    for (const auto& [length, head] : cases) {
        SCOPED_TRACE(length);
        const Bytes payload = pattern(length);
        uint32_t built = 0;
        const Bytes frame = build(payload, WS_TEXT_FRAME, &built);
        const std::size_t header = length < 126 ? 2 : length <= 0xFFFF ? 4 : 10;
        ASSERT_EQ(built, header + 4 + length);
        EXPECT_TRUE(std::equal(head.begin(), head.end(), frame.begin()));
        const auto address = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(payload.data()));
        for (int i = 0; header == 10 && i < 4; ++i)
            EXPECT_EQ(frame[6 + i], static_cast<uint8_t>(address >> (8 * i))) << i;
        Bytes unmasked(length);
        reference_mask(unmasked.data(), frame.data() + header + 4, length, frame.data() + header);
        EXPECT_EQ(unmasked, payload);
        EXPECT_EQ(std::count(frame.begin() + built, frame.end(), CANARY), frame.end() - frame.begin() - built);
    }
    for (const auto& [type, first] : {std::pair{WS_CLOSING_FRAME, 0x88}, {WS_PONG_FRAME, 0x8A}, {WS_PING_FRAME, 0x89}}) {
        uint32_t built = 0;
        const Bytes frame = build({}, type, &built);
        EXPECT_EQ(built, 6u);
        EXPECT_EQ(frame[0] << 8 | frame[1], first << 8 | 0x80);
    }
}

TEST(FrameBuild, LengthCodeIsOredIntoByteOneAndBadArgumentsWriteNothing) {
    Bytes buffer(32, 0);
    buffer[1] = 0x03;
    const Bytes payload = pattern(5);
    uint32_t length = 0;
    wsMakeFrame(payload.data(), 4, buffer.data(), &length, WS_TEXT_FRAME);
    EXPECT_EQ(buffer[1], 0x87);
    EXPECT_EQ(length, 10u);

    Bytes untouched(32, CANARY);
    untouched[1] = 0;
    const Bytes expected = untouched;
    length = 77;
    wsMakeFrame(payload.data(), 5, untouched.data(), &length, static_cast<FrameType>(0x10));
    EXPECT_EQ(length, 0u);
    length = 77;
    wsMakeFrame(nullptr, 5, untouched.data(), &length, WS_TEXT_FRAME);
    EXPECT_EQ(length, 0u);
    wsMakeFrame(payload.data(), 5, untouched.data(), nullptr, WS_TEXT_FRAME);
    EXPECT_EQ(untouched, expected);
}

// Every parse outcome with its outputs (untouched ones keep their sentinels)
// and, where given, its log lines ("Function: text").
TEST(FrameParse, OutcomesOutputsAndLogLines) {
    constexpr uint32_t UNTOUCHED = 0xBEEF;
    const std::string p = "getPayloadLength: ", w = "wsParseInputFrame: ";
    const struct {
        Bytes frame;
        uint32_t claimed;  // 0: the whole frame
        FrameType type;
        uint32_t header, size;
        std::string log = "-";  // "-": not checked
    } cases[] = {
        {{0x81}, 0, WS_INCOMPLETE_FRAME, UNTOUCHED, UNTOUCHED, w + "inputLength < 2\n"},
        {{0x81, 0x7E, 0}, 0, WS_INCOMPLETE_FRAME, 2, 0, p + "payloadLength is 126\n" + p + "Data is incomplete\n"},
        {{0x81, 0x7E, 0x00, 0x10}, 0, WS_TEXT_FRAME, 4, 16},
        {{0x81, 0x7F, 0x10, 0, 0, 0, 0, 0, 0, 0}, 9, WS_INCOMPLETE_FRAME, 2, 0},
        {{0x81, 0x7F, 0x10, 0, 0, 0, 0, 0, 0, 0}, 10, WS_TEXT_FRAME, 10, 16},
        {{0x81, 0x05}, 0, WS_TEXT_FRAME, 2, 5},  // the payload's presence is not checked
        {{0x81, 0x7E, 0, 5}, 0, WS_TEXT_FRAME, 4, 5},  // non-minimal length
        {{0x81, 0x85, 1, 2, 3, 4, 'h', 'e', 'l', 'l', 'o'}, 0, WS_TEXT_FRAME, 2, 5, p + "payloadLength is 5\n"},
        {{0x82, 0x7F, 0xFF, 0x7F, 0xFF, 0xFF, 0, 0, 0, 0}, 0, WS_BINARY_FRAME, 10, 0xFFFF7FFF},
        {{0x81, 0x7F, 0, 0x80, 0, 0, 0, 0, 0, 0}, 0, WS_ERROR_FRAME, 2, 0,
         p + "payloadLength is 127\n" + p + "too long payload length, error fram\n"},
        {{0x81, 0x7F, 0, 0, 0, 0, 1, 0, 0, 0}, 0, WS_ERROR_FRAME, 10, 0,
         p + "payloadLength is 127\n" + p + "2 payloadLength == 0x7F\n" + p + "2 payloadLength > SIZE_MAX\n"},
        {{0x81, 0x7E, 0, 0}, 0, WS_TEXT_FRAME, 4, 0, p + "payloadLength is 126\n" + p + "2 payloadLength == 0x7E\n"},
        {{0x41, 0}, 0, WS_ERROR_FRAME, UNTOUCHED, UNTOUCHED, w + "extensions on\n"},
        {{0x01, 0}, 0, WS_ERROR_FRAME, UNTOUCHED, UNTOUCHED, w + "recv FIN != 1\n"},
        {{0x83, 0}, 0, WS_ERROR_FRAME, UNTOUCHED, UNTOUCHED, ""},
        {{0xA1, 0}, 0, WS_ERROR_FRAME, UNTOUCHED, UNTOUCHED},
        {{0x8B, 0}, 0, WS_ERROR_FRAME, UNTOUCHED, UNTOUCHED},
        {{0x88, 0}, 0, WS_CLOSING_FRAME, 2, 0},
        {{0x89, 0}, 0, WS_PING_FRAME, 2, 0},
        {{0x8A, 0}, 0, WS_PONG_FRAME, 2, 0},
    };
    char dir[] = "/tmp/ws_client_packets_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string log = std::string(dir) + "/debug.log";
    ASSERT_TRUE(debug_log_set_path(log.c_str()));
    // "[Time: ..., File: packets, Function: F, Line: NNNNN]: text" becomes "F: text"
    const std::regex prefix(R"(\[Time: [^\]]*, File: packets, Function: (\w+), Line: \d{5}\]: )");
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "case " << &c - cases);
        Bytes frame = c.frame;
        std::filesystem::remove(log);
        uint8_t* data = nullptr;
        uint32_t size = UNTOUCHED, header = UNTOUCHED;
        const uint32_t claimed = c.claimed != 0 ? c.claimed : static_cast<uint32_t>(frame.size());
        EXPECT_EQ(wsParseInputFrame(frame.data(), claimed, &data, &size, &header), c.type);
        EXPECT_EQ(header, c.header);
        EXPECT_EQ(size, c.size);
        EXPECT_EQ(data, c.header == UNTOUCHED ? nullptr : frame.data() + c.header);
        if (c.log != "-") {
            EXPECT_EQ(std::regex_replace(file_text(log), prefix, "$1: "), c.log);
        }
    }
    debug_log_set_path("NULL");
    std::filesystem::remove_all(dir);
    uint8_t* data = nullptr;
    uint32_t size = 0, header = 0;
    uint8_t frame[2] = {0x81, 0x00};
    EXPECT_EQ(wsParseInputFrame(frame, 0, &data, &size, &header), WS_ERROR_FRAME);
    EXPECT_EQ(wsParseInputFrame(nullptr, 2, &data, &size, &header), WS_ERROR_FRAME);
    EXPECT_EQ(wsParseInputFrame(frame, 2, nullptr, &size, &header), WS_ERROR_FRAME);
}
