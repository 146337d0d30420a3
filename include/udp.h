// UDP sockets: an unconnected IPv4 datagram socket per object; every send
// names its destination, every datagram received goes to on_message.
#pragma once

#include "lua_api.h"

#include "ws_client.h"

// Largest datagram handed to on_message (far above any IPv4 datagram).
constexpr std::size_t UDP_RECV_CAPACITY = 0x100000;

// Creates the socket into record->sockfd; the record, or null on failure
// (sockfd left as it was).
udp_record* udp_init(lua_State* L, udp_record* record);

// Puts a dual-stack IPv6 socket in place of fd (options key ipv6): its
// sends then take IPv4 or IPv6 text, its senders are reported as text of
// either (IPv4 dotted). 0, or -1 (errno).
int udp_use_ipv6(int32_t fd);

// Sends `data` up to its first zero byte to ip:port (low 16 bits of port).
// Bytes sent, or -1. A socket counts as closed when the record's status is
// -1, or when the record registered for its descriptor is missing or has
// status 0; on_error then gets "Socket has been closed!" (only when an
// options table is registered for the descriptor). A null data or ip is
// refused with -1. Leaves the registered object on the stack.
int udp_send_to(lua_State* L, udp_record* record, const char* data, const char* ip, int32_t port);

// Reads one pending datagram from fd and hands it to on_message(data, sender
// address, sender port). Returns recvfrom's result; never blocks.
int udp_recv(lua_State* L, int32_t fd);

// Takes fd out of the socket table, closes it, calls on_close(reason), then
// sets record->sockfd to -1. The record's object must be on the caller's
// stack (callbacks.cpp): on_close may drop every other reference.
void udp_do_close(lua_State* L, udp_record* record, const char* reason);
