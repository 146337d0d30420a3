// Opening handshake: key and accept values, and the checks on the answer.
#include <chrono>
#include <ctime>

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
