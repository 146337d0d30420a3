// Test peers on 127.0.0.1: loopback helpers, an in-process server playing a
// script of steps on one connection; certificates made at test time.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace peers {

using namespace std::chrono_literals;

sockaddr_in loopback(uint16_t port);
int bind_loopback(int fd);                         // to 127.0.0.1, any port: the port, or -1
int listen_loopback(int backlog, uint16_t* port);  // a listening TCP socket on 127.0.0.1
// Waits until fd is readable or has an error pending; false after `limit`.
bool wait_readable(int fd, std::chrono::milliseconds limit = 5000ms);

// upgrade: reads the request, sends `bytes` ({accept}: the accept value for its
// key) or else the right answer; send: `bytes`; both return once the client has
// read all (or is gone), so that each lands in a read of its own. read: `count`
// bytes. drain: until the client closes. reset: the final close sends a reset.
// Waits are bounded (5-10 s). Without steps nothing listens: connects are refused.
struct step {
    enum kind { upgrade, send, read, drain, reset } what;
    std::string bytes = {};
    std::size_t count = 0;
};

struct script_peer {
    explicit script_peer(std::vector<step> steps);
    ~script_peer();
    const std::string& transcript();  // all the client sent, once the script ended

    int listener = -1;
    uint16_t port = 0;
    std::string seen;
    std::thread thread;
};

// Client frames in `bytes`: header up to the masking key (127 class: length
// in bytes 2-5, least significant first) and unmasked payload.
std::vector<std::pair<std::string, std::string>> client_frames(std::string_view bytes);
// An unmasked final frame; 127 class least significant first.
std::string server_frame(uint8_t first_byte, std::string_view payload);

// Self-signed EC certificates and keys (server, client, other) in a fresh directory.
struct certificates {
    std::filesystem::path dir;
    certificates();
    ~certificates();
};

}  // namespace peers
