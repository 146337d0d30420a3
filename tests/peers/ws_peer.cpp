#include "ws_peer.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#ifndef WS_CLIENT_SOURCE_DIR
#error "WS_CLIENT_SOURCE_DIR must name the source tree"
#endif

extern char** environ;

namespace peers {

namespace {

// Exactly `count` bytes, or false once the peer ends or 5 s pass.
bool read_exactly(int fd, std::string& into, std::size_t count) {
    const std::size_t start = into.size();
    into.resize(start + count);
    std::size_t have = 0;
    while (have < count) {
        if (!wait_readable(fd, 5000ms))
            return false;
        const ssize_t got = recv(fd, into.data() + start + have, count - have, 0);
        if (got <= 0)
            return false;
        have += static_cast<std::size_t>(got);
    }
    return true;
}

}  // namespace

std::string read_upgrade_request(int fd) {
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos) {
        if (!read_exactly(fd, request, 1))  // byte by byte: nothing after the blank line is taken
            return "";
    }
    return request;
}

std::string header_value(const std::string& request, std::string_view name) {
    const std::string prefix = "\r\n" + std::string(name) + ": ";
    const auto start = request.find(prefix);
    if (start == std::string::npos)
        return "";
    const auto value = start + prefix.size();
    return request.substr(value, request.find("\r\n", value) - value);
}

std::string accept_value(const std::string& key) {
    const std::string joined = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(joined.data()), joined.size(), digest);
    unsigned char encoded[4 * ((SHA_DIGEST_LENGTH + 2) / 3) + 1];
    const int length = EVP_EncodeBlock(encoded, digest, SHA_DIGEST_LENGTH);
    return std::string(reinterpret_cast<char*>(encoded), static_cast<std::size_t>(length));
}

std::string upgrade_answer(const std::string& accept, std::string_view accept_header) {
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n" +
           std::string(accept_header) + ": " + accept + "\r\n\r\n";
}

std::string accept_upgrade(int fd) {
    const std::string request = read_upgrade_request(fd);
    send_all(fd, upgrade_answer(accept_value(header_value(request, "Sec-WebSocket-Key"))));
    return request;
}

client_frame read_client_frame(int fd) {
    client_frame frame;
    std::string& raw = frame.header;
    if (!read_exactly(fd, raw, 2))
        return frame;
    frame.first = static_cast<uint8_t>(raw[0]);
    frame.masked = (static_cast<uint8_t>(raw[1]) & 0x80) != 0;
    frame.length_code = static_cast<uint8_t>(raw[1]) & 0x7f;
    frame.length = frame.length_code;
    if (frame.length_code == 126) {
        if (!read_exactly(fd, raw, 2))
            return frame;
        frame.length = (static_cast<uint64_t>(static_cast<uint8_t>(raw[2])) << 8) | static_cast<uint8_t>(raw[3]);
    } else if (frame.length_code == 127) {
        if (!read_exactly(fd, raw, 8))
            return frame;
        // bytes 2-5: the length, least significant first; 6-9: not length
        frame.length = 0;
        for (int i = 5; i >= 2; --i)
            frame.length = (frame.length << 8) | static_cast<uint8_t>(raw[static_cast<std::size_t>(i)]);
    }
    if (frame.masked && !read_exactly(fd, raw, 4))
        return frame;
    if (frame.length > (64u << 20) || !read_exactly(fd, frame.payload, frame.length))
        return frame;
    if (frame.masked) {
        const std::string key = raw.substr(raw.size() - 4);
        for (std::size_t i = 0; i < frame.payload.size(); ++i)
            frame.payload[i] = static_cast<char>(frame.payload[i] ^ key[i % 4]);
    }
    frame.complete = true;
    return frame;
}

std::string server_frame(uint8_t opcode, std::string_view payload, bool final, bool network_order) {
    std::string frame;
    frame.push_back(static_cast<char>((final ? 0x80 : 0x00) | opcode));
    const uint64_t length = payload.size();
    if (length < 126) {
        frame.push_back(static_cast<char>(length));
    } else if (length <= 0xffff) {
        frame.push_back(static_cast<char>(126));
        frame.push_back(static_cast<char>(length >> 8));
        frame.push_back(static_cast<char>(length & 0xff));
    } else {
        frame.push_back(static_cast<char>(127));
        for (int i = 0; i < 8; ++i) {
            const int shift = network_order ? 8 * (7 - i) : 8 * i;
            frame.push_back(static_cast<char>((length >> shift) & 0xff));
        }
    }
    frame.append(payload);
    return frame;
}

echo_server::echo_server(const std::filesystem::path* crt, const std::filesystem::path* key) {
    int to_child[2];
    int from_child[2];
    if (pipe(to_child) == -1 || pipe(from_child) == -1) {
        std::perror("pipe");
        std::abort();
    }
    std::vector<std::string> arguments = {"/usr/bin/python3", WS_CLIENT_SOURCE_DIR "/tests/peers/ws_echo_server.py"};
    if (crt != nullptr && key != nullptr)
        arguments.insert(arguments.end(), {"--tls", crt->string(), key->string()});
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, to_child[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, from_child[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, to_child[1]);
    posix_spawn_file_actions_addclose(&actions, from_child[0]);
    // The server must not keep the test's own sockets open.
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        std::perror("posix_spawn python3");
        std::abort();
    }
    posix_spawn_file_actions_destroy(&actions);
    close(to_child[0]);
    close(from_child[1]);
    input_ = to_child[1];
    fcntl(input_, F_SETFD, FD_CLOEXEC);
    std::string printed;
    char chunk[64];
    while (printed.find('\n') == std::string::npos) {
        if (!wait_readable(from_child[0], 10000ms))
            break;
        const ssize_t got = read(from_child[0], chunk, sizeof chunk);
        if (got <= 0)
            break;
        printed.append(chunk, static_cast<std::size_t>(got));
    }
    close(from_child[0]);
    port_ = static_cast<uint16_t>(std::atoi(printed.c_str()));
}

echo_server::~echo_server() {
    if (input_ != -1)
        close(input_);  // the server leaves when its stdin closes
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
    }
}

}  // namespace peers
