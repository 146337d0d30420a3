// TCP client: connect, close, send and the receive path.
#include "tcp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

#include "callbacks.h"
#include "chunked.h"
#include "conn_table.h"
#include "connect_machine.h"
#include "loop_conn.h"
#include "socket_table.h"
#include "tls_owner.h"
#include "tools.h"
#include "transport.h"

#define LOG_UNIT "tcp"

namespace {

// Reads are asked for at most this much so that a chunk always leaves room
// for a terminator; the read loop stops once fewer than this many bytes of
// capacity are left.
constexpr std::size_t READ_CHUNK = 2048;

// The receive buffer and the decoded body: taken when a delivery needs
// them, as large as it needs (up to TCP_RECV_BUFFER_SIZE), kept while small.
heap_buffer received_text{};
heap_buffer decoded_body{};

char* text_of(heap_buffer& buffer) { return reinterpret_cast<char*>(buffer.bytes); }

// on_error(errno, message), then the close with `reason` (null: the text of
// errno as on_error left it). The record's object is on the caller's stack.
void fail(lua_State* L, tcp_record* record, const char* message, const char* reason) {
    report_and_close(L, record->sockfd, message, reason, [&](const char* text) { tcp_do_close(L, record, text); });
}

constexpr connect_texts kTexts{"ssl_connect_fail", "ssl_connect_fail"};

// The set-up before any phase: the TLS context and client certificate, the
// address (dotted text only: a name is not resolved and gives all ones).
connect_outcome prepare_connect(tcp_record* record, connect_state& c) {
    if (record->is_secure == 1 && tcp_ssl_init(record) == -1)
        return connect_failed("ssl init fail", "ssl init fail", nullptr, "ssl init fail\n");
    c.address.sin_family = AF_INET;
    c.address.sin_port = htons(static_cast<uint16_t>(record->port & 0xffff));
    c.address.sin_addr.s_addr = inet_addr(record->ip);
    c.fd = record->sockfd;
    c.tcp = record;
    c.texts = &kTexts;
    return {connect_outcome::next, wait_for::read, 0, nullptr, nullptr, nullptr, nullptr};
}

// ---- loop-driven connections (nonblocking) ----

constexpr setup_texts kLoopTexts{"domain name resolution fail, get server ip fail!"};
constexpr std::size_t kDefaultMaxQueue = 1048576;

// The loop-driven state of the record's connection; null for a designed one
// or a record whose descriptor went to another connection.
loop_conn* loop_state(const tcp_record& record) {
    return record.sockfd >= 0 && conn_find(record.sockfd, record.guard.loop_serial) != nullptr
               ? static_cast<loop_conn*>(conn_loop_state(record.sockfd))
               : nullptr;
}

// The one report of a failed connect (on_error, the close).
void report_failed_connect(lua_State* L, tcp_record* record, const connect_outcome& outcome) {
    errno = outcome.error;
    fail(L, record, outcome.message != nullptr ? outcome.message : std::strerror(errno), outcome.reason);
    if (outcome.log_after != nullptr)
        WS_LOG("%s", outcome.log_after);
}

// The plain receive of a loop-driven connection: what has come is kept
// until the peer closes (or the buffer is nearly full, or a read fails),
// then delivered at once as the designed receive delivers it. -1 with
// EAGAIN in *err while it waits for more.
int32_t collect_plain(int32_t fd, loop_conn& conn, std::size_t* text_length, int* err) {
    char piece[READ_CHUNK];
    ssize_t got = 0;
    while (conn.in.length + READ_CHUNK <= TCP_RECV_BUFFER_SIZE) {
        got = safe_read(fd, piece, sizeof piece - 1);
        if (got <= 0)
            break;
        // text semantics: a read's bytes after a zero byte are dropped
        byte_queue_push(conn.in, piece, strnlen(piece, static_cast<std::size_t>(got)), TCP_RECV_BUFFER_SIZE);
        conn.collected += static_cast<std::size_t>(got);
    }
    *err = errno;
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        return -1;
    const auto total = static_cast<int32_t>(conn.collected);
    if (!heap_grow(received_text, conn.in.length)) {
        *err = errno;  // ENOMEM: a failed receive, the connection ends
        return -1;
    }
    *text_length = conn.in.length;
    if (conn.in.length > 0)
        std::memcpy(text_of(received_text), conn.in.bytes, conn.in.length);
    text_of(received_text)[conn.in.length] = '\0';
    byte_queue_reset(conn.in);
    conn.collected = 0;
    return total > 0 ? total : static_cast<int32_t>(got);
}

}  // namespace

// ---- connect and close ----

