// IPv4 and IPv6 addresses as text, to and from socket addresses. Lua-free.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <span>

// The text form of an address, "%interface" included, fits this.
constexpr std::size_t ADDRESS_TEXT_SIZE = 64;

// `text` with `port` into `out`: a dotted IPv4 address (four decimal parts)
// or an IPv6 address, which may name its interface ("fe80::1%eth0", or
// "%2"). `socket_family` is the family of the socket it is for: AF_INET takes
// IPv4 only; AF_INET6 (a dual-stack socket) takes both, IPv4 as a v4-mapped
// address (::ffff:192.0.2.1); AF_UNSPEC keeps the text's own family.
// The length of the address in `out`, or 0 when the text is no such address.
socklen_t address_parse(const char* text, uint16_t port, int socket_family, sockaddr_storage& out);

// `address` as text in `text` (ADDRESS_TEXT_SIZE always fits): IPv4 dotted,
// a v4-mapped IPv6 address unmapped to dotted IPv4, other IPv6 addresses as
// inet_ntop writes them, with "%interface" when scoped. Its port goes to
// *port. The text, or null for another family or when `text` is too small.
const char* address_format(const sockaddr_storage& address, std::span<char> text, uint16_t* port);
