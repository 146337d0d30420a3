// UDP socket work: create, send, receive, close.
#include "udp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "address_text.h"
#include "callbacks.h"
#include "conn_table.h"
#include "fdset.h"
#include "heap_buffer.h"
#include "net.h"
#include "socket_table.h"
#include "tools.h"

#define LOG_UNIT "udp"

// Descriptors of dual-stack sockets (options key ipv6): their sends take
// either family's text, their senders are reported as text of either.
static select_set dual_stack{};

int udp_use_ipv6(int32_t fd) {
    if (adopt_family(fd, AF_INET6, SOCK_DGRAM, false, true) == -1 || !select_set_add(dual_stack, fd))
        return -1;
    return 0;
}

udp_record* udp_init(lua_State*, udp_record* record) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        WS_LOG("UDP socket create error\n");
        return nullptr;
    }
    record->sockfd = fd;
    return record;
}

int udp_send_to(lua_State* L, udp_record* record, const char* data, const char* ip, int32_t port) {
    WS_LOG("come in udp send\n");
    const int32_t fd = record->sockfd;
    const sock_header* header = push_registered(L, fd);  // stays on the stack
    const int32_t registered = header != nullptr ? header->status : -1;
    const bool missing = lua_type(L, -1) != LUA_TUSERDATA;
    if (record->status == UDP_STATUS_CREATED || registered == UDP_STATUS_CLOSED || missing) {
        closed_socket_callback(L, fd, record->status == UDP_STATUS_CREATED, missing);
        WS_LOG("ERROR: socket has been closed\n");
        return -1;
    }
    if (data == nullptr || ip == nullptr) {
        WS_LOG("ERROR: data and address must be text\n");
        return -1;
    }
    if (select_set_has(dual_stack, fd)) {
        sockaddr_storage to{};
        const socklen_t length = address_parse(ip, static_cast<uint16_t>(port), AF_INET6, to);
        if (length == 0)
            return -1;  // not an address: refused as a failed sendto is
        return static_cast<int>(sendto(fd, data, std::strlen(data), 0, reinterpret_cast<const sockaddr*>(&to), length));
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = inet_addr(ip);
    return static_cast<int>(sendto(fd, data, std::strlen(data), 0, reinterpret_cast<const sockaddr*>(&address),
                                   sizeof address));
}

// One receive buffer for every UDP socket, taken at the first datagram and
// kept: an IPv4 datagram carries at most 65507 bytes, so this much holds
// any (with a spare byte for the terminator).
static heap_buffer received{};
constexpr std::size_t kDatagramRoom = 65536;
static_assert(kDatagramRoom <= UDP_RECV_CAPACITY);

int udp_recv(lua_State* L, int32_t fd) {
    sockaddr_storage stored{};  // either family; an IPv4 socket fills the sockaddr_in at its start
    auto& source = reinterpret_cast<sockaddr_in&>(stored);
    socklen_t length = sizeof stored;
    char from[ADDRESS_TEXT_SIZE] = {};
    int port = -1;
    // MSG_DONTWAIT: a callback earlier in the same pass may have closed this
    // descriptor and a new socket reused the number; it must not block then.
    if (!heap_grow(received, kDatagramRoom))
        return -1;  // no memory: the datagram waits for the next pass
    char* const buffer = reinterpret_cast<char*>(received.bytes);
    const ssize_t got = recvfrom(fd, buffer, kDatagramRoom, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&stored), &length);
    if (got >= 0) {
        buffer[got] = '\0';
        uint16_t from_port = 0;
        if (stored.ss_family == AF_INET6 && address_format(stored, from, &from_port) != nullptr)
            port = from_port;
        else
            std::strncpy(from, inet_ntoa(source.sin_addr), sizeof from - 1);
        if (stored.ss_family != AF_INET6)
            port = ntohs(source.sin_port);
        WS_LOG("receive from %s:%d, %d\n", from, port, source.sin_port);
        receive_callback(L, fd, buffer, from, port);
    }
    return static_cast<int>(got);
}

void udp_do_close(lua_State* L, udp_record* record, const char* reason) {
    const int32_t fd = record->sockfd;
    conn_drop(fd);
    select_set_remove(dual_stack, fd);
    sock_rem(fd);
    close(fd);
    close_callback(L, fd, reason);
    record->sockfd = -1;
}
