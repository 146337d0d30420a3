#include "tcp_peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>

namespace peers {

namespace {

void fail(const char* what) {
    std::perror(what);
    std::abort();  // a broken peer must not pass silently
}


}  // namespace

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int bind_loopback(int fd) {
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == -1)
        return -1;
    return ntohs(address.sin_port);
}

int listen_loopback(int backlog, uint16_t* port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const int bound = fd == -1 ? -1 : bind_loopback(fd);
    if (bound == -1 || listen(fd, backlog) == -1)
        fail("peer listen");
    *port = static_cast<uint16_t>(bound);
    return fd;
}

uint16_t closed_port() {
    uint16_t port = 0;
    close(listen_loopback(1, &port));
    return port;
}

bool wait_readable(int fd, std::chrono::milliseconds limit) {
    pollfd watched{fd, POLLIN, 0};
    int ready;
    do {
        ready = poll(&watched, 1, static_cast<int>(limit.count()));
    } while (ready == -1 && errno == EINTR);
    return ready > 0;
}

tcp_peer::tcp_peer(handler on_connection) {
    listener_ = listen_loopback(4, &port_);
    thread_ = std::thread([this, on_connection = std::move(on_connection)] {
        if (!wait_readable(listener_, 10000ms))
            return;
        int fd = accept(listener_, nullptr, nullptr);
        if (fd == -1)
            return;
        on_connection(fd);
        if (fd != -1)
            close(fd);
    });
}

void tcp_peer::join() {
    if (thread_.joinable())
        thread_.join();
}

tcp_peer::~tcp_peer() {
    join();
    close(listener_);
}

void send_all(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t sent = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return;
        data.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::string read_until_closed(int fd, std::chrono::milliseconds limit) {
    std::string received;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    char chunk[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !wait_readable(fd, left))
            break;
        const ssize_t got = recv(fd, chunk, sizeof chunk, 0);
        if (got <= 0)
            break;
        received.append(chunk, static_cast<std::size_t>(got));
    }
    return received;
}

void reset(int& fd) {
    const linger abort_on_close{1, 0};
    if (setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof abort_on_close) == -1)
        fail("SO_LINGER");
    close(fd);
    fd = -1;
}

// ---- certificates and `openssl s_server` ----

namespace {

void shell(const std::string& command) {
    if (std::system(command.c_str()) != 0)
        fail(command.c_str());
}

}  // namespace

certificates::certificates() {
    char pattern[] = "/tmp/ws_client_tls_XXXXXX";
    if (mkdtemp(pattern) == nullptr)
        fail("mkdtemp");
    dir = pattern;
    server_crt = dir / "server.crt", server_key = dir / "server.key";
    client_crt = dir / "client.crt", client_key = dir / "client.key", other_key = dir / "other.key";
    for (const char* name : {"server", "client", "other"})
        shell("cd " + dir.string() + " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 " +
              "-nodes -days 2 -subj /CN=" + name + " -keyout " + name + ".key -out " + name + ".crt >/dev/null 2>&1");
}

certificates::~certificates() { std::filesystem::remove_all(dir); }

tls_server::tls_server(const certificates& certs, bool require_client_certificate) {
    const std::string command = "cd " + certs.dir.string() + " && echo $$ && exec timeout 60 openssl s_server " +
                                "-accept 127.0.0.1:0 -rev -cert server.crt -key server.key" +
                                (require_client_certificate ? " -Verify 1 -CAfile client.crt" : "") + " </dev/null 2>&1";
    output_ = popen(command.c_str(), "r");
    char line[512];
    if (output_ == nullptr || fgets(line, sizeof line, output_) == nullptr)
        fail("s_server");
    pid_ = std::atoi(line);
    // It prints "ACCEPT 127.0.0.1:PORT" once it listens.
    const std::regex accept_line("ACCEPT 127\\.0\\.0\\.1:([0-9]+)");
    std::smatch match;
    while (!std::regex_search(printed_, match, accept_line)) {
        if (fgets(line, sizeof line, output_) == nullptr)
            fail("s_server did not start");
        printed_ += line;
    }
    port_ = static_cast<uint16_t>(std::stoi(match[1]));
}

std::string tls_server::stop() {
    if (output_ != nullptr) {
        kill(pid_, SIGTERM);  // timeout passes it on to openssl
        char chunk[4096];
        for (std::size_t got; (got = fread(chunk, 1, sizeof chunk, output_)) > 0;)
            printed_.append(chunk, got);
        pclose(output_);
        output_ = nullptr;
    }
    return printed_;
}

tls_server::~tls_server() { stop(); }

}  // namespace peers
