// Frame codec: built frames, masking, the masking key, and the parse outcomes.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

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
    for (const std::size_t length : {0u, 125u, 126u, 65535u, 65536u}) {
        SCOPED_TRACE(length);
        const Bytes payload = pattern(length);
        uint32_t built = 0;
        const Bytes frame = build(payload, WS_TEXT_FRAME, &built);
        const std::size_t header = length < 126 ? 2 : length <= 0xFFFF ? 4 : 10;
        ASSERT_EQ(built, header + 4 + length);
        EXPECT_EQ(frame[0], 0x81);
        if (length < 126) {
            EXPECT_EQ(frame[1], 0x80 | length);
        } else if (length <= 0xFFFF) {
            EXPECT_EQ(frame[1], 0xFE);
            EXPECT_EQ(frame[2] << 8 | frame[3], static_cast<int>(length));
        } else {
            EXPECT_EQ(frame[1], 0xFF);
            const auto address = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(payload.data()));
            for (int i = 0; i < 4; ++i) {
                EXPECT_EQ(frame[2 + i], static_cast<uint8_t>(length >> (8 * i))) << i;
                EXPECT_EQ(frame[6 + i], static_cast<uint8_t>(address >> (8 * i))) << i;
            }
        }
        Bytes unmasked(length);
        reference_mask(unmasked.data(), frame.data() + header + 4, length, frame.data() + header);
        EXPECT_EQ(unmasked, payload);
        for (std::size_t i = built; i < frame.size(); ++i)
            ASSERT_EQ(frame[i], CANARY) << "written past the frame at " << i;
    }
    for (const auto& [type, first] : {std::pair{WS_CLOSING_FRAME, 0x88}, {WS_PONG_FRAME, 0x8A}, {WS_PING_FRAME, 0x89}}) {
        uint32_t built = 0;
        const Bytes frame = build({}, type, &built);
        EXPECT_EQ(built, 6u);
        EXPECT_EQ(frame[0], first);
        EXPECT_EQ(frame[1], 0x80);
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

// Keys come from rand() after srand(time(NULL)): one second, one key.
TEST(FrameBuild, KeyComesFromTimeSeededRand) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        const std::time_t second = std::time(nullptr);
        uint32_t length = 0;
        const Bytes frame = build(pattern(200), WS_BINARY_FRAME, &length);
        uint8_t header[WS_MAX_FRAME_HEADER];
        ASSERT_EQ(wsMakeFrameHeader(nullptr, 0, header, WS_CLOSING_FRAME), 6u);
        if (std::time(nullptr) != second)
            continue;  // crossed a second boundary
        std::srand(static_cast<unsigned>(second));
        for (int i = 0; i < 4; ++i) {
            const auto expected = static_cast<uint8_t>(std::rand() & 0xFF);
            EXPECT_EQ(frame[4 + i], expected) << i;
            EXPECT_EQ(header[2 + i], expected) << i;
        }
        return;
    }
    FAIL() << "clock kept crossing second boundaries";
}

// The vectorised mask equals the byte-wise one at every length and alignment,
// in place too, and writes nothing outside the destination.
TEST(FrameMask, MatchesBytewiseAtAnyLengthAndAlignment) {
    const uint8_t key[4] = {0x12, 0xF3, 0x00, 0x9C};
    const Bytes source = pattern(1100);
    for (std::size_t length = 0; length <= 1030; length += length < 140 ? 1 : 63) {
        for (std::size_t offset = 0; offset < 4; ++offset) {
            Bytes expected(length);
            reference_mask(expected.data(), source.data() + offset, length, key);
            Bytes out(length + 16, CANARY);
            wsMaskPayload(out.data() + 3 - offset, source.data() + offset, static_cast<uint32_t>(length), key);
            const Bytes inside(out.begin() + 3 - offset, out.begin() + 3 - offset + length);
            ASSERT_EQ(inside, expected) << "length " << length << " offset " << offset;
            for (std::size_t i = 0; i < out.size(); ++i) {
                const bool outside = i < 3 - offset || i >= 3 - offset + length;
                ASSERT_TRUE(!outside || out[i] == CANARY) << "length " << length << " byte " << i;
            }
            Bytes in_place(source.begin() + offset, source.begin() + offset + length);
            wsMaskPayload(in_place.data(), in_place.data(), static_cast<uint32_t>(length), key);
            ASSERT_EQ(in_place, expected) << "in place, length " << length;
        }
    }
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
    for (auto c : cases) {
        SCOPED_TRACE(::testing::Message() << std::hex << int(c.frame[0]) << " " << int(c.frame[1]));
        std::filesystem::remove(log);
        uint8_t* data = nullptr;
        uint32_t size = UNTOUCHED, header = UNTOUCHED;
        const uint32_t claimed = c.claimed != 0 ? c.claimed : static_cast<uint32_t>(c.frame.size());
        EXPECT_EQ(wsParseInputFrame(c.frame.data(), claimed, &data, &size, &header), c.type);
        EXPECT_EQ(header, c.header);
        EXPECT_EQ(size, c.size);
        EXPECT_EQ(data, c.header == UNTOUCHED ? nullptr : c.frame.data() + c.header);
        std::stringstream text;
        text << std::ifstream(log).rdbuf();
        if (c.log != "-") {
            EXPECT_EQ(std::regex_replace(text.str(), prefix, "$1: "), c.log);
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
