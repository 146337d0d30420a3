// Descriptor sets for select(). Lua-free.
//
// fd_set holds descriptors below FD_SETSIZE (1024) only, and FD_SET past its
// end writes out of bounds, while the socket table can hold descriptors far
// above that. Linux select() accepts longer sets in the same layout (nfds bits
// rounded up to whole longs), so every select() in this module uses these
// instead of fd_set/FD_SET:
//   - select_set: a bit array grown to the highest descriptor added, reused
//     from call to call. Keep one in static storage per use site (it owns heap
//     memory and has no destructor, so a Lua error unwinding past it loses
//     nothing), clear it, add descriptors, pass select_set_fds(set) to select.
//   - select_single: the common "wait on one descriptor" case (connect with
//     a time-out, the send path's writability poll, the handshake's wait).
#pragma once

#include <sys/select.h>
#include <sys/time.h>

#include <cstddef>

struct select_set {
    unsigned long* words;
    std::size_t word_count;
};
// Clears every bit the set holds.
void select_set_clear(select_set& set);
// Adds fd, growing the set as needed; false when out of memory. Negative
// descriptors are never added (and do not fail).
bool select_set_add(select_set& set, int fd);
// False for descriptors beyond the set's size.
bool select_set_has(const select_set& set, int fd);
// Takes fd out (nothing for descriptors beyond the set's size).
void select_set_remove(select_set& set, int fd);
// The set as select() takes it; covers every descriptor added since the last
// clear.
fd_set* select_set_fds(select_set& set);

enum class wait_for { read, write };
// select(fd + 1, ...) with fd alone in the read or write set; returns what
// select() returns, errno as it left it. On Linux `timeout` then holds the
// time that remained, so a retry after EINTR keeps counting down.
int select_single(int fd, wait_for what, timeval* timeout);
