// Opening handshake: key and accept values, request text, answer checks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include "handshake.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

// A connected loopback pair: `client` plays the module's socket.
struct loopback_pair {
    int client = -1;
    int server = -1;
    loopback_pair() {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            listen(listener, 1) != 0 || getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            return;
        client = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(client, reinterpret_cast<sockaddr*>(&address), size) == 0)
            server = accept(listener, nullptr, nullptr);
        close(listener);
    }
    ~loopback_pair() {
        if (client >= 0)
            close(client);
        if (server >= 0)
            close(server);
    }
};

std::string read_request(int fd) {
    std::string request;
    char chunk[512];
    while (request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0)
            break;
        request.append(chunk, static_cast<std::size_t>(n));
    }
    return request;
}

std::string value_after(const std::string& text, const std::string& name) {
    const auto start = text.find(name);
    if (start == std::string::npos)
        return "";
    const auto end = text.find("\r\n", start);
    return text.substr(start + name.size(), end - start - name.size());
}

// Runs do_handshake against a peer that answers with `answer(key)`.
template <typename Answer>
int handshake_with(Answer answer, std::string* request_seen = nullptr, const char* path = "/chat") {
    loopback_pair pair;
    if (pair.server < 0)
        return -2;
    std::string request;
    std::thread peer([&] {
        request = read_request(pair.server);
        const std::string reply = answer(value_after(request, "Sec-WebSocket-Key: "));
        if (!reply.empty())
            send(pair.server, reply.data(), reply.size(), 0);
        else
            shutdown(pair.server, SHUT_WR);
    });
    ws_record ws{};
    ws.sockfd = pair.client;
    ws.is_secure = 0;
    const int result = do_handshake(&ws, "example.test", path);
    peer.join();
    if (request_seen != nullptr)
        *request_seen = request;
    return result;
}

std::string accept_for(const std::string& key) {
    char out[TEXT_FIELD_SIZE];
    sec_websocket_accept(key.c_str(), out);
    return out;
}

std::string switching(const std::string& accept_line) {
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n" + accept_line +
           "\r\n\r\n";
}

}  // namespace

