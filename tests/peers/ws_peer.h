// WebSocket peers on 127.0.0.1: an in-process server playing a script of
// steps on one connection, and python3-websockets (ws_echo_server.py).
#pragma once

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace peers {

// upgrade: reads the request, sends `bytes` or else the right answer; send:
// `bytes`; both return once the client has read all, so that each lands in a
// read of its own. read: `count` bytes. drain: until the client closes. hold:
// until the peer is destroyed. reset: the final close sends a reset. Waits are
// bounded (5-10 s). Without steps nothing listens: connects are refused.
struct step {
    enum kind { upgrade, send, read, drain, hold, reset } what;
    std::string bytes = {};
    std::size_t count = 0;
};

struct script_peer {
    explicit script_peer(std::vector<step> steps);
    ~script_peer();
    const std::string& transcript();  // all the client sent, once the script ended

    int listener = -1;
    uint16_t port = 0;
    std::atomic<bool> stop{false};
    std::string seen;
    std::thread thread;
};

// Client frames in `bytes`: header up to the masking key (127 class: length
// in bytes 2-5, least significant first) and unmasked payload.
std::vector<std::pair<std::string, std::string>> client_frames(std::string_view bytes);
// An unmasked final frame; 127 class least significant first.
std::string server_frame(uint8_t first_byte, std::string_view payload);

struct echo_server {  // stopped when destroyed; port 0 if it did not start
    explicit echo_server(bool tls);
    ~echo_server();
    FILE* input = nullptr;
    uint16_t port = 0;
};

}  // namespace peers
