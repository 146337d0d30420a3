// A buffer on the heap, taken when first needed and grown to the need, with
// every byte past what was written zero and a spare zero byte after its end
// (so a text scan always ends inside it). Lua-free.
#pragma once

#include <cstddef>
#include <cstdint>

struct heap_buffer {
    uint8_t* bytes;         // null until first grown
    std::size_t capacity;   // usable bytes (the spare zero follows them)
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

// What a buffer kept between uses may hold; larger ones go back after use.
constexpr std::size_t HEAP_KEEP = 65536;
