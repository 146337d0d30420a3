// WebSocket round trips on 127.0.0.1 against one independent echo server
// (python3-websockets, bench/ws_echo_server.py): a script using the
// module (ws_send, the loop delivers the echo to on_message, which sends the
// next), in the designed mode and with rfc6455 = true, versus plain C writing
// prebuilt masked frames and reading the echo (the floor). Sequential: one
// message in flight. Then one 16 MiB binary echo in the standard mode: its
// time and the resident memory above the idle process, at the peak and after.
//   ws_roundtrip_bench [seconds per measurement]
//   ws_roundtrip_bench --count N [designed|standard [BYTES]]
//       N module round trips of BYTES (32) in that mode, for instruction
//       counts under callgrind (the difference of two N cancels the set-up)
#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "embedded_lua.h"
#include "luacli.h"

#ifndef WS_CLIENT_SOURCE_DIR
#error "WS_CLIENT_SOURCE_DIR must name the source tree"
#endif

extern char** environ;

namespace {

[[noreturn]] void die(const char* what) {
    std::perror(what);
    std::exit(1);
}

// ---- the echo server ----

struct echo_server {
    pid_t pid = -1;
    int input = -1;
    uint16_t port = 0;
};

echo_server start_echo_server() {
    int to_child[2];
    int from_child[2];
    if (pipe(to_child) == -1 || pipe(from_child) == -1)
        die("pipe");
    std::string python = "/usr/bin/python3";
    std::string script = WS_CLIENT_SOURCE_DIR "/bench/ws_echo_server.py";
    char* argv[] = {python.data(), script.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, to_child[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, from_child[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    echo_server server;
    if (posix_spawn(&server.pid, argv[0], &actions, nullptr, argv, environ) != 0)
        die("posix_spawn python3");
    posix_spawn_file_actions_destroy(&actions);
    close(to_child[0]);
    close(from_child[1]);
    server.input = to_child[1];
    std::string printed;  // the port and a line end
    while (printed.find('\n') == std::string::npos) {
        pollfd ready{from_child[0], POLLIN, 0};
        char chunk[32];
        const ssize_t got = poll(&ready, 1, 10000) == 1 ? read(from_child[0], chunk, sizeof chunk) : -1;
        if (got <= 0)
            die("echo server did not start");
        printed.append(chunk, static_cast<std::size_t>(got));
    }
    close(from_child[0]);
    server.port = static_cast<uint16_t>(std::atoi(printed.c_str()));
    return server;
}

void stop_echo_server(echo_server& server) {
    close(server.input);
    kill(server.pid, SIGTERM);
    waitpid(server.pid, nullptr, 0);
}

double now();

// CPU seconds this process has used (the client side only; the server is
// another process).
double cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Round trips per second and client CPU microseconds per round trip.
struct measurement {
    double rate = 0;
    double cpu_us = 0;
};

// Set-up (interpreter, connect) is counted in the CPU time too; it is small
// next to a second of round trips.
template <typename Run>
measurement measure(Run run) {
    const double cpu0 = cpu_seconds();
    const double t0 = now();
    const double rate = run();
    const double elapsed = now() - t0;
    return {rate, (cpu_seconds() - cpu0) * 1e6 / std::max(1.0, rate * elapsed)};
}

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// ---- the script ----

int lua_now(lua_State* L) {
    lua_pushnumber(L, now());
    return 1;
}

constexpr const char* kScript = R"(
    local port, size, seconds, limit, standard = ...
    local ws = require('ws_client')
    local text = string.rep('a', size)
    local done, failed, closed, c = 0, nil, nil, nil
    local t0, t1
    c = ws.ws_connect(ws.ws_new(), { url = 'ws://127.0.0.1/', crt = '', prikey = '', port = port,
        timeout = 3, type = 0, rfc6455 = standard or nil,
        on_message = function(data)
            if data ~= text then failed = 'wrong echo'; ws.loop_stop(); return end
            done = done + 1
            if now() - t0 >= seconds or done == limit then ws.loop_stop() else ws.ws_send(c, text) end
        end,
        on_error = function(e, message) failed = failed or message; ws.loop_stop() end,
        on_close = function() closed = true; ws.loop_stop() end })
    if not c then error('connect failed') end
    t0 = now()
    ws.ws_send(c, text)
    ws.loop_start(function() if now() - t0 > seconds + 5 then failed = 'stalled'; ws.loop_stop() end end, 1, 5)
    t1 = now()
    ws.ws_close(c)
    -- the standard close ends in the loop: the next state must not inherit it
    if not closed then ws.loop_start(function() failed = 'close stalled'; ws.loop_stop() end, 1, 5) end
    if failed then error(failed) end
    return limit and done or done / (t1 - t0)
)";

// Round trips per second, or with a limit the number of round trips done.
double module_round_trips(uint16_t port, int size, double seconds, long limit = 0, bool standard = false) {
    lua_State* L = open_state_with_module();
    lua_register(L, "now", lua_now);
    if (luaL_loadstring(L, kScript) != 0)
        die("script");
    lua_pushinteger(L, port);
    lua_pushinteger(L, size);
    lua_pushnumber(L, seconds);
    if (limit > 0)
        lua_pushinteger(L, limit);
    else
        lua_pushnil(L);
    lua_pushboolean(L, standard);
    if (lua_pcall(L, 5, 1, 0) != 0) {
        std::fprintf(stderr, "script failed: %s\n", lua_tostring(L, -1));
        std::exit(1);
    }
    const double rate = lua_tonumber(L, -1);
    lua_close(L);
    return rate;
}

// ---- one big echo: time and resident memory ----

// A field of /proc/self/status in KiB (VmRSS, VmHWM).
int lua_status_kib(lua_State* L) {
    const char* field = luaL_checkstring(L, 1);
    const std::size_t length = std::strlen(field);
    long kib = -1;
    if (FILE* status = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (kib < 0 && std::fgets(line, sizeof line, status))
            if (std::strncmp(line, field, length) == 0 && line[length] == ':')
                kib = std::atol(line + length + 1);
        std::fclose(status);
    }
    lua_pushinteger(L, kib);
    return 1;
}

// Resets VmHWM to the current VmRSS (Linux 4.0 and later).
int lua_reset_peak(lua_State*) {
    if (FILE* refs = std::fopen("/proc/self/clear_refs", "w")) {
        std::fputs("5", refs);
        std::fclose(refs);
    }
    return 0;
}

// Gives the C library's free heap memory back to the system.
int lua_trim(lua_State*) {
    malloc_trim(0);
    return 0;
}

// The message text is made before the idle mark: what is measured is the
// module's share (send and receive buffers) and the delivered string.
constexpr const char* kBigScript = R"(
    local port, size = ...
    local ws = require('ws_client')
    local text = string.rep('\0\1\2\3', size / 4)
    local got, failed, closed
    local c = ws.ws_connect(ws.ws_new(), { url = 'ws://127.0.0.1/', crt = '', prikey = '', port = port,
        timeout = 3, type = 0, rfc6455 = true, max_message = size,
        on_message = function(data) got = data == text; ws.loop_stop() end,
        on_close = function(reason, code)
            closed = true; failed = failed or got == nil and 'closed: ' .. tostring(code); ws.loop_stop() end,
        on_error = function(e, message) failed = message; ws.loop_stop() end })
    if not c then error('connect failed') end
    collectgarbage(); collectgarbage()
    reset_peak()
    local idle, t0 = status_kib('VmRSS'), now()
    ws.ws_send(c, text, 'binary')
    ws.loop_start(function() if now() - t0 > 60 then failed = 'stalled'; ws.loop_stop() end end, 1, 1)
    local seconds = now() - t0
    collectgarbage(); collectgarbage()
    local peak, after = status_kib('VmHWM'), status_kib('VmRSS')
    trim()
    local trimmed = status_kib('VmRSS')
    ws.ws_close(c)
    if not closed then ws.loop_start(function() failed = 'close stalled'; ws.loop_stop() end, 1, 5) end
    if failed or not got then error(failed or 'wrong echo') end
    return seconds, idle, peak, after, trimmed
)";

void big_echo(uint16_t port, int size) {
    lua_State* L = open_state_with_module();
    lua_register(L, "now", lua_now);
    lua_register(L, "status_kib", lua_status_kib);
    lua_register(L, "reset_peak", lua_reset_peak);
    lua_register(L, "trim", lua_trim);
    load_script(L, kBigScript);
    lua_pushinteger(L, port);
    lua_pushinteger(L, size);
    if (lua_pcall(L, 2, 5, 0) != 0) {
        std::fprintf(stderr, "big echo failed: %s\n", lua_tostring(L, -1));
        std::exit(1);
    }
    const double seconds = lua_tonumber(L, -5);
    const double idle = lua_tonumber(L, -4) / 1024;
    const double peak = lua_tonumber(L, -3) / 1024 - idle;
    const double after = lua_tonumber(L, -2) / 1024 - idle;
    const double trimmed = lua_tonumber(L, -1) / 1024 - idle;
    const double bound = 2.0 * size / (1 << 20) + 2;
    std::printf("standard mode, one %d MiB binary echo: %.3f s; resident above idle (%.1f MiB): peak %.1f MiB "
                "(bound %.0f: %s), after %.1f MiB (%.1f once malloc_trim returned the free heap)\n",
                size >> 20, seconds, idle, peak, bound, peak <= bound ? "within" : "OVER", after, trimmed);
    lua_close(L);
}

// ---- the floor: plain C ----

void send_all(int fd, const char* data, std::size_t length) {
    while (length > 0) {
        const ssize_t sent = send(fd, data, length, MSG_NOSIGNAL);
        if (sent <= 0)
            die("plain C send");
        data += sent;
        length -= static_cast<std::size_t>(sent);
    }
}

int plain_connect(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        die("plain C connect");
    const char request[] =
        "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
    send_all(fd, request, sizeof request - 1);
    std::string answer;
    char byte;
    while (answer.find("\r\n\r\n") == std::string::npos) {
        if (recv(fd, &byte, 1, 0) != 1)
            die("plain C handshake");
        answer.push_back(byte);
    }
    if (answer.compare(0, 12, "HTTP/1.1 101") != 0)
        die("plain C handshake refused");
    return fd;
}

// A masked text frame of `size` bytes (at most 65535), built once.
std::vector<char> prebuilt_frame(int size) {
    std::vector<char> frame;
    frame.push_back(static_cast<char>(0x81));
    if (size < 126) {
        frame.push_back(static_cast<char>(0x80 | size));
    } else {
        frame.push_back(static_cast<char>(0x80 | 126));
        frame.push_back(static_cast<char>(size >> 8));
        frame.push_back(static_cast<char>(size & 0xff));
    }
    const char key[4] = {0x12, 0x34, 0x56, 0x78};
    frame.insert(frame.end(), key, key + 4);
    for (int i = 0; i < size; ++i)
        frame.push_back(static_cast<char>('a' ^ key[i % 4]));
    return frame;
}

double plain_round_trips(uint16_t port, int size, double seconds) {
    const int fd = plain_connect(port);
    const std::vector<char> frame = prebuilt_frame(size);
    const std::size_t echo_length = static_cast<std::size_t>(size) + (size < 126 ? 2 : 4);
    std::vector<char> echo(echo_length);
    long done = 0;
    const double t0 = now();
    double t1 = t0;
    do {
        send_all(fd, frame.data(), frame.size());
        std::size_t have = 0;
        while (have < echo_length) {
            const ssize_t got = recv(fd, echo.data() + have, echo_length - have, 0);
            if (got <= 0)
                die("plain C recv");
            have += static_cast<std::size_t>(got);
        }
        ++done;
        t1 = now();
    } while (t1 - t0 < seconds);
    close(fd);
    return static_cast<double>(done) / (t1 - t0);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 2 && std::strcmp(argv[1], "--count") == 0) {
        echo_server server = start_echo_server();
        const long limit = std::atol(argv[2]);
        const bool standard = argc > 3 && std::strcmp(argv[3], "standard") == 0;
        const int size = argc > 4 ? std::atoi(argv[4]) : 32;
        const double done = module_round_trips(server.port, size, 1e6, limit, standard);
        stop_echo_server(server);
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        std::printf("%.0f round trips of %d bytes; client CPU: user %ld.%06ld s, system %ld.%06ld s\n", done, size,
                    static_cast<long>(usage.ru_utime.tv_sec), static_cast<long>(usage.ru_utime.tv_usec),
                    static_cast<long>(usage.ru_stime.tv_sec), static_cast<long>(usage.ru_stime.tv_usec));
        return done == static_cast<double>(limit) ? 0 : 1;
    }
    const double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
    echo_server server = start_echo_server();
    std::printf("WebSocket sequential round trips against python3-websockets on 127.0.0.1, least CPU of 3 x %.1f s\n",
                seconds / 3);
    std::printf("%10s %16s %16s %8s %14s %12s %12s %12s %9s\n", "bytes", "module rt/s", "plain C rt/s", "ratio",
                "module MB/s", "module us", "plain C us", "standard us", "std/mod");
    std::printf("(us: client CPU per round trip; module: the designed mode; std/mod: CPU ratio, at most 1.2)\n");
    // Alternated and the run with the least CPU per round trip kept: the
    // machine and the server's warm-up move single runs by tens of percent.
    const auto keep = [](measurement& best, const measurement& run) {
        if (best.rate == 0 || run.cpu_us < best.cpu_us)
            best = run;
    };
    for (const int size : {32, 16384, 65535}) {
        measurement floor;
        measurement module;
        measurement standard;
        for (int run = 0; run < 3; ++run) {
            keep(floor, measure([&] { return plain_round_trips(server.port, size, seconds / 3); }));
            keep(module, measure([&] { return module_round_trips(server.port, size, seconds / 3); }));
            keep(standard, measure([&] { return module_round_trips(server.port, size, seconds / 3, 0, true); }));
        }
        std::printf("%10d %16.0f %16.0f %8.2f %14.1f %12.1f %12.1f %12.1f %9.2f\n", size, module.rate, floor.rate,
                    module.rate / floor.rate, module.rate * size * 2 / 1e6, module.cpu_us, floor.cpu_us,
                    standard.cpu_us, standard.cpu_us / module.cpu_us);
    }
    big_echo(server.port, 16 << 20);
    stop_echo_server(server);
    return 0;
}
