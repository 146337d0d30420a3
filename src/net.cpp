// Socket helpers and the WebSocket URL split. Logs under the unit name
// "tools", where these helpers have always logged.
#include "net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "debug_log.h"
#include "fdset.h"

#ifdef lua_h
#error "the socket helpers must stay free of the interpreter"
#endif

#define LOG_UNIT "tools"

char* get_ip(const char* host, std::span<char> ip) {
    const hostent* entry = gethostbyname(host);
    if (entry == nullptr || entry->h_addrtype != AF_INET || entry->h_length != sizeof(in_addr) ||
        entry->h_addr_list[0] == nullptr)
        return nullptr;
    in_addr first{};
    std::memcpy(&first, entry->h_addr_list[0], sizeof first);
    const char* text = inet_ntoa(first);
    const std::size_t length = std::strlen(text);
    if (length >= ip.size())
        return nullptr;
    std::memcpy(ip.data(), text, length + 1);
    return ip.data();
}

// Logs under the name of the procedure it serves.
static int change_flags(int fd, bool nonblocking, const char* function) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1) {
        WS_LOG_AS(function, "fcntl error\n");
        return -1;
    }
    const int wanted = nonblocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    if (fcntl(fd, F_SETFL, wanted) == -1) {
        WS_LOG_AS(function, "fcntl error\n");
        return -1;
    }
    return 0;
}

int set_nonblocking(int fd) { return change_flags(fd, true, __func__); }
int deactivate_nonblock(int fd) { return change_flags(fd, false, __func__); }

int connect_start(int fd, const sockaddr_in* address) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(address), sizeof(sockaddr_in)) == 0)
        return 0;
    return errno == EINPROGRESS ? 1 : -1;
}

int connect_start_address(int fd, const sockaddr* address, socklen_t length) {
    if (connect(fd, address, length) == 0)
        return 0;
    return errno == EINPROGRESS ? 1 : -1;
}

int adopt_family(int fd, int family, int type, bool nonblocking, bool dual_stack) {
    const int fresh = socket(family, type | SOCK_CLOEXEC | (nonblocking ? SOCK_NONBLOCK : 0), 0);
    if (fresh == -1)
        return -1;
    const int off = 0;
    int result = 0;
    if (dual_stack && family == AF_INET6 && setsockopt(fresh, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) == -1)
        result = -1;
    if (result == 0 && dup2(fresh, fd) == -1)
        result = -1;
    const int error = errno;
    close(fresh);
    errno = error;
    return result;
}

int connect_finished(int fd) {
    int pending = 0;
    socklen_t length = sizeof pending;
    // A failed getsockopt leaves `pending` 0 and counts as connected, on
    // purpose: only a nonzero error word fails the connect.
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &length) < 0)
        pending = 0;
    if (pending != 0) {
        errno = pending;
        return -1;
    }
    return 0;
}

// Waits up to timeout_sec for a connect under way to settle; 0 or -1
// (ETIMEDOUT when the time ran out).
static int await_connect(int fd, int32_t timeout_sec) {
    timeval wait{timeout_sec, 0};
    int ready = 0;
    do {
        ready = select_single(fd, wait_for::write, &wait);  // Linux leaves the time that remained
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) {
        errno = ETIMEDOUT;
        return -1;
    }
    if (ready < 0) {
        WS_LOG_AS("connect_timeout", "select error\n");
        return -1;
    }
    return 0;
}

int connect_timeout(int fd, const sockaddr_in* address, int32_t timeout_sec) {
    if (timeout_sec != 0 && set_nonblocking(fd) == -1)
        return -1;
    int result = connect_start(fd, address);
    if (result == 1)
        result = await_connect(fd, timeout_sec) == 0 ? connect_finished(fd) : -1;
    if (timeout_sec != 0 && deactivate_nonblock(fd) == -1)
        result = -1;
    return result;
}

// ---- WebSocket URLs ----

int is_secure(const char* url) {
    if (std::strncmp(url, "wss", 3) == 0)
        return 1;
    if (std::strncmp(url, "ws", 2) == 0)
        return 0;
    return -1;
}

int get_host_path(char* url, std::span<char> host, std::span<char> path) {
    if (host.empty() || path.empty())
        return -1;
    host[0] = '\0';
    path[0] = '\0';
    char* rest = nullptr;
    const char* scheme = strtok_r(url, "/", &rest);
    const char* name = scheme != nullptr ? strtok_r(nullptr, "/", &rest) : nullptr;
    if (name == nullptr)
        return -1;
    const std::size_t name_length = std::strlen(name);
    if (name_length >= host.size())
        return -1;
    std::memcpy(host.data(), name, name_length + 1);
    std::size_t used = 0;
    for (const char* piece = strtok_r(nullptr, "/", &rest); piece != nullptr; piece = strtok_r(nullptr, "/", &rest)) {
        const std::size_t length = std::strlen(piece);
        if (used + 1 + length >= path.size()) {
            host[0] = '\0';
            path[0] = '\0';
            return -1;
        }
        path[used] = '/';
        std::memcpy(path.data() + used + 1, piece, length + 1);
        used += 1 + length;
    }
    return 0;
}
