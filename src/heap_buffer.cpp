// Growable heap buffers.
#include "heap_buffer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#ifdef lua_h
#error "the heap buffers must stay free of the interpreter"
#endif

bool heap_grow_to(heap_buffer& buffer, std::size_t size) {
    if (size <= buffer.capacity && buffer.bytes != nullptr)
        return true;
    // doubling keeps the copies in proportion to the bytes that come
    std::size_t wanted = buffer.capacity < 4096 ? 4096 : buffer.capacity;
    while (wanted < size)
        wanted *= 2;
    void* grown = std::realloc(buffer.bytes, wanted + 1);
    if (grown == nullptr) {
        errno = ENOMEM;
        return false;
    }
    buffer.bytes = static_cast<uint8_t*>(grown);
    std::memset(buffer.bytes + buffer.capacity, 0, wanted + 1 - buffer.capacity);
    buffer.capacity = wanted;
    return true;
}

void heap_trim(heap_buffer& buffer, std::size_t keep) {
    if (buffer.capacity <= keep)
        return;
    std::free(buffer.bytes);
    buffer.bytes = nullptr;
    buffer.capacity = 0;
}

void heap_claim(heap_buffer& buffer, int fd) {
    if (buffer.owner != fd)
        heap_trim(buffer, HEAP_KEEP);
    buffer.owner = fd;
}

void heap_done(heap_buffer& buffer, int fd) {
    if (buffer.owner != fd)
        heap_trim(buffer, HEAP_KEEP);
}

void heap_disown(heap_buffer& buffer, int fd, bool in_use) {
    if (buffer.owner != fd)
        return;
    buffer.owner = -1;
    if (!in_use)
        heap_trim(buffer, HEAP_KEEP);
}
