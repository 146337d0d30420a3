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
// Beside each entry: a loop-driven connection's state, owned.
struct loop_slot {
    void* state;
    void (*release)(void* state);
};
loop_slot* loop_slots = nullptr;
std::size_t capacity = 0;  // entries allocated: descriptors 0 .. capacity - 1
std::size_t in_use = 0;
uint64_t last_serial = 0;

bool grow_to(std::size_t wanted) {
    if (wanted <= capacity)
        return true;
    std::size_t size = capacity == 0 ? 64 : capacity;
    while (size < wanted)
        size *= 2;
    void* grown_slots = std::realloc(loop_slots, size * sizeof(loop_slot));
    if (grown_slots == nullptr)
        return false;
    loop_slots = static_cast<loop_slot*>(grown_slots);
    std::memset(loop_slots + capacity, 0, (size - capacity) * sizeof(loop_slot));
    void* grown = std::realloc(entries, size * sizeof(conn_entry));
    if (grown == nullptr)
        return false;  // the slots are larger than needed: harmless
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
    loop_slot& slot = loop_slots[&entry - entries];
    if (slot.state != nullptr && slot.release != nullptr)
        slot.release(slot.state);
    slot = loop_slot{};
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

void conn_drop(int fd) {
    if (fd >= 0 && static_cast<std::size_t>(fd) < capacity)
        release(entries[fd]);
}

bool conn_ended(int fd, conn_ending* end) {
    const conn_entry* entry = conn_at(fd);
    if (entry == nullptr || entry->ending == nullptr)
        return false;
    *end = conn_ending{};
    entry->ending(entry->session, end);
    return true;
}

conn_wait conn_wants(int fd) {
    if (fd < 0 || static_cast<std::size_t>(fd) >= capacity)
        return conn_wait::none;
    return entries[fd].wants;
}

conn_entry* conn_at(int fd) {
    if (fd < 0 || static_cast<std::size_t>(fd) >= capacity || entries[fd].serial == 0)
        return nullptr;
    return &entries[fd];
}

int conn_next(int after) {
    if (in_use == 0)
        return -1;
    for (std::size_t fd = after < 0 ? 0 : static_cast<std::size_t>(after) + 1; fd < capacity; ++fd)
        if (entries[fd].serial != 0)
            return static_cast<int>(fd);
    return -1;
}

void* conn_loop_state(int fd) { return conn_at(fd) != nullptr ? loop_slots[fd].state : nullptr; }

bool conn_set_loop_state(int fd, void* state, void (*release)(void* state)) {
    if (conn_at(fd) == nullptr)
        return false;
    loop_slots[fd] = {state, release};
    return true;
}

std::size_t conn_count() { return in_use; }
