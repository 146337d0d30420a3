// Socket helpers and the WebSocket URL split. Lua-free.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <span>

// Resolves `host` to dotted IPv4 text in `ip`; null when the name does not
// resolve or the text does not fit (16 characters always do).
char* get_ip(const char* host, std::span<char> ip);

// O_NONBLOCK on / off; 0, or -1 ("fcntl error" in the log).
int set_nonblocking(int fd);
int deactivate_nonblock(int fd);

// A connect on a non-blocking descriptor, in two halves: connect_start gives
// 0 connected at once, 1 under way (wait for the descriptor to become
// writable, then call connect_finished), -1 failed (errno);
// connect_finished gives 0 connected, or -1 with errno set to the socket's
// pending error (SO_ERROR).
int connect_start(int fd, const sockaddr_in* address);
int connect_finished(int fd);
// connect_start for an address of either family.
int connect_start_address(int fd, const sockaddr* address, socklen_t length);

// A fresh non-blocking socket of `family` and `type` put in place of fd
// (dup2), so that whatever is keyed by the descriptor number stays valid;
// `dual_stack` clears IPV6_V6ONLY on an IPv6 one. 0, or -1 (errno; fd is
// left as it was).
int adopt_family(int fd, int family, int type, bool nonblocking, bool dual_stack = false);

// connect() that gives up after timeout_sec seconds (0: plain connect on the
// descriptor as it is). 0 connected, -1 failed with errno telling why
// (ETIMEDOUT on time-out). The blocking mode is restored on every path.
int connect_timeout(int fd, const sockaddr_in* address, int32_t timeout_sec);

// 1 for a "wss" prefix, 0 for "ws", -1 otherwise (exact case; nothing after
// the prefix is looked at).
int is_secure(const char* url);

// Cuts `url` in place at every "/" (empty pieces vanish): the first piece is
// the scheme, the second the host (":port" and all, copied whole), every
// further piece is appended to `path` as "/piece". Both outputs are
// overwritten. 0, or -1 when there is no host piece or an output is too
// small (host and path are empty then).
int get_host_path(char* url, std::span<char> host, std::span<char> path);
