#include "ws_peer.h"

#include <linux/sockios.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace peers {

namespace {

bool readable(int fd, int ms) {
    pollfd ready{fd, POLLIN, 0};
    return poll(&ready, 1, ms) == 1;
}

bool take(int fd, std::string& into, std::size_t count) {
    char chunk[65536];
    for (ssize_t got; count > 0; count -= static_cast<std::size_t>(got), into.append(chunk, chunk + got))
        if (!readable(fd, 5000) || (got = recv(fd, chunk, std::min(count, sizeof chunk), 0)) <= 0)
            return false;
    return true;
}

// The client runs in this process: its end is the socket whose ports mirror ours.
int client_end(int fd) {
    sockaddr_in ends[4]{};
    socklen_t size = sizeof ends[0];
    getsockname(fd, reinterpret_cast<sockaddr*>(&ends[0]), &size);
    getpeername(fd, reinterpret_cast<sockaddr*>(&ends[1]), &size);
    for (int other = 0; other < 4096; ++other)
        if (other != fd && getsockname(other, reinterpret_cast<sockaddr*>(&ends[2]), &size) == 0 &&
            getpeername(other, reinterpret_cast<sockaddr*>(&ends[3]), &size) == 0 &&
            ends[2].sin_port == ends[1].sin_port && ends[3].sin_port == ends[0].sin_port)
            return other;
    return -1;
}

// Sends, then waits until our bytes are acknowledged and the client's queue
// is empty, or the client is gone.
void send_read(int fd, int client, const std::string& bytes) {
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);  // blocking: all of it
    char byte;
    for (int waited = 0, unsent = 1, unread = 1; waited < 5000 && unsent + unread > 0; ++waited, usleep(1000)) {
        const ssize_t peek = recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);  // a reset leaves SIOCOUTQ as it was
        if (peek == 0 || (peek < 0 && errno != EAGAIN) || ioctl(fd, SIOCOUTQ, &unsent) != 0 ||
            (unsent == 0 && ioctl(client, FIONREAD, &unread) != 0))
            return;
    }
}

std::string accept_value(const std::string& key) {
    const std::string joined = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH], encoded[32];
    SHA1(reinterpret_cast<const unsigned char*>(joined.data()), joined.size(), digest);
    return std::string(reinterpret_cast<char*>(encoded), EVP_EncodeBlock(encoded, digest, SHA_DIGEST_LENGTH));
}

}  // namespace

script_peer::script_peer(std::vector<step> steps) {
    listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        (!steps.empty() && listen(listener, 1) != 0) ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        return;
    port = ntohs(address.sin_port);
    thread = std::thread([this, steps = std::move(steps)] {
        const int fd = readable(listener, 10000) ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        if (fd < 0)
            return;
        const int client = client_end(fd);
        for (auto now = steps.begin(); now != steps.end(); ++now) {
            if (now->what == step::upgrade) {
                while (seen.find("\r\n\r\n") == std::string::npos && take(fd, seen, 1)) {
                }
                const auto key = std::min(seen.find("Key: ") + 5, seen.size());
                send_read(fd, client, !now->bytes.empty() ? now->bytes
                                      : "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: "
                                        "Upgrade\r\nSec-WebSocket-Accept: " + accept_value(seen.substr(key, 24)) +
                                            "\r\n\r\n");
            } else if (now->what == step::send) {
                send_read(fd, client, now->bytes);
            } else if (now->what == step::read || now->what == step::drain) {
                take(fd, seen, now->what == step::read ? now->count : SIZE_MAX);
            } else if (now->what == step::hold) {
                for (int waited = 0; waited < 10000 && !stop; ++waited)
                    usleep(1000);
            } else {
                const linger abort_on_close{1, 0};
                setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof abort_on_close);
            }
        }
        close(fd);
    });
}

script_peer::~script_peer() {
    stop = true;
    transcript();
    close(listener);
}

const std::string& script_peer::transcript() {
    if (thread.joinable())
        thread.join();
    return seen;
}

std::vector<std::pair<std::string, std::string>> client_frames(std::string_view bytes) {
    std::vector<std::pair<std::string, std::string>> frames;
    for (std::size_t header, length; bytes.size() >= 2; bytes.remove_prefix(header + 4 + length)) {
        const auto at = [&](std::size_t i) { return static_cast<uint64_t>(static_cast<uint8_t>(bytes[i])); };
        header = (at(1) & 0x7f) == 126 ? 4 : (at(1) & 0x7f) == 127 ? 10 : 2;
        if (bytes.size() < header + 4)
            break;
        length = header == 4 ? at(2) << 8 | at(3) : header == 10 ? at(2) | at(3) << 8 | at(4) << 16 | at(5) << 24
                                                                 : at(1) & 0x7f;
        if (bytes.size() < header + 4 + length)
            break;
        std::string payload(bytes.substr(header + 4, length));
        for (std::size_t i = 0; i < length; ++i)
            payload[i] = static_cast<char>(payload[i] ^ bytes[header + i % 4]);
        frames.emplace_back(bytes.substr(0, header), std::move(payload));
    }
    return frames;
}

std::string server_frame(uint8_t first_byte, std::string_view payload) {
    std::string frame{static_cast<char>(first_byte)};
    const uint64_t length = payload.size();
    const int bytes = length < 126 ? 0 : length <= 0xffff ? 2 : 8;
    frame += static_cast<char>(bytes == 0 ? length : bytes == 2 ? 126 : 127);
    for (int i = 0; i < bytes; ++i)  // 16 bits in network order, 64 bits least significant first
        frame += static_cast<char>(length >> 8 * (bytes == 2 ? 1 - i : i));
    return frame.append(payload);
}

echo_server::echo_server(bool tls) {
    int printed[2];  // the port
    if (pipe(printed) != 0)
        return;
    const std::string command = "exec /usr/bin/python3 '" WS_CLIENT_SOURCE_DIR "/tests/peers/ws_echo_server.py'" +
                                std::string(tls ? " --tls" : "") + " >/dev/fd/" + std::to_string(printed[1]);
    input = popen(command.c_str(), "we");  // the server leaves when its input closes
    close(printed[1]);
    FILE* output = fdopen(printed[0], "r");
    if (input == nullptr || !readable(printed[0], 10000) || std::fscanf(output, "%hu", &port) != 1)
        port = 0;
    std::fclose(output);
}

echo_server::~echo_server() {
    if (input != nullptr)
        pclose(input);
}

}  // namespace peers
