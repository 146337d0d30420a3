#include "tcp_peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <stdexcept>

extern char** environ;

namespace peers {

namespace {

void fail(const char* what) {
    std::perror(what);
    std::abort();  // a broken peer must not pass silently
}

int listen_on_loopback(uint16_t* port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd == -1)
        fail("peer socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 || listen(fd, 4) == -1 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == -1)
        fail("peer listen");
    *port = ntohs(address.sin_port);
    return fd;
}

}  // namespace

tcp_peer::tcp_peer(handler on_connection) {
    listener_ = listen_on_loopback(&port_);
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
    while (std::chrono::steady_clock::now() < deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (!wait_readable(fd, left))
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

uint16_t closed_port() {
    uint16_t port = 0;
    close(listen_on_loopback(&port));
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

// ---- certificates ----

namespace {

void run_openssl(const std::vector<std::string>& arguments) {
    std::string command = "openssl";
    for (const std::string& argument : arguments)
        command += " '" + argument + "'";
    command += " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0)
        fail(command.c_str());
}

void make_key_and_certificate(const std::filesystem::path& key, const std::filesystem::path& crt,
                              const char* name) {
    run_openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout",
                 key.string(), "-out", crt.string(), "-days", "2", "-subj", std::string("/CN=") + name});
}

}  // namespace

certificates::certificates() {
    char pattern[] = "/tmp/ws_client_tls_XXXXXX";
    if (mkdtemp(pattern) == nullptr)
        fail("mkdtemp");
    dir = pattern;
    server_crt = dir / "server.crt";
    server_key = dir / "server.key";
    client_crt = dir / "client.crt";
    client_key = dir / "client.key";
    other_key = dir / "other.key";
    make_key_and_certificate(server_key, server_crt, "localhost");
    make_key_and_certificate(client_key, client_crt, "client");
    make_key_and_certificate(other_key, dir / "other.crt", "other");
}

certificates::~certificates() { std::filesystem::remove_all(dir); }

// ---- openssl s_server ----

tls_server::tls_server(const certificates& certs, bool require_client_certificate) {
    int pipe_ends[2];
    if (pipe(pipe_ends) == -1)
        fail("pipe");
    std::vector<std::string> arguments = {"timeout", "60", "openssl", "s_server", "-accept", "127.0.0.1:0",
                                          "-cert", certs.server_crt.string(), "-key", certs.server_key.string(),
                                          "-rev"};
    if (require_client_certificate) {
        for (const char* argument : {"-Verify", "1", "-CAfile"})
            arguments.emplace_back(argument);
        arguments.push_back(certs.client_crt.string());
    }
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDERR_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipe_ends[0]);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (posix_spawnp(&pid_, "timeout", &actions, nullptr, argv.data(), environ) != 0)
        fail("posix_spawnp timeout openssl");
    posix_spawn_file_actions_destroy(&actions);
    close(pipe_ends[1]);
    output_ = pipe_ends[0];

    // It prints "ACCEPT 127.0.0.1:PORT" once it listens.
    const std::regex accept_line("ACCEPT 127\\.0\\.0\\.1:([0-9]+)");
    std::smatch match;
    char chunk[512];
    while (!std::regex_search(printed_, match, accept_line)) {
        if (!wait_readable(output_, 10000ms))
            fail("s_server did not start");
        const ssize_t got = read(output_, chunk, sizeof chunk);
        if (got <= 0)
            fail("s_server ended");
        printed_.append(chunk, static_cast<std::size_t>(got));
    }
    port_ = static_cast<uint16_t>(std::stoi(match[1]));
}

std::string tls_server::stop() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);  // timeout passes it on to openssl
        char chunk[4096];
        while (wait_readable(output_, 5000ms)) {
            const ssize_t got = read(output_, chunk, sizeof chunk);
            if (got <= 0)
                break;
            printed_.append(chunk, static_cast<std::size_t>(got));
        }
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        close(output_);
    }
    return printed_;
}

tls_server::~tls_server() { stop(); }

}  // namespace peers
