// The per-connection state table: entries indexed by descriptor, grown to
// the highest descriptor opened, empty (no memory) until a first entry.
#include "conn_table.h"

#include <cstdlib>
#include <cstring>

#ifdef lua_h
#error "the connection table must stay free of the interpreter"
#endif

namespace {

conn_entry* entries = nullptr;
std::size_t capacity = 0;  // entries allocated: descriptors 0 .. capacity - 1
std::size_t in_use = 0;
uint64_t last_serial = 0;

bool grow_to(std::size_t wanted) {
    if (wanted <= capacity)
        return true;
    std::size_t size = capacity == 0 ? 64 : capacity;
    while (size < wanted)
        size *= 2;
    void* grown = std::realloc(entries, size * sizeof(conn_entry));
    if (grown == nullptr)
        return false;
    entries = static_cast<conn_entry*>(grown);
    std::memset(entries + capacity, 0, (size - capacity) * sizeof(conn_entry));
    capacity = size;
    return true;
}

void release(conn_entry& entry) {
    if (entry.serial == 0)
        return;
    if (entry.session != nullptr && entry.release != nullptr)
        entry.release(entry.session);
    entry = conn_entry{};
    --in_use;
}

}  // namespace

uint64_t conn_open(int fd) {
    if (fd < 0 || !grow_to(static_cast<std::size_t>(fd) + 1))
        return 0;
    conn_entry& entry = entries[fd];
    release(entry);
    entry.serial = ++last_serial;
    entry.phase = connect_phase::tcp;
    ++in_use;
    return entry.serial;
}

conn_entry* conn_find(int fd, uint64_t serial) {
    if (fd < 0 || static_cast<std::size_t>(fd) >= capacity || serial == 0 || entries[fd].serial != serial)
        return nullptr;
    return &entries[fd];
}

conn_entry* conn_at(int fd) {
    if (fd < 0 || static_cast<std::size_t>(fd) >= capacity || entries[fd].serial == 0)
        return nullptr;
    return &entries[fd];
}

void conn_drop(int fd) {
    if (fd >= 0 && static_cast<std::size_t>(fd) < capacity)
        release(entries[fd]);
}

conn_wait conn_wants(int fd) {
    if (fd < 0 || static_cast<std::size_t>(fd) >= capacity)
        return conn_wait::none;
    return entries[fd].wants;
}

std::size_t conn_count() { return in_use; }