tcp_record* tcp_init(lua_State*, tcp_record* record) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd == -1) {
        WS_LOG("UDP socket create error\n");  // says UDP: kept as it always was
        return nullptr;
    }
    WS_LOG("tcp sockfd init is %d\n", fd);
    // 9 lies outside what F_SETFL changes on Linux: the socket stays blocking.
    const int flags = fcntl(fd, F_GETFL, 0);
    if (flags == -1 || fcntl(fd, F_SETFL, flags | 9) == -1) {
        WS_LOG("fcntl error\n");
        close(fd);
        return nullptr;
    }
    record->sockfd = fd;
    record->status = TCP_STATUS_CREATED;
    record->ssl = nullptr;
    record->ssl_ctx = nullptr;
    record->tls_serial = 0;
    return record;
}

int do_tcp_connect(lua_State* L, tcp_record* record) {
    WS_LOG("Come in connect\n");
    record->status = TCP_STATUS_CONNECTING;
    connect_state c{};
    connect_outcome outcome = prepare_connect(record, c);
    if (outcome.what != connect_outcome::failed)
        outcome = connect_blocking(c);
    connect_release(c);
    if (outcome.what == connect_outcome::opened)
        return 1;
    errno = outcome.error;
    fail(L, record, outcome.message != nullptr ? outcome.message : std::strerror(errno), outcome.reason);
    if (outcome.log_after != nullptr)
        WS_LOG("%s", outcome.log_after);
    return -1;
}

int tcp_opened(lua_State* L, tcp_record* record) {
    const int32_t fd = record->sockfd;
    if (sock_add(fd) == -1) {
        error_callback(L, fd, errno, "socktbl is full now");
        conn_drop(fd);
        if (close(fd) == -1)
            WS_LOG_IN("luacli", "tcp_connect", "close %d: %s\n", fd, std::strerror(errno));
        lua_pushnil(L);  // the record keeps its descriptor number and status
        return 1;
    }
    record->status = TCP_STATUS_OPEN;
    lua_settop(L, 1);
    registry_store_top(L, udata_key(fd));
    WS_LOG_IN("luacli", "tcp_connect", "Will do on open\n");  // the binding's lines, as they always read
    tcp_connect_callback(L, record);
    WS_LOG_IN("luacli", "tcp_connect", "Connect callback out\n");
    // on_open may have closed or replaced the object: return what is registered.
    get_udata_by_sockfd(L, fd);
    return 1;
}

void tcp_do_close(lua_State* L, tcp_record* record, const char* reason) {
    WS_LOG("will do tcp close\n");
    tls_settle_stale_copy(*record);
    tls_release_record(*record);  // no close-notify is sent
    if (record->status == TCP_STATUS_OPEN)
        sock_rem(record->sockfd);
    if (record->sockfd != -1) {
        conn_drop(record->sockfd);  // the connection's state and buffers go with its descriptor
        heap_disown(received_text, record->sockfd);
        heap_disown(decoded_body, record->sockfd);
        if (close(record->sockfd) == -1)
            WS_LOG("close %d: %s\n", record->sockfd, std::strerror(errno));
        tcp_udata_close(L, record->sockfd);
    }
    // The caller keeps the object on its stack (callbacks.cpp).
    close_callback(L, record->sockfd, reason);
    record->sockfd = -1;
}

int tcp_connect_loop(lua_State* L, tcp_record* record) {
    WS_LOG("Come in connect\n");
    record->status = TCP_STATUS_CONNECTING;
    const int32_t fd = record->sockfd;
    lua_settop(L, 1);
    lua_pushvalue(L, 1);
    registry_store_top(L, udata_key(fd));  // the object is the loop's record
    loop_conn* conn = loop_conn_attach(fd);
    if (conn == nullptr) {
        errno = ENOMEM;
        report_failed_connect(L, record, connect_failed(nullptr, nullptr));
        lua_pushnil(L);
        return 1;
    }
    conn_entry& entry = *conn_at(fd);
    record->guard.loop_serial = entry.serial;
    conn->max_queue = record->guard.max_queue > 0 ? static_cast<std::size_t>(record->guard.max_queue) : kDefaultMaxQueue;
    if (record->guard.host[0] != '\0')
        std::memcpy(record->ip, record->guard.host, sizeof record->ip);  // the name TLS checks, too
    conn->setup.fd = fd;
    conn->setup.tcp = record;
    conn->setup.texts = &kTexts;
    const double bound = record->guard.connect_timeout * 1000;
    const auto timeout_ms = static_cast<int64_t>(bound < 1e12 ? bound : 1e12);
    if (record->is_secure == 1 && tcp_ssl_init(record) == -1)
        setup_fail_later(*conn, entry, connect_failed("ssl init fail", "ssl init fail", nullptr, "ssl init fail\n"));
    else if (errno = ENOMEM; !setup_begin(*conn, entry, record->ip, static_cast<uint16_t>(record->port & 0xffff), timeout_ms,
                          &kLoopTexts))
        setup_fail_later(*conn, entry, connect_failed(nullptr, nullptr));
    lua_settop(L, 1);
    return 1;
}

