// Opening handshake: key and accept values, and the checks on the answer.
#include <chrono>
#include <ctime>
#include <tuple>

#include "handshake.h"
#include "lua_fixture.h"

namespace {
constexpr const char* kAccept = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";  // RFC 6455's example
}

TEST(Handshake, AcceptFollowsTheRfcAndKeysChangeOnlyWithTheSecond) {
    char value[TEXT_FIELD_SIZE];
    EXPECT_EQ(sec_websocket_accept("dGhlIHNhbXBsZSBub25jZQ==", value), 0);
    EXPECT_STREQ(value, kAccept);
    char first[TEXT_FIELD_SIZE], second[TEXT_FIELD_SIZE];
    for (std::time_t before = 0; before != std::time(nullptr);) {  // again if the clock ticked in between
        before = std::time(nullptr);
        sec_websocket_key(first);
        sec_websocket_key(second);
    }
    EXPECT_STREQ(first, second);
    EXPECT_THAT(first, ::testing::MatchesRegex("[A-Za-z0-9+/]{22}=="));
}

// RFC 3174's SHA-1 tests (input, times repeated) and RFC 4648's Base64 tests.
TEST(Handshake, Sha1AndBase64MatchTheRfcVectors) {
    const std::tuple<std::string, int, const char*> sha1_rows[] = {
        {"abc", 1, "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 1, "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {"a", 1000000, "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
        {"0123456701234567012345670123456701234567012345670123456701234567", 10,
         "dea356a2cddd90c7a7ecedc5ebb563934f460452"},
    };
    for (const auto& [piece, times, hex] : sha1_rows) {
        std::string input;
        for (int i = 0; i < times; ++i)
            input += piece;
        uint8_t digest[SHA1_SIZE];
        sha1(input.data(), input.size(), digest);
        char text[2 * SHA1_SIZE + 1];
        for (std::size_t i = 0; i < SHA1_SIZE; ++i)
            std::snprintf(text + 2 * i, 3, "%02x", digest[i]);
        EXPECT_STREQ(text, hex) << piece;
    }
    const std::pair<const char*, const char*> base64_rows[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [input, encoded] : base64_rows) {
        char out[16];
        EXPECT_EQ(base64_encode(reinterpret_cast<const unsigned char*>(input), std::strlen(input), out),
                  static_cast<int>(std::strlen(encoded)));
        EXPECT_STREQ(out, encoded);
    }
    char tiny[8];
    EXPECT_EQ(base64_encode(reinterpret_cast<const unsigned char*>("foobar"), 6, tiny), -1) << "no room for the end";
}

TEST(Handshake, AnswerNeedsTheStatusPrefixAndTheValueAfterTheHeaderName) {
    const std::pair<std::string, int> rows[] = {  // answer ("-": the peer stays silent), result
        {"HTTP/1.1 101 Switching Protocols\r\nSec-WebSocket-Accept: " + std::string(kAccept) + "\r\n\r\n", 1},
        {"HTTP/1.1 101\r\nSec-WebSocket-Accept:\r\nX-Other: " + std::string(kAccept) + "\r\n\r\n", 1},
        {"HTTP/1.0 101 Switching Protocols\r\nSec-WebSocket-Accept: " + std::string(kAccept) + "\r\n\r\n", -1},
        {"HTTP/1.1 200 OK\r\nSec-WebSocket-Accept: " + std::string(kAccept) + "\r\n\r\n", -1},
        {"HTTP/1.1 101 Switching Protocols\r\nsec-websocket-accept: " + std::string(kAccept) + "\r\n\r\n", -1},
        {"HTTP/1.1 101 " + std::string(kAccept) + "\r\nSec-WebSocket-Accept: nope\r\n\r\n", -1},
        {"HTTP/1.1 101 Switching Protocols\r\n", -1},  // the rest of a cut answer is not awaited
        {"", -1},                                      // closed without an answer
        {"-", -1},                                     // silent: 5 s
    };
    for (const auto& [answer, result] : rows) {
        int pair[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        if (answer != "-") {
            ASSERT_EQ(send(pair[1], answer.data(), answer.size(), 0), static_cast<ssize_t>(answer.size()));
        }
        if (answer.empty())
            shutdown(pair[1], SHUT_WR);
        ws_record ws{};
        ws.sockfd = pair[0];
        std::strcpy(ws.sec_ws_accept, kAccept);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(handshake_result(&ws), result) << answer;
        if (answer == "-") {
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4500));
        }
        close(pair[0]);
        close(pair[1]);
    }
}
