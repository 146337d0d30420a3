#include "udp_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <vector>

namespace {

udp_record* record_arg(lua_State* L) { return check_udp_client(L, 1); }

int fd_of(lua_State* L) {
    lua_pushinteger(L, record_arg(L)->sockfd);
    return 1;
}
int status_of(lua_State* L) {
    lua_pushinteger(L, record_arg(L)->status);
    return 1;
}
int kind_of(lua_State* L) {
    lua_pushinteger(L, record_arg(L)->sock_type);
    return 1;
}
int set_status(lua_State* L) {
    record_arg(L)->status = static_cast<int32_t>(luaL_checkinteger(L, 2));
    return 0;
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int port_of(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return -1;
    return ntohs(address.sin_port);
}

int bind_loopback_fd(int fd, int port) {
    const sockaddr_in address = loopback(port);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return -1;
    return port_of(fd);
}

int bind_loopback(lua_State* L) {
    const int port = bind_loopback_fd(record_arg(L)->sockfd, 0);
    if (port < 0)
        return luaL_error(L, "bind failed");
    lua_pushinteger(L, port);
    return 1;
}

int local_port(lua_State* L) {
    lua_pushinteger(L, port_of(record_arg(L)->sockfd));
    return 1;
}

int peer_open(lua_State* L) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0)
        return luaL_error(L, "socket failed");
    const int port = bind_loopback_fd(fd, static_cast<int>(luaL_optinteger(L, 1, 0)));
    if (port < 0) {
        close(fd);
        return luaL_error(L, "bind failed");
    }
    lua_pushinteger(L, fd);
    lua_pushinteger(L, port);
    return 2;
}

int peer_send(lua_State* L) {
    const int fd = static_cast<int>(luaL_checkinteger(L, 1));
    const sockaddr_in address = loopback(static_cast<int>(luaL_checkinteger(L, 2)));
    size_t length = 0;
    const char* data = luaL_checklstring(L, 3, &length);
    lua_pushinteger(L, sendto(fd, data, length, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    return 1;
}

int peer_recv(lua_State* L) {
    const int fd = static_cast<int>(luaL_checkinteger(L, 1));
    const double wait = luaL_optnumber(L, 2, 2.0);
    pollfd poll_fd{fd, POLLIN, 0};
    if (poll(&poll_fd, 1, static_cast<int>(wait * 1000)) != 1)
        return 0;
    static char buffer[65536];
    sockaddr_in from{};
    socklen_t length = sizeof from;
    const ssize_t received = recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
    if (received < 0)
        return 0;
    lua_pushlstring(L, buffer, static_cast<size_t>(received));
    lua_pushinteger(L, ntohs(from.sin_port));
    return 2;
}

int fd_is_open(lua_State* L) {
    lua_pushboolean(L, fcntl(static_cast<int>(luaL_checkinteger(L, 1)), F_GETFD) != -1);
    return 1;
}

int close_fd(lua_State* L) {
    close(static_cast<int>(luaL_checkinteger(L, 1)));
    return 0;
}

int now(lua_State* L) {
    lua_pushnumber(L, monotonic_seconds());
    return 1;
}

int lowest_free_fd() {
    const int fd = open("/dev/null", O_RDONLY);
    close(fd);
    return fd;
}

}  // namespace

double monotonic_seconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::vector<int> occupy_descriptors_below(int fd) {
    std::vector<int> opened;
    for (;;) {
        const int next = open("/dev/null", O_RDONLY);
        if (next < 0)
            break;
        if (next >= fd) {
            close(next);
            break;
        }
        opened.push_back(next);
    }
    return opened;
}

void UdpLuaTest::SetUp() {
    first_free_fd_ = lowest_free_fd();
    LuaTest::SetUp();
    expose("fd_of", fd_of);
    expose("status_of", status_of);
    expose("kind_of", kind_of);
    expose("set_status", set_status);
    expose("bind_loopback", bind_loopback);
    expose("local_port", local_port);
    expose("peer_open", peer_open);
    expose("peer_send", peer_send);
    expose("peer_recv", peer_recv);
    expose("fd_is_open", fd_is_open);
    expose("close_fd", close_fd);
    expose("now", now);
}

void UdpLuaTest::TearDown() {
    LuaTest::TearDown();
    // Sockets the test opened (module objects and peers) are closed here so
    // that tests running in one process do not run out of descriptors.
    for (int fd = first_free_fd_; fd < first_free_fd_ + 4096; ++fd) {
        struct stat status {};
        if (fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode))
            close(fd);
    }
}

DelayedDatagram::DelayedDatagram(int port, double delay_seconds) {
    // Signals the test raises are for the thread under test.
    sigset_t all{}, saved{};
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &saved);
    thread_ = std::thread([this, port, delay_seconds] {
        std::unique_lock lock(mutex_);
        const auto delay = std::chrono::duration<double>(delay_seconds);
        if (wake_.wait_for(lock, delay, [this] { return cancelled_; }))
            return;
        const int fd = socket(AF_INET, SOCK_DGRAM, 0);
        const sockaddr_in address = loopback(port);
        sendto(fd, "timeout", 7, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        close(fd);
    });
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

void DelayedDatagram::cancel() {
    {
        std::lock_guard lock(mutex_);
        cancelled_ = true;
    }
    wake_.notify_all();
}

DelayedDatagram::~DelayedDatagram() {
    cancel();
    thread_.join();
}