int tcp_step(lua_State* L, int32_t fd) {
    int32_t kind = -1;
    auto* record = static_cast<tcp_record*>(registered_record(L, fd, &kind));
    loop_conn* conn = record != nullptr && kind == SOCK_TYPE_TCP ? loop_state(*record) : nullptr;
    if (conn == nullptr)
        return 0;
    conn_entry& entry = *conn_at(fd);
    if (entry.phase == connect_phase::open) {
        tls_session* tls = nullptr;
        if (!record_stream(*record, &tls) || loop_drain(*conn, entry, fd, tls) == -1) {
            fail(L, record, std::strerror(errno), "send fail");
            return -1;
        }
        return 0;
    }
    conn->setup.tcp = record;  // the registered block, wherever it is now
    const connect_outcome outcome = setup_advance(*conn, entry, monotonic_ms());
    if (outcome.what == connect_outcome::failed) {
        report_failed_connect(L, record, outcome);
        return -1;
    }
    if (outcome.what == connect_outcome::opened) {
        lua_settop(L, 0);
        get_udata_by_sockfd(L, fd);  // tcp_opened wants the object at 1
        tcp_opened(L, record);
    }
    return 0;
}

// ---- send ----

namespace {

int32_t send_queued(lua_State* L, tcp_record* record, loop_conn& conn, tls_session* tls, const char* data,
                    std::size_t length) {
    switch (loop_send(conn, *conn_at(record->sockfd), record->sockfd, tls, data, length)) {
    case queued_send::full:
        errno = ENOBUFS;
        error_callback(L, record->sockfd, errno, "send queue full");
        return 0;
    case queued_send::failed:
        WS_LOG("send fail return -1: %d -> %s\n", errno, std::strerror(errno));
        fail(L, record, std::strerror(errno), "send fail");
        return -1;
    default:
        return static_cast<int32_t>(length);
    }
}

}  // namespace

int32_t tcp_send(lua_State* L, tcp_record* record, const char* data) {
    WS_LOG("Come in tcp send\n");
    tls_settle_stale_copy(*record);
    loop_conn* conn = loop_state(*record);
    if (conn != nullptr && conn_at(record->sockfd)->phase != connect_phase::open) {
        errno = ENOTCONN;
        error_callback(L, record->sockfd, errno, "connection is being set up");
        return 0;
    }
    const sock_header* registered = push_registered(L, record->sockfd);
    tls_session* tls = nullptr;
    const bool closed = record->status == TCP_STATUS_CREATED || registered == nullptr ||
                        registered->status == TCP_STATUS_CLOSED || !record_stream(*record, &tls);
    if (closed) {
        closed_socket_callback(L, record->sockfd, record->status == TCP_STATUS_CREATED, registered == nullptr);
        WS_LOG("ERROR: socket has been closed\n");
        return -1;
    }
    // Text semantics: nothing after the first zero byte is sent.
    const std::size_t length = std::min<std::size_t>(std::strlen(data), INT_MAX);
    if (conn != nullptr)
        return send_queued(L, record, *conn, tls, data, length);
    const auto result = static_cast<int32_t>(stream_write(record->sockfd, tls, data, length));
    if (result == -1) {
        WS_LOG("send fail return -1: %d -> %s\n", errno, std::strerror(errno));
        fail(L, record, std::strerror(errno), "send fail");
        return -1;
    }
    return result;
}


// ---- receive ----

ssize_t safe_read(int fd, void* buffer, std::size_t length) {
    ssize_t result;
    do {
        result = stream_read(fd, nullptr, buffer, length);
    } while (result < 0 && errno == EINTR);
    return result;
}

namespace {

// full_read's loop over any destination: room(at, want) is where `want`
// bytes and a terminator may go from offset `at` (null: no memory; the
// reading stops and the rest waits in the socket).
template <typename Room>
int32_t gather(int fd, std::size_t capacity, std::size_t* text_length, Room room) {
    // Reads land straight after the text gathered so far: a zero byte ends
    // the text there, and the next read overwrites what followed it.
    std::size_t text = 0;
    int32_t total = 0;
    int empty_reads = 0;
    ssize_t got = 0;
    do {
        const std::size_t space = capacity > text + 1 ? capacity - text - 1 : 0;
        const std::size_t want = std::min(READ_CHUNK - 1, space);
        char* const into = want != 0 ? room(text, want) : nullptr;
        if (into == nullptr)
            break;
        got = safe_read(fd, into, want);
        if (got == 0 && ++empty_reads > 2)
            break;
        if (got > 0) {
            empty_reads = 0;
            text += strnlen(into, static_cast<std::size_t>(got));
            total += static_cast<int32_t>(got);
        }
    } while (got >= 0 && static_cast<std::size_t>(total) + READ_CHUNK <= capacity);
    if (char* end = capacity > 0 ? room(text, 0) : nullptr)
        *end = '\0';
    WS_LOG_AS("full_read", "---------full_read------end\n");
    if (text_length != nullptr)
        *text_length = text;
    return total;
}

}  // namespace

