// WebSocket peers on 127.0.0.1 for the client's tests: helpers that let an
// in-process tcp_peer handler speak the server side byte by byte, and the
// python3-websockets echo server (tests/peers/ws_echo_server.py) as an
// independent implementation.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "tcp_peer.h"

namespace peers {

// The upgrade request as it arrived (up to the blank line); "" after 5 s.
std::string read_upgrade_request(int fd);
// The value of header `name` ("Sec-WebSocket-Key") in a request, "" if absent.
std::string header_value(const std::string& request, std::string_view name);
// RFC 6455 accept value for `key`.
std::string accept_value(const std::string& key);
// "HTTP/1.1 101 ..." with `accept_header`: `accept` (default spelling).
std::string upgrade_answer(const std::string& accept, std::string_view accept_header = "Sec-WebSocket-Accept");
// Reads the request and answers it correctly; the request.
std::string accept_upgrade(int fd);

// One frame as the client sent it.
struct client_frame {
    bool complete = false;  // false: the connection ended or 5 s passed first
    uint8_t first = 0;      // FIN, RSV and opcode byte
    uint8_t length_code = 0;
    bool masked = false;
    uint64_t length = 0;    // 127 class read least significant byte first, as this client writes it
    std::string header;     // raw bytes up to and including the key
    std::string payload;    // unmasked
};
client_frame read_client_frame(int fd);

// A server frame: FIN set unless `final` is false, no mask. 127 class
// least significant byte first unless `network_order`.
std::string server_frame(uint8_t opcode, std::string_view payload, bool final = true, bool network_order = false);
inline std::string text_frame(std::string_view payload) { return server_frame(0x1, payload); }

// /usr/bin/python3 running ws_echo_server.py (optionally over TLS); killed
// when destroyed, ends by itself after 120 s.
class echo_server {
public:
    explicit echo_server(const std::filesystem::path* crt = nullptr, const std::filesystem::path* key = nullptr);
    ~echo_server();
    echo_server(const echo_server&) = delete;
    echo_server& operator=(const echo_server&) = delete;
    uint16_t port() const { return port_; }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    uint16_t port_ = 0;
};

}  // namespace peers
