// Test peers on 127.0.0.1: loopback addresses, an in-process one-connection
// TCP server driven by a handler, and `openssl s_server` as an independent TLS
// server, with certificates made by the `openssl` command at test time.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <chrono>
#include <cstdio>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

namespace peers {

using namespace std::chrono_literals;

sockaddr_in loopback(uint16_t port);
// Binds fd to 127.0.0.1 on a port picked by the system; the port, or -1.
int bind_loopback(int fd);
// A listening TCP socket on 127.0.0.1; its port in *port.
int listen_loopback(int backlog, uint16_t* port);
// A port on which nothing listens (connects are refused).
uint16_t closed_port();
// Waits until fd is readable or has an error pending; false after `limit`.
bool wait_readable(int fd, std::chrono::milliseconds limit = 5000ms);

// Accepts one connection (waiting at most 10 s) and runs the handler on it in
// a thread; the connection is closed after the handler unless it reset it.
class tcp_peer {
public:
    using handler = std::function<void(int fd)>;
    explicit tcp_peer(handler on_connection);
    ~tcp_peer();
    tcp_peer(const tcp_peer&) = delete;
    tcp_peer& operator=(const tcp_peer&) = delete;

    uint16_t port() const { return port_; }
    void join();

private:
    int listener_ = -1;
    uint16_t port_ = 0;
    std::thread thread_;
};

// Handler helpers.
void send_all(int fd, std::string_view data);
// What arrives until the client closes or `limit` passes.
std::string read_until_closed(int fd, std::chrono::milliseconds limit = 5000ms);
// Closes with SO_LINGER 0: the client gets a reset instead of an orderly end.
void reset(int& fd);

// Self-signed EC certificates and keys in a fresh temporary directory.
struct certificates {
    std::filesystem::path dir;
    std::filesystem::path server_crt, server_key, client_crt, client_key, other_key;
    certificates();
    ~certificates();
};

// `openssl s_server -rev` (answers each line reversed) on 127.0.0.1 with a
// port picked at run time; with a client CA it requires a client certificate.
// Killed when destroyed; runs at most 60 s in any case.
class tls_server {
public:
    tls_server(const certificates& certs, bool require_client_certificate);
    ~tls_server();
    tls_server(const tls_server&) = delete;
    tls_server& operator=(const tls_server&) = delete;

    uint16_t port() const { return port_; }
    // Stops the server and returns everything it printed.
    std::string stop();

private:
    pid_t pid_ = -1;
    FILE* output_ = nullptr;
    uint16_t port_ = 0;
    std::string printed_;
};

}  // namespace peers