int32_t full_read(int fd, char* dest, std::size_t capacity, std::size_t* text_length) {
    return gather(fd, capacity, text_length, [dest](std::size_t at, std::size_t) { return dest + at; });
}

namespace {

// Replaces a chunked response in `received` by its header block, a line
// break, the decoded body and a line break. Leaves the raw text when there is
// no header block or nothing was decoded.
void decode_chunked_response(std::size_t text_length) {
    const std::string_view text(text_of(received_text), text_length);
    WS_LOG("===chenked=====\n");
    std::size_t header_length = 0;
    if (get_head(text, &header_length) == 0)
        return;
    std::size_t body_length = 0;
    // the body is shorter than its encoding: text_length bytes always hold it
    if (!heap_grow(decoded_body, text_length))
        return;  // no memory: the raw text is delivered
    de_chunked(text, std::span<char>(text_of(decoded_body), text_length), &body_length);  // a partial decode is used as it stands
    WS_LOG("-------de_chunked---------\n");
    if (body_length == 0)
        return;
    // The header block is the text's own prefix and is already followed by
    // "\r\n": only the body and the final line break are written.
    if (header_length + 2 + body_length + 3 > TCP_RECV_BUFFER_SIZE ||
        !heap_grow(received_text, header_length + 2 + body_length + 3))
        return;  // cannot happen: the decoded body is shorter than its encoding
    char* tail = text_of(received_text) + header_length + 2;
    std::memcpy(tail, text_of(decoded_body), body_length);
    std::memcpy(tail + body_length, "\r\n", 3);
}


// The plain receive: reads until the peer stops, chunked responses decoded.
// A loop-driven connection collects across passes instead: -1 (EAGAIN in
// *err) while more is to come.
int32_t receive_plain(int32_t fd, tcp_record& record, int* err) {
    WS_LOG_AS("tcp_recv", "---------------tpc_recv-----------------\n");
    std::size_t text_length = 0;
    int32_t result = 0;
    if (loop_conn* conn = loop_state(record); conn != nullptr) {
        result = collect_plain(fd, *conn, &text_length, err);
        if (result == -1)
            return -1;
    } else {
        result = gather(fd, TCP_RECV_BUFFER_SIZE, &text_length, [](std::size_t at, std::size_t want) {
            return heap_grow(received_text, at + want) ? text_of(received_text) + at : nullptr;
        });
    }
    if (std::string_view(text_of(received_text), text_length).find("Transfer-Encoding: chunked") != std::string_view::npos)
        decode_chunked_response(text_length);
    return result;
}

}  // namespace

int32_t tcp_recv(lua_State* L, int32_t fd, int* err) {
    get_udata_by_sockfd(L, fd);
    tcp_record* record = check_tcp_client(L, -1);
    int32_t result = 0;
    tls_session* tls = nullptr;
    heap_claim(received_text, fd);
    heap_claim(decoded_body, fd);
    if (record->is_secure == 1) {
        if (!record_stream(*record, &tls)) {  // released through another copy: closed
            errno = ENOTCONN;
            result = 0;
        } else {
            errno = 0;  // a stale EINTR/EAGAIN must not make a dead session look alive
            result = static_cast<int32_t>(stream_read_grow(fd, tls, received_text, 0, TCP_RECV_BUFFER_SIZE - 1));
        }
        const int kept = errno;
        if (heap_grow(received_text, result > 0 ? static_cast<std::size_t>(result) : 0))
            text_of(received_text)[result > 0 ? result : 0] = '\0';
        errno = kept;
    } else {
        result = receive_plain(fd, *record, err);
        if (result == -1 && *err == EAGAIN) {  // collecting: nothing is delivered yet
            heap_done(received_text, fd);
            heap_done(decoded_body, fd);
            return -1;
        }
    }
    *err = errno;
    if (result > 0 && received_text.bytes != nullptr)
        receive_callback(L, fd, text_of(received_text), "", -1);
    heap_done(received_text, fd);
    heap_done(decoded_body, fd);
    return result;
}