TEST(HandshakeKeys, AcceptMatchesRfcExampleAndKeysAreWellFormed) {
    EXPECT_EQ(accept_for("dGhlIHNhbXBsZSBub25jZQ=="), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
    char key[TEXT_FIELD_SIZE];
    sec_websocket_key(key);
    EXPECT_EQ(std::strlen(key), 24u);
    EXPECT_THAT(std::string(key), EndsWith("=="));
    EXPECT_EQ(std::strchr(key, '\n'), nullptr);
    EXPECT_EQ(accept_for(key).size(), 28u);
}

TEST(HandshakeKeys, KeysMadeWithinOneSecondAreEqual) {
    char first[TEXT_FIELD_SIZE];
    char second[TEXT_FIELD_SIZE];
    std::time_t before;
    do {  // retry if the clock ticked between the two keys
        before = std::time(nullptr);
        sec_websocket_key(first);
        sec_websocket_key(second);
    } while (std::time(nullptr) != before);
    EXPECT_STREQ(first, second);
}

TEST(HandshakeKeys, Base64KeepsFilterNewlinesAndRefusesNullOrShortOutput) {
    const unsigned char bytes[60] = {};
    char out[200];
    const int n = base64_encode(bytes, sizeof bytes, out);
    EXPECT_EQ(n, 82);  // 80 characters, a newline after 64 and one at the end
    EXPECT_EQ(out[64], '\n');
    EXPECT_EQ(out[81], '\n');
    EXPECT_EQ(base64_encode(nullptr, 3, out), -1);
    EXPECT_EQ(base64_encode(bytes, 3, std::span<char>()), -1);
    char tiny[4];
    EXPECT_EQ(base64_encode(bytes, 3, tiny), -1) << "4 characters and a newline do not fit in 4 bytes";
}

TEST(HandshakeRequest, MatchesTemplateExactlyAndKeepsEmptyPath) {
    char out[1024];
    const int n = format_handshake_request(out, "", "h:80", "KEY");
    EXPECT_EQ(std::string(out, static_cast<std::size_t>(n)),
              "GET  HTTP/1.1\r\nHost: h:80\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
              "Sec-WebSocket-Key: KEY\r\nSec-WebSocket-Protocol: echo\r\nSec-WebSocket-Version: 13\r\n\r\n");
    char small[16];
    EXPECT_EQ(format_handshake_request(small, "/", "h", "KEY"), -1);
}

TEST(HandshakeAnswer, AcceptValueIsSearchedAfterHeaderName) {
    ws_record ws{};
    std::strcpy(ws.sec_ws_accept, "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
    EXPECT_EQ(check_ws_accept(&ws, "HTTP/1.1 101 x\r\nSec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"), 0);
    EXPECT_EQ(check_ws_accept(&ws, "Sec-WebSocket-Accept:\r\nX-Other: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"), 0);
    EXPECT_EQ(check_ws_accept(&ws, "s3pPLMBiTxaQ9kYGzzhZRbK+xOo= Sec-WebSocket-Accept: nope"), -1);
    EXPECT_EQ(check_ws_accept(&ws, "sec-websocket-accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo="), -1);
    EXPECT_EQ(check_ws_accept(&ws, "no header at all"), -1);
}

TEST(HandshakeExchange, AcceptsGoodAnswerAndSendsExactRequest) {
    std::string request;
    EXPECT_EQ(handshake_with([](const std::string& key) { return switching("Sec-WebSocket-Accept: " + accept_for(key)); },
                             &request),
              1);
    EXPECT_THAT(request, ::testing::StartsWith("GET /chat HTTP/1.1\r\nHost: example.test\r\nUpgrade: websocket\r\n"));
    EXPECT_THAT(request, HasSubstr("\r\nSec-WebSocket-Protocol: echo\r\nSec-WebSocket-Version: 13\r\n\r\n"));
    EXPECT_EQ(value_after(request, "Sec-WebSocket-Key: ").size(), 24u);
}

TEST(HandshakeExchange, RefusesWrongStatusCaseOrValueAndPeerClose) {
    auto answer_with = [](std::string status, std::string header) {
        return [=](const std::string& key) {
            return status + "\r\n" + header + ": " + accept_for(key) + "\r\n\r\n";
        };
    };
    EXPECT_EQ(handshake_with(answer_with("HTTP/1.0 101 Switching Protocols", "Sec-WebSocket-Accept")), -1);
    EXPECT_EQ(handshake_with(answer_with("HTTP/1.1 200 OK", "Sec-WebSocket-Accept")), -1);
    EXPECT_EQ(handshake_with(answer_with("HTTP/1.1 101 Switching Protocols", "sec-websocket-accept")), -1);
    EXPECT_EQ(handshake_with(answer_with("HTTP/1.1 101", "Sec-WebSocket-Accept")), 1) << "reason phrase not needed";
    EXPECT_EQ(handshake_with([](const std::string&) { return switching("Sec-WebSocket-Accept: AAAA"); }), -1);
    EXPECT_EQ(handshake_with([](const std::string&) { return std::string(); }), -1) << "peer closed";
}

TEST(HandshakeExchange, AnswerCutBeforeAcceptHeaderIsNotAwaited) {
    loopback_pair pair;
    ASSERT_GE(pair.server, 0);
    std::thread peer([&] {
        const std::string request = read_request(pair.server);
        const std::string head = "HTTP/1.1 101 Switching Protocols\r\n";
        send(pair.server, head.data(), head.size(), 0);
        usleep(300 * 1000);
        const std::string rest = "Sec-WebSocket-Accept: " + accept_for(value_after(request, "Sec-WebSocket-Key: ")) +
                                 "\r\n\r\n";
        send(pair.server, rest.data(), rest.size(), MSG_NOSIGNAL);
    });
    ws_record ws{};
    ws.sockfd = pair.client;
    EXPECT_EQ(do_handshake(&ws, "h", "/"), -1);
    peer.join();
}

TEST(HandshakeExchange, SilentPeerTimesOutAfterFiveSeconds) {
    loopback_pair pair;
    ASSERT_GE(pair.server, 0);
    ws_record ws{};
    ws.sockfd = pair.client;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(do_handshake(&ws, "h", "/"), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4500));
}
