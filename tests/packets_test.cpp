// Frame codec: built frames, masking, the masking key, and every parse outcome.
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

Bytes pattern(std::size_t length, unsigned seed = 3) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<uint8_t>(i * 7 + seed + (i >> 8));
    return bytes;
}

void reference_mask(uint8_t* dst, const uint8_t* src, std::size_t length, const uint8_t* key) {
    for (std::size_t i = 0; i < length; ++i)
        dst[i] = src[i] ^ key[i % 4];
}

std::size_t extended_bytes(std::size_t length) { return length < 126 ? 0 : length <= 0xFFFF ? 2 : 8; }

// A frame in a buffer of canaries, byte 1 zeroed as callers must.
struct Built {
    Bytes buffer;
    uint32_t length = 0;
};
Built build(const Bytes& payload, FrameType type) {
    Built built{Bytes(payload.size() + WS_MAX_FRAME_HEADER + 16, CANARY)};
    built.buffer[1] = 0;
    wsMakeFrame(payload.empty() ? nullptr : payload.data(), static_cast<uint32_t>(payload.size()),
                built.buffer.data(), &built.length, type);
    return built;
}

struct Parsed {
    FrameType type;
    uint8_t* data;
    uint32_t datasize;
    uint32_t headerLength;
};
// Outputs start as sentinels so untouched outputs can be told apart.
Parsed parse(Bytes& frame, uint32_t claimed) {
    Parsed p{WS_EMPTY_FRAME, nullptr, 0xDEAD, 0xBEEF};
    p.type = wsParseInputFrame(frame.data(), claimed, &p.data, &p.datasize, &p.headerLength);
    return p;
}
Parsed parse(Bytes& frame) { return parse(frame, static_cast<uint32_t>(frame.size())); }

void expect_untouched(const Parsed& p) {
    EXPECT_EQ(p.data, nullptr);
    EXPECT_EQ(p.datasize, 0xDEADu);
    EXPECT_EQ(p.headerLength, 0xBEEFu);
}

// Runs `body` with both frames built inside one wall-clock second.
template <typename Body>
void within_one_second(Body body) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        const std::time_t before = std::time(nullptr);
        body(before);
        if (std::time(nullptr) == before)
            return;
    }
    FAIL() << "clock kept crossing second boundaries";
}

}  // namespace

TEST(FrameBuild, EveryLengthClassBoundary) {
    for (const std::size_t length : {0u, 1u, 125u, 126u, 127u, 65535u, 65536u, 70001u}) {
        SCOPED_TRACE(length);
        const Bytes payload = pattern(length);
        Built built = build(payload, WS_TEXT_FRAME);
        const std::size_t header = 2 + extended_bytes(length);
        ASSERT_EQ(built.length, header + 4 + length);
        const uint8_t* frame = built.buffer.data();
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
        reference_mask(unmasked.data(), frame + header + 4, length, frame + header);
        EXPECT_EQ(unmasked, payload);
        for (std::size_t i = built.length; i < built.buffer.size(); ++i)
            ASSERT_EQ(built.buffer[i], CANARY) << "written past the frame at " << i;
    }
}

TEST(FrameBuild, EmptyControlFramesAreSixBytes) {
    for (const auto& [type, first] : {std::pair{WS_CLOSING_FRAME, 0x88}, {WS_PONG_FRAME, 0x8A}, {WS_PING_FRAME, 0x89}}) {
        Built built = build({}, type);
        ASSERT_EQ(built.length, 6u);
        EXPECT_EQ(built.buffer[0], first);
        EXPECT_EQ(built.buffer[1], 0x80);
        EXPECT_EQ(built.buffer[6], CANARY);
    }
}

TEST(FrameBuild, LengthCodeIsOredIntoByteOne) {
    Bytes buffer(32, 0);
    buffer[1] = 0x03;
    const Bytes payload = pattern(4);
    uint32_t length = 0;
    wsMakeFrame(payload.data(), 4, buffer.data(), &length, WS_TEXT_FRAME);
    EXPECT_EQ(buffer[1], 0x87);
    EXPECT_EQ(length, 10u);
}

TEST(FrameBuild, KeyComesFromTimeSeededRand) {
    within_one_second([](std::time_t second) {
        Built first = build(pattern(3), WS_TEXT_FRAME);
        Built second_frame = build(pattern(200), WS_BINARY_FRAME);
        uint8_t header[WS_MAX_FRAME_HEADER];
        ASSERT_EQ(wsMakeFrameHeader(nullptr, 0, header, WS_CLOSING_FRAME), 6u);
        std::srand(static_cast<unsigned>(second));
        for (int i = 0; i < 4; ++i) {
            const auto expected = static_cast<uint8_t>(std::rand() & 0xFF);
            EXPECT_EQ(first.buffer[2 + i], expected) << i;
            EXPECT_EQ(second_frame.buffer[4 + i], expected) << i;
            EXPECT_EQ(header[2 + i], expected) << i;
        }
    });
}

