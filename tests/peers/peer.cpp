#include "peer.h"

#include <linux/sockios.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace peers {

namespace {

void fail(const std::string& what) {
    std::perror(what.c_str());
    std::abort();  // a broken peer must not pass silently
}

bool take(int fd, std::string& into, std::size_t count) {
    char chunk[65536];
    for (ssize_t got; count > 0; count -= static_cast<std::size_t>(got), into.append(chunk, chunk + got))
        if (!wait_readable(fd) || (got = recv(fd, chunk, std::min(count, sizeof chunk), 0)) <= 0)
            return false;
    return true;
}

const std::string kAnswer =
    "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: {accept}\r\n\r\n";

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

// `answer` with {accept} replaced by the accept value for the request's key.
std::string upgrade_answer(const std::string& request, std::string answer) {
    const auto at = std::min(request.find("Key: ") + 5, request.size());
    const std::string joined = request.substr(at, 24) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH], encoded[32];
    SHA1(reinterpret_cast<const unsigned char*>(joined.data()), joined.size(), digest);
    const std::string accept(reinterpret_cast<char*>(encoded), EVP_EncodeBlock(encoded, digest, SHA_DIGEST_LENGTH));
    const auto field = answer.find("{accept}");
    return field == std::string::npos ? answer : answer.replace(field, 8, accept);
}

}  // namespace

sockaddr_in loopback(uint16_t port) {
    return sockaddr_in{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
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
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int bound = fd == -1 ? -1 : bind_loopback(fd);
    if (bound == -1 || (backlog >= 0 && listen(fd, backlog) == -1))
        fail("peer listen");
    *port = static_cast<uint16_t>(bound);
    return fd;
}

bool wait_readable(int fd, std::chrono::milliseconds limit) {
    pollfd watched{fd, POLLIN, 0};
    int ready;
    while ((ready = poll(&watched, 1, static_cast<int>(limit.count()))) == -1 && errno == EINTR) {
    }
    return ready > 0;
}

script_peer::script_peer(std::vector<step> steps) {
    listener = listen_loopback(steps.empty() ? -1 : 1, &port);
    if (steps.empty())
        return;
    thread = std::thread([this, steps = std::move(steps)] {
        const int fd = wait_readable(listener, 10000ms) ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        if (fd < 0)
            return;
        const int client = client_end(fd);
        for (const step& now : steps) {
            if (now.what == step::upgrade) {
                while (seen.find("\r\n\r\n") == std::string::npos && take(fd, seen, 1)) {
                }
                send_read(fd, client, upgrade_answer(seen, !now.bytes.empty() ? now.bytes : kAnswer));
            } else if (now.what == step::send) {
                send_read(fd, client, now.bytes);
            } else if (now.what == step::read || now.what == step::drain) {
                take(fd, seen, now.what == step::read ? now.count : SIZE_MAX);
            } else {
                const linger abort_on_close{1, 0};
                if (setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof abort_on_close) != 0)
                    fail("SO_LINGER");
            }
        }
        close(fd);
    });
}

script_peer::~script_peer() {
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

certificates::certificates() {
    char pattern[] = "/tmp/ws_client_tls_XXXXXX";
    if (mkdtemp(pattern) == nullptr)
        fail("mkdtemp");
    dir = pattern;
    const std::string command = "cd " + dir.string() + " && for name in server client other; do openssl req -x509 " +
                                "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=$name " +
                                "-keyout $name.key -out $name.crt >/dev/null 2>&1 || exit 1; done";
    if (std::system(command.c_str()) != 0)
        fail(command);
}

certificates::~certificates() { std::filesystem::remove_all(dir); }

}  // namespace peers
