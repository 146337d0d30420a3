// TCP request/response exchanges per second on 127.0.0.1 against one peer
// thread that answers each request with a 73-byte chunked response and
// closes: a script using the module (connect, send, the loop delivers the
// decoded response, end of stream closes it) versus plain C doing the same
// connect/send/read-to-end/close.
//   tcp_roundtrip_bench [exchanges]
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

constexpr char kResponse[] =
    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n";

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void serve(int listener, long exchanges) {
    char request[1024];
    for (long i = 0; i < exchanges; ++i) {
        const int fd = accept(listener, nullptr, nullptr);
        if (fd < 0)
            continue;
        if (recv(fd, request, sizeof request, 0) > 0)
            send(fd, kResponse, sizeof kResponse - 1, MSG_NOSIGNAL);
        close(fd);
    }
}

double plain_c(uint16_t port, long exchanges) {
    const sockaddr_in peer = loopback(port);
    char reply[4096];
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < exchanges; ++i) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
            std::perror("plain C connect");
            std::exit(1);
        }
        send(fd, "GET / HTTP/1.1\r\n\r\n", 18, MSG_NOSIGNAL);
        std::size_t total = 0;
        for (ssize_t got; (got = recv(fd, reply, sizeof reply, 0)) > 0;)
            total += static_cast<std::size_t>(got);
        close(fd);
        if (total != sizeof kResponse - 1) {
            std::fprintf(stderr, "plain C: short reply\n");
            std::exit(1);
        }
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<double>(exchanges) / elapsed.count();
}

constexpr const char* kScript = R"(
    local ws = require("ws_client")
    local port, target = ...
    local done = 0
    local expected = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nhello world\r\n"
    local options = { type = 1, ip = "127.0.0.1", port = port, crt = "", prikey = "", is_secure = 0,
        on_message = function(data)
            if data ~= expected then error("unexpected response") end
            done = done + 1
        end,
        on_close = function() ws.loop_stop() end }
    local function idle() end
    for i = 1, target do
        local conn = ws.tcp_connect(ws.tcp_new(), options)
        ws.tcp_send(conn, "GET / HTTP/1.1\r\n\r\n")
        ws.loop_start(idle, 1, 5)
    end
    return done
)";

double lua_module(uint16_t port, long exchanges) {
    lua_State* L = open_state_with_module();
    load_script(L, kScript);
    lua_pushinteger(L, port);
    lua_pushinteger(L, exchanges);
    const double seconds = run_script_timed(L, 2);
    if (lua_tointeger(L, -1) != exchanges) {
        std::fprintf(stderr, "module: %ld of %ld responses\n", static_cast<long>(lua_tointeger(L, -1)), exchanges);
        std::exit(1);
    }
    lua_close(L);
    return static_cast<double>(exchanges) / seconds;
}

int listen_loopback(uint16_t* port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 64) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::perror("peer");
        std::exit(1);
    }
    *port = ntohs(address.sin_port);
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    const long exchanges = argc > 1 ? std::atol(argv[1]) : 10000;
    uint16_t port = 0;
    const int listener = listen_loopback(&port);
    std::thread peer(serve, listener, 2 * exchanges);
    const double c_rate = plain_c(port, exchanges);
    const double lua_rate = lua_module(port, exchanges);
    peer.join();
    close(listener);
    std::printf("TCP request/chunked response/close, %ld exchanges on 127.0.0.1\n", exchanges);
    std::printf("  plain C           %10.0f exchanges/s\n", c_rate);
    std::printf("  Lua + ws_client   %10.0f exchanges/s  (%.0f%% of plain C)\n", lua_rate, 100.0 * lua_rate / c_rate);
    return 0;
}
