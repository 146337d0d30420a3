// IPv4 and IPv6 addresses as text, to and from socket addresses.
#include "address_text.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifdef lua_h
#error "the address helpers must stay free of the interpreter"
#endif

// An interface by name or by number; 0 for none.
static uint32_t scope_of(const char* name) {
    if (*name >= '0' && *name <= '9') {
        char* end = nullptr;
        const unsigned long number = std::strtoul(name, &end, 10);
        return *end == '\0' && number <= UINT32_MAX ? static_cast<uint32_t>(number) : 0;
    }
    return if_nametoindex(name);
}

static socklen_t parse_ipv6(const char* text, uint16_t port, sockaddr_storage& out) {
    char bare[INET6_ADDRSTRLEN];
    const char* percent = std::strchr(text, '%');
    const std::size_t length = percent != nullptr ? static_cast<std::size_t>(percent - text) : std::strlen(text);
    if (length >= sizeof bare)
        return 0;
    std::memcpy(bare, text, length);
    bare[length] = '\0';
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    if (inet_pton(AF_INET6, bare, &address.sin6_addr) != 1)
        return 0;
    if (percent != nullptr && (IN6_IS_ADDR_V4MAPPED(&address.sin6_addr) ||  // shown as IPv4: no interface
                               (address.sin6_scope_id = scope_of(percent + 1)) == 0))
        return 0;
    std::memcpy(&out, &address, sizeof address);
    return sizeof address;
}

socklen_t address_parse(const char* text, uint16_t port, int socket_family, sockaddr_storage& out) {
    out = {};
    in_addr ipv4{};
    if (inet_pton(AF_INET, text, &ipv4) != 1)
        return socket_family == AF_INET ? 0 : parse_ipv6(text, port, out);
    if (socket_family == AF_INET6) {  // ::ffff:a.b.c.d
        sockaddr_in6 mapped{};
        mapped.sin6_family = AF_INET6;
        mapped.sin6_port = htons(port);
        mapped.sin6_addr.s6_addr[10] = 0xff;
        mapped.sin6_addr.s6_addr[11] = 0xff;
        std::memcpy(mapped.sin6_addr.s6_addr + 12, &ipv4, sizeof ipv4);
        std::memcpy(&out, &mapped, sizeof mapped);
        return sizeof mapped;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr = ipv4;
    std::memcpy(&out, &address, sizeof address);
    return sizeof address;
}

// IPv6 text with "%interface" (its name, or its number once it is gone).
static bool format_ipv6(const sockaddr_in6& address, char (&text)[ADDRESS_TEXT_SIZE]) {
    if (inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof text) == nullptr)
        return false;
    if (address.sin6_scope_id == 0)
        return true;
    char name[IF_NAMESIZE];
    if (if_indextoname(address.sin6_scope_id, name) == nullptr)
        std::snprintf(name, sizeof name, "%u", address.sin6_scope_id);
    const std::size_t used = std::strlen(text);
    const int added = std::snprintf(text + used, sizeof text - used, "%%%s", name);
    return added > 0 && static_cast<std::size_t>(added) < sizeof text - used;
}

const char* address_format(const sockaddr_storage& address, std::span<char> text, uint16_t* port) {
    char formatted[ADDRESS_TEXT_SIZE];
    bool ok = false;
    if (address.ss_family == AF_INET) {
        sockaddr_in ipv4{};
        std::memcpy(&ipv4, &address, sizeof ipv4);
        *port = ntohs(ipv4.sin_port);
        ok = inet_ntop(AF_INET, &ipv4.sin_addr, formatted, sizeof formatted) != nullptr;
    } else if (address.ss_family == AF_INET6) {
        sockaddr_in6 ipv6{};
        std::memcpy(&ipv6, &address, sizeof ipv6);
        *port = ntohs(ipv6.sin6_port);
        ok = IN6_IS_ADDR_V4MAPPED(&ipv6.sin6_addr)
                 ? inet_ntop(AF_INET, ipv6.sin6_addr.s6_addr + 12, formatted, sizeof formatted) != nullptr
                 : format_ipv6(ipv6, formatted);
    }
    const std::size_t length = ok ? std::strlen(formatted) : 0;
    if (!ok || length >= text.size())
        return nullptr;
    std::memcpy(text.data(), formatted, length + 1);
    return text.data();
}
