// UDP round trips per second on 127.0.0.1, 32-byte datagrams, against one
// echo peer thread: a script driving the module's loop (embedded interpreter,
// module linked in) versus a plain C ping-pong with blocking sendto/recv.
//   udp_roundtrip_bench [round_trips]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "embedded_lua.h"
#include "luacli.h"

namespace {

constexpr int kPayload = 32;

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Echoes every datagram to its sender until one reads "quit".
void echo(int fd) {
    char buffer[2048];
    for (;;) {
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t received = recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (received < 0)
            continue;
        if (received == 4 && std::memcmp(buffer, "quit", 4) == 0)
            return;
        sendto(fd, buffer, static_cast<size_t>(received), 0, reinterpret_cast<sockaddr*>(&from), length);
    }
}

double plain_c(uint16_t peer_port, long round_trips) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in peer = loopback(peer_port);
    char payload[kPayload];
    std::memset(payload, 'x', sizeof payload);
    char reply[2048];
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < round_trips; ++i) {
        sendto(fd, payload, sizeof payload, 0, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
        if (recv(fd, reply, sizeof reply, 0) != kPayload) {
            std::fprintf(stderr, "plain C: short reply\n");
            std::exit(1);
        }
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    close(fd);
    return static_cast<double>(round_trips) / elapsed.count();
}

// The periodic function (every second) resends if a datagram was lost.
constexpr const char* kScript = R"(
    local ws = require("ws_client")
    local peer_port, target = ...
    local payload = string.rep("x", 32)
    local count, last_count = 0, -1
    local client
    client = ws.udp_connect(ws.udp_new(), { type = 2,
        on_message = function(data)
            count = count + 1
            if count >= target then ws.loop_stop() return end
            ws.udp_sendto(client, data, "127.0.0.1", peer_port)
        end })
    ws.udp_sendto(client, payload, "127.0.0.1", peer_port)
    ws.loop_start(function()
        if count == last_count then ws.udp_sendto(client, payload, "127.0.0.1", peer_port) end
        last_count = count
    end, 1, 1)
    ws.udp_close(client)
    return count
)";

double lua_module(uint16_t peer_port, long round_trips) {
    lua_State* L = open_state_with_module();
    load_script(L, kScript);
    lua_pushinteger(L, peer_port);
    lua_pushinteger(L, round_trips);
    const double seconds = run_script_timed(L, 2);
    lua_close(L);
    return static_cast<double>(round_trips) / seconds;
}

}  // namespace

int main(int argc, char** argv) {
    const long round_trips = argc > 1 ? std::atol(argv[1]) : 200000;
    const int peer = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (peer < 0 || bind(peer, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(peer, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("echo peer");
        return 1;
    }
    const uint16_t port = ntohs(address.sin_port);
    std::thread echo_thread(echo, peer);

    plain_c(port, round_trips / 10);  // warm-up
    const double c_rate = plain_c(port, round_trips);
    const double lua_rate = lua_module(port, round_trips);
    const double c_rate_again = plain_c(port, round_trips);

    const int quitter = socket(AF_INET, SOCK_DGRAM, 0);
    sendto(quitter, "quit", 4, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    echo_thread.join();
    close(quitter);
    close(peer);

    const double c_best = c_rate > c_rate_again ? c_rate : c_rate_again;
    std::printf("round trips per run:  %ld (32-byte datagrams, 127.0.0.1)\n", round_trips);
    std::printf("script via module:    %.0f round trips/s\n", lua_rate);
    std::printf("plain C ping-pong:    %.0f round trips/s (runs: %.0f, %.0f)\n", c_best, c_rate, c_rate_again);
    std::printf("module / plain C:     %.2f\n", lua_rate / c_best);
    return 0;
}
