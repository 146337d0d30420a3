// A buffer on the heap, taken when first needed and grown to the need, with
// every byte past what was written zero and a spare zero byte after its end
// (so a text scan always ends inside it). Lua-free.
#pragma once

#include <cstddef>
#include <cstdint>

struct heap_buffer {
    uint8_t* bytes;         // null until first grown
    std::size_t capacity;   // usable bytes (the spare zero follows them)
    int owner;              // the descriptor of the connection using it; -1 none
};

// Room for `size` bytes, the new part zeroed; false (errno ENOMEM, the
// buffer as it was) when memory is short.
bool heap_grow_to(heap_buffer& buffer, std::size_t size);
// The same, with the common case (room enough already) inline: it is on
// every receive and send.
inline bool heap_grow(heap_buffer& buffer, std::size_t size) {
    return (size <= buffer.capacity && buffer.bytes != nullptr) || heap_grow_to(buffer, size);
}
// Gives the memory back when the buffer holds more than `keep` bytes.
void heap_trim(heap_buffer& buffer, std::size_t keep);

// A buffer shared by the connections may stay large only for the one that
// needed it: up to HEAP_KEEP bytes are kept for anyone; a larger buffer is
// kept for its connection (the next message is likely as large) and goes
// back when that connection closes or another one takes the buffer.
constexpr std::size_t HEAP_KEEP = 65536;
// Connection fd takes the buffer (another's large buffer is given back).
void heap_claim(heap_buffer& buffer, int fd);
// Connection fd is done with it for now: a large buffer whose connection
// closed meanwhile goes back.
void heap_done(heap_buffer& buffer, int fd);
// Connection fd closes: its large buffer goes back now, or (in use: a call
// still holds pointers into it) at that call's heap_done.
void heap_disown(heap_buffer& buffer, int fd, bool in_use = false);