TEST(FrameBuild, BadArgumentsWriteNothingAndDoNotAbort) {
    Bytes buffer(32, CANARY);
    buffer[1] = 0;
    const Bytes expected = buffer;
    const Bytes payload = pattern(5);
    uint32_t length = 77;
    wsMakeFrame(payload.data(), 5, nullptr, &length, WS_TEXT_FRAME);
    EXPECT_EQ(length, 0u);
    length = 77;
    wsMakeFrame(payload.data(), 5, buffer.data(), &length, static_cast<FrameType>(0x10));
    EXPECT_EQ(length, 0u);
    length = 77;
    wsMakeFrame(nullptr, 5, buffer.data(), &length, WS_TEXT_FRAME);
    EXPECT_EQ(length, 0u);
    wsMakeFrame(payload.data(), 5, buffer.data(), nullptr, WS_TEXT_FRAME);
    EXPECT_EQ(buffer, expected);
    uint8_t header[WS_MAX_FRAME_HEADER];
    EXPECT_EQ(wsMakeFrameHeader(nullptr, 0, header, WS_EMPTY_FRAME), 0u);
}

TEST(FrameMask, WordwiseMatchesBytewiseAtAnyLengthAndAlignment) {
    const uint8_t key[4] = {0x12, 0xF3, 0x00, 0x9C};
    std::vector<std::size_t> lengths;
    for (std::size_t n = 0; n <= 140; ++n)
        lengths.push_back(n);
    for (const std::size_t n : {191u, 192u, 193u, 1021u, 4099u})
        lengths.push_back(n);
    const Bytes source = pattern(4099 + 8, 5);
    for (const std::size_t length : lengths) {
        Bytes expected(length);
        for (std::size_t src_offset = 0; src_offset < 8; ++src_offset) {
            reference_mask(expected.data(), source.data() + src_offset, length, key);
            for (std::size_t dst_offset = 0; dst_offset < 8; ++dst_offset) {
                Bytes out(length + 16, CANARY);
                wsMaskPayload(out.data() + dst_offset, source.data() + src_offset, static_cast<uint32_t>(length), key);
                ASSERT_TRUE(std::equal(expected.begin(), expected.end(), out.begin() + dst_offset))
                    << "length " << length << " src+" << src_offset << " dst+" << dst_offset;
                for (std::size_t i = 0; i < out.size(); ++i) {
                    const bool outside = i < dst_offset || i >= dst_offset + length;
                    ASSERT_TRUE(!outside || out[i] == CANARY) << "length " << length << " byte " << i;
                }
            }
            Bytes in_place(source.begin() + src_offset, source.begin() + src_offset + length);
            wsMaskPayload(in_place.data(), in_place.data(), static_cast<uint32_t>(length), key);
            ASSERT_EQ(in_place, expected) << "in place, length " << length;
        }
    }
}

TEST(FrameParse, IncompleteAtEveryHeaderSize) {
    Bytes one{0x81};
    EXPECT_EQ(parse(one).type, WS_INCOMPLETE_FRAME);
    expect_untouched(parse(one));
    for (const auto& [frame, needed] : {std::pair{Bytes{0x81, 0x7E, 0x00, 0x10}, 4u},
                                        std::pair{Bytes{0x81, 0x7F, 0x10, 0, 0, 0, 0, 0, 0, 0}, 10u}}) {
        Bytes copy = frame;
        for (uint32_t claimed = 2; claimed < needed; ++claimed) {
            const Parsed p = parse(copy, claimed);
            EXPECT_EQ(p.type, WS_INCOMPLETE_FRAME) << claimed;
            EXPECT_EQ(p.headerLength, 2u);
            EXPECT_EQ(p.datasize, 0u);
            EXPECT_EQ(p.data, copy.data() + 2);
        }
        const Parsed complete = parse(copy, needed);
        EXPECT_EQ(complete.type, WS_TEXT_FRAME);
        EXPECT_EQ(complete.headerLength, needed);
        EXPECT_EQ(complete.datasize, 16u);
        EXPECT_EQ(complete.data, copy.data() + needed);
    }
    Bytes short_frame{0x81, 0x05};
    const Parsed p = parse(short_frame);
    EXPECT_EQ(p.type, WS_TEXT_FRAME) << "the payload's presence is not checked";
    EXPECT_EQ(p.datasize, 5u);
}

TEST(FrameParse, HeaderBitsAndOpcodes) {
    for (const uint8_t first : {0xC1, 0xA1, 0x91, 0x41, 0x01, 0x00, 0x80, 0x83, 0x87, 0x8B, 0x8F}) {
        Bytes frame{first, 0x00};
        const Parsed p = parse(frame);
        EXPECT_EQ(p.type, WS_ERROR_FRAME) << std::hex << int(first);
        expect_untouched(p);
    }
    for (const uint8_t opcode : {0x1, 0x2, 0x8, 0x9, 0xA}) {
        Bytes frame{static_cast<uint8_t>(0x80 | opcode), 0x00};
        EXPECT_EQ(parse(frame).type, static_cast<FrameType>(opcode));
    }
}

