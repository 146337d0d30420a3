// State of loop-driven connections: queues and their writes.
#include "loop_conn.h"

#include <time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "transport.h"

#ifdef lua_h
#error "the loop-driven connection state must stay free of the interpreter"
#endif

int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

loop_conn* loop_conn_new() { return static_cast<loop_conn*>(std::calloc(1, sizeof(loop_conn))); }

void loop_conn_free(void* state) {
    auto* conn = static_cast<loop_conn*>(state);
    if (conn == nullptr)
        return;
    resolve_free(conn->query);
    byte_queue_reset(conn->out);
    byte_queue_reset(conn->in);
    std::free(conn);
}

void byte_queue_reset(byte_queue& queue) {
    std::free(queue.bytes);
    queue = byte_queue{};
}

bool byte_queue_push(byte_queue& queue, const void* bytes, std::size_t size, std::size_t limit) {
    const std::size_t pending = byte_queue_pending(queue);
    if (size == 0)
        return true;
    if (size > limit || pending > limit - size)
        return false;
    if (queue.written > 0 && queue.written == queue.length)
        queue.length = queue.written = 0;  // drained: start over at the front
    if (queue.length + size > queue.capacity) {
        // move the unwritten bytes to the front, then grow to the need
        if (queue.written > 0)
            std::memmove(queue.bytes, queue.bytes + queue.written, pending);
        queue.length = pending;
        queue.written = 0;
        std::size_t wanted = queue.capacity == 0 ? 4096 : queue.capacity;
        while (wanted < pending + size)
            wanted *= 2;
        if (wanted > queue.capacity) {
            void* grown = std::realloc(queue.bytes, wanted);
            if (grown == nullptr)
                return false;
            queue.bytes = static_cast<char*>(grown);
            queue.capacity = wanted;
        }
    }
    std::memcpy(queue.bytes + queue.length, bytes, size);
    queue.length += size;
    return true;
}

int byte_queue_flush(byte_queue& queue, int fd, tls_session* tls) {
    while (queue.written < queue.length) {
        const long sent = stream_write(fd, tls, queue.bytes + queue.written, queue.length - queue.written);
        if (sent == -1)
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 0 : -1;
        queue.written += static_cast<std::size_t>(sent);
    }
    queue.length = queue.written = 0;
    return 1;
}