TEST(FrameParse, LengthFields) {
    Bytes non_minimal{0x81, 0x7E, 0x00, 0x05};
    EXPECT_EQ(parse(non_minimal).datasize, 5u);
    EXPECT_EQ(parse(non_minimal).type, WS_TEXT_FRAME);

    // MASK set: the key is read as the first payload bytes
    Bytes masked{0x81, 0x85, 1, 2, 3, 4, 'h', 'e', 'l', 'l', 'o'};
    const Parsed m = parse(masked);
    EXPECT_EQ(m.type, WS_TEXT_FRAME);
    EXPECT_EQ(m.headerLength, 2u);
    EXPECT_EQ(m.datasize, 5u);
    EXPECT_EQ(m.data, masked.data() + 2);

    Bytes largest{0x82, 0x7F, 0xFF, 0x7F, 0xFF, 0xFF, 0, 0, 0, 0};
    EXPECT_EQ(parse(largest).type, WS_BINARY_FRAME) << "byte 2's top bit is not the one tested";
    EXPECT_EQ(parse(largest).datasize, 0xFFFF7FFFu);

    Bytes byte3_top{0x81, 0x7F, 0x00, 0x80, 0, 0, 0, 0, 0, 0};
    const Parsed t = parse(byte3_top);
    EXPECT_EQ(t.type, WS_ERROR_FRAME);
    EXPECT_EQ(t.headerLength, 2u);
    EXPECT_EQ(t.datasize, 0u);

    Bytes above_32_bits{0x81, 0x7F, 0x00, 0x00, 0x00, 0x00, 0x01, 0, 0, 0};
    const Parsed a = parse(above_32_bits);
    EXPECT_EQ(a.type, WS_ERROR_FRAME);
    EXPECT_EQ(a.headerLength, 10u);
    EXPECT_EQ(a.data, above_32_bits.data() + 10);
    EXPECT_EQ(a.datasize, 0u);

    // 64-bit lengths in network order only survive as 0
    Bytes network_70000{0x81, 0x7F, 0, 0, 0, 0, 0x00, 0x01, 0x11, 0x70};
    EXPECT_EQ(parse(network_70000).type, WS_ERROR_FRAME);
    Bytes network_zero{0x81, 0x7F, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(parse(network_zero).type, WS_TEXT_FRAME);
    EXPECT_EQ(parse(network_zero).datasize, 0u);
}

TEST(FrameParse, NullOrEmptyInputIsAnErrorNotAnAbort) {
    Bytes frame{0x81, 0x00};
    EXPECT_EQ(parse(frame, 0).type, WS_ERROR_FRAME);
    uint8_t* data = nullptr;
    uint32_t size = 0, header = 0;
    EXPECT_EQ(wsParseInputFrame(nullptr, 2, &data, &size, &header), WS_ERROR_FRAME);
    EXPECT_EQ(wsParseInputFrame(frame.data(), 2, nullptr, &size, &header), WS_ERROR_FRAME);
}

TEST(FrameParse, LogLines) {
    char dir[] = "/tmp/ws_client_packets_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string log = std::string(dir) + "/debug.log";
    ASSERT_TRUE(debug_log_set_path(log.c_str()));
    const std::string p = "getPayloadLength: ", w = "wsParseInputFrame: ";
    const std::vector<std::pair<Bytes, std::string>> cases = {
        {{0x81}, w + "inputLength < 2\n"},
        {{0x41, 0}, w + "extensions on\n"},
        {{0x01, 0}, w + "recv FIN != 1\n"},
        {{0x83, 0}, ""},
        {{0x81, 0x85}, p + "payloadLength is 5\n"},
        {{0x81, 0x7E, 0}, p + "payloadLength is 126\n" + p + "Data is incomplete\n"},
        {{0x81, 0x7E, 0, 0}, p + "payloadLength is 126\n" + p + "2 payloadLength == 0x7E\n"},
        {{0x81, 0x7F, 0, 0x80, 0, 0, 0, 0, 0, 0},
         p + "payloadLength is 127\n" + p + "too long payload length, error fram\n"},
        {{0x81, 0x7F, 0, 0, 0, 0, 1, 0, 0, 0},
         p + "payloadLength is 127\n" + p + "2 payloadLength == 0x7F\n" + p + "2 payloadLength > SIZE_MAX\n"},
    };
    // "[Time: ..., File: packets, Function: F, Line: NNNNN]: text" becomes "F: text"
    const std::regex prefix(R"(\[Time: [^\]]*, File: packets, Function: (\w+), Line: \d{5}\]: )");
    for (auto [frame, expected] : cases) {
        std::filesystem::remove(log);
        parse(frame);
        std::ifstream in(log);
        std::stringstream text;
        text << in.rdbuf();
        EXPECT_EQ(std::regex_replace(text.str(), prefix, "$1: "), expected) << std::hex << int(frame[0]);
    }
    debug_log_set_path("NULL");
    std::filesystem::remove_all(dir);
}
