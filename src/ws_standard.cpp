// Standard-mode WebSocket connections: connect, receive, send queue, close,
// keepalive.
#include "ws_standard.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "callbacks.h"
#include "fdset.h"
#include "loop_conn.h"
#include "conn_table.h"
#include "connect_machine.h"
#include "net.h"
#include "resolve.h"
#include "socket_table.h"
#include "tls_owner.h"
#include "tools.h"
#include "transport.h"
#include "ws_connect.h"
#include "ws_message.h"
#include "ws_upgrade.h"
#include "ws_url.h"

#define LOG_UNIT "ws_standard"

namespace {

constexpr std::size_t INPUT_SIZE = 16384 + WS_HEADER_MAX;  // a 16 KiB frame arrives whole, handed out uncopied
constexpr std::size_t TLS_CHUNK = 16384;    // at most one record per TLS write
constexpr std::size_t QUEUE_KEEP = 65536;   // queue capacity kept once drained
constexpr std::size_t DIRECT_LEAST = 4096;  // a shorter rest of a frame is read with what follows it
constexpr int READS_PER_PASS = 16;          // then the other sockets get their turn
constexpr uint16_t CLOSE_ABNORMAL = 1006;   // reported, never sent

struct std_conn {
    ws_session session;
    int32_t fd;
    uint64_t serial;
    bool secure;
    tls_session* tls;
    uint64_t tls_serial;
    std::size_t max_queue;
    int64_t close_ms, ping_ms, pong_ms;  // from the options; 0: none
    uint8_t* queue;                      // framed bytes the socket did not take yet
    std::size_t queue_start, queue_end, queue_capacity;
    uint8_t* pending;                    // what followed the upgrade answer, fed after on_open
    std::size_t pending_size;
    int64_t heard_at, ping_at, close_until;  // ping_at: a ping waits for an answer; 0: none
    bool close_asked;                        // ws_close sent our close
    bool peer_closed;                        // the server's close came
    bool in_receive;
    uint16_t code;
    uint8_t reason_size;
    char reason[WS_CONTROL_MAX - 2];
    uint8_t input[INPUT_SIZE];
};

void release_conn(void* session) {
    auto* c = static_cast<std_conn*>(session);
    ws_session_free(c->session);
    std::free(c->queue);
    std::free(c->pending);
    std::free(c);
}

// on_close's code and the server's reason, for the close by descriptor
void tell_ending(const void* session, conn_ending* end) {
    const auto* c = static_cast<const std_conn*>(session);
    static_assert(sizeof end->reason >= sizeof c->reason);
    end->peer_closed = c->peer_closed;
    end->code = c->code;
    end->reason_size = c->reason_size;
    std::memcpy(end->reason, c->reason, c->reason_size);
}

std_conn* conn_in(conn_entry* entry) {
    return entry != nullptr && entry->release == release_conn ? static_cast<std_conn*>(entry->session) : nullptr;
}
std_conn* conn_of(int32_t fd) { return conn_in(conn_at(fd)); }
// The same connection after a callback; null once it went.
std_conn* still(int32_t fd, uint64_t serial) { return conn_in(conn_find(fd, serial)); }

std::size_t queued(const std_conn& c) { return c.queue_end - c.queue_start; }

// Decrypted bytes waiting in the TLS session: select() cannot see them.
bool tls_holds_bytes(const std_conn& c) {
    return c.secure && tls_live(c.tls_serial) && tls_pending(c.tls) > 0;
}

// ---- writing ----

// Writes until done or the socket is full: the count, or -1 (errno).
long write_some(const std_conn& c, const uint8_t* bytes, std::size_t size) {
    tls_session* tls = c.secure && tls_live(c.tls_serial) ? c.tls : nullptr;
    if (c.secure && tls == nullptr) {
        errno = EBADF;
        return -1;
    }
    std::size_t done = 0;
    while (done < size) {
        const std::size_t piece = tls != nullptr ? std::min(size - done, TLS_CHUNK) : size - done;
        if (tls != nullptr)
            errno = 0;  // a TLS failure that is no system call's must not read as EAGAIN
        const long n = stream_write(c.fd, tls, bytes + done, piece);
        if (n > 0)
            done += static_cast<std::size_t>(n);
        else if (n == -1 && errno == EINTR)
            continue;
        else if (n == -1 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        else
            return -1;
    }
    return static_cast<long>(done);
}

bool queue_append(std_conn& c, const uint8_t* bytes, std::size_t size) {
    if (size == 0)
        return true;
    if (c.queue_end + size > c.queue_capacity && c.queue_start > 0) {
        std::memmove(c.queue, c.queue + c.queue_start, queued(c));
        c.queue_end -= c.queue_start;
        c.queue_start = 0;
    }
    if (c.queue_end + size > c.queue_capacity) {
        const std::size_t capacity = std::max(c.queue_end + size, c.queue_capacity * 2);
        auto* grown = static_cast<uint8_t*>(std::realloc(c.queue, capacity));
        if (grown == nullptr)
            return false;
        c.queue = grown;
        c.queue_capacity = capacity;
    }
    std::memcpy(c.queue + c.queue_end, bytes, size);
    c.queue_end += size;
    return true;
}

// Writes what waits; -1 (errno) when the write failed.
int flush(std_conn& c) {
    if (queued(c) == 0)
        return 0;
    const long n = write_some(c, c.queue + c.queue_start, queued(c));
    if (n < 0)
        return -1;
    c.queue_start += static_cast<std::size_t>(n);
    if (queued(c) == 0) {
        c.queue_start = c.queue_end = 0;
        if (c.queue_capacity > QUEUE_KEEP) {
            std::free(c.queue);
            c.queue = nullptr;
            c.queue_capacity = 0;
        }
    }
    return 0;
}

// A whole frame: written behind what waits, the rest queued. -1 (errno).
int submit(std_conn& c, std::span<const uint8_t> frame) {
    std::size_t done = 0;
    if (queued(c) == 0) {
        const long n = write_some(c, frame.data(), frame.size());
        if (n < 0)
            return -1;
        done = static_cast<std::size_t>(n);
    }
    if (queued(c) == 0 && done < frame.size() && frame.data() == c.session.send) {
        // the frame's own buffer becomes the queue: a large rest is not copied
        std::free(c.queue);
        c.queue = c.session.send;
        c.queue_capacity = c.session.send_capacity;
        c.queue_start = done;
        c.queue_end = frame.size();
        c.session.send = nullptr;
        c.session.send_capacity = 0;
        return 0;
    }
    if (!queue_append(c, frame.data() + done, frame.size() - done)) {
        errno = ENOMEM;
        return -1;
    }
    ws_session_release_send(c.session);
    return 0;
}

// What the loop waits for: writability while bytes wait, the nearest deadline.
void schedule(const std_conn& c) {
    conn_entry* entry = conn_find(c.fd, c.serial);
    if (entry == nullptr)
        return;
    entry->wants = queued(c) != 0 ? conn_wait::write : conn_wait::none;
    int64_t nearest = 0;
    const auto consider = [&](int64_t at) { nearest = nearest == 0 || at < nearest ? at : nearest; };
    if (c.pending != nullptr || tls_holds_bytes(c))
        consider(1);  // due at once: the step delivers or reads them
    if (c.close_until != 0)
        consider(c.close_until);
    if (c.ping_ms > 0 && c.ping_at == 0 && c.close_until == 0)
        consider(c.heard_at + c.ping_ms);
    if (c.pong_ms > 0 && c.ping_at != 0)
        consider(c.ping_at + c.pong_ms);
    entry->deadline_ms = nearest;
}

// ---- ending ----

void close_quietly(lua_State* L, int32_t fd, const char* reason) {
    const int height = lua_gettop(L);
    do_close(L, fd, reason);
    lua_settop(L, height);
}

// on_error(errno, text), then the close; text null: the text of errno.
void fail_with(lua_State* L, int32_t fd, const char* text) {
    const int height = lua_gettop(L);
    report_and_close(L, fd, text != nullptr ? text : std::strerror(errno), text,
                     [&](const char* reason) { do_close(L, fd, reason); });
    lua_settop(L, height);
}

const char* failure_text(uint16_t code) {
    switch (code) {
    case WS_CLOSE_BAD_DATA:
        return "invalid UTF-8 (1007)";
    case WS_CLOSE_TOO_BIG:
        return "message too big (1009)";
    case WS_CLOSE_NO_MEMORY:
        return "out of memory (1011)";
    default:
        return "protocol error (1002)";
    }
}

// The session failed: our close with its code (one try), report, close.
void fail_session(lua_State* L, std_conn& c, uint16_t code) {
    const ws_framed framed = ws_session_close_frame(c.session, code, {});
    if (framed.error == ws_send_error::none)
        submit(c, framed.frame);
    c.code = code;
    errno = code == WS_CLOSE_TOO_BIG ? EMSGSIZE : code == WS_CLOSE_NO_MEMORY ? ENOMEM : EPROTO;
    fail_with(L, c.fd, failure_text(code));
}

// ---- receiving ----

// The server's close: answered with its code unless ours went first; the
// connection ends once the answer is out. False when it ended here.
bool peer_close(lua_State* L, std_conn& c, const ws_out& e) {
    c.peer_closed = true;
    c.code = e.code;
    c.reason_size = static_cast<uint8_t>(std::min(e.bytes.size(), sizeof c.reason));
    if (c.reason_size != 0)
        std::memcpy(c.reason, e.bytes.data(), c.reason_size);
    if (c.close_asked)
        return true;  // ours was sent: the server ends the TCP connection
    const ws_framed answer = ws_session_close_frame(c.session, e.code, {});
    if (answer.error == ws_send_error::none && submit(c, answer.frame) == -1) {
        fail_with(L, c.fd, nullptr);
        return false;
    }
    if (queued(c) == 0) {
        close_quietly(L, c.fd, "closed by server");
        return false;
    }
    c.close_until = monotonic_ms() + c.close_ms;
    return true;
}

// Feeds `size` bytes at `bytes` (inside the connection) to its session and
// the events to the script. The connection, or null once it ended.
std_conn* consume(lua_State* L, std_conn* c, const uint8_t* bytes, std::size_t size) {
    const int32_t fd = c->fd;
    const uint64_t serial = c->serial;
    std::span<const uint8_t> in(bytes, size);
    while (c != nullptr && !in.empty()) {
        const ws_out e = ws_session_feed(c->session, in);
        in = in.subspan(e.used);
        if (e.what == ws_event::text || e.what == ws_event::binary) {
            message_callback(L, fd, e.bytes.data(), e.bytes.size(), e.what == ws_event::text ? "text" : "binary");
            if ((c = still(fd, serial)) != nullptr)
                ws_session_delivered(c->session);  // a large message's store is not kept until the next read
        } else if (e.what == ws_event::ping) {
            const ws_framed pong = ws_session_frame(c->session, ws_opcode::PONG, e.bytes);
            if (pong.error == ws_send_error::none && submit(*c, pong.frame) == -1)
                return fail_with(L, fd, nullptr), nullptr;
        } else if (e.what == ws_event::close) {
            if (!peer_close(L, *c, e))
                return nullptr;
        } else if (e.what == ws_event::fail) {
            return fail_session(L, *c, e.code), nullptr;
        }
    }
    return c;
}

// The end of the stream or a failed read: after a close frame either way a
// clean end, otherwise reported as the designed receive reports it.
void stream_ended(lua_State* L, std_conn& c) {
    if (c.close_asked || c.peer_closed)
        close_quietly(L, c.fd, c.close_asked ? "User do close" : "closed by server");
    else
        fail_with(L, c.fd, nullptr);
}

// ---- connecting ----

constexpr connect_texts kTexts{"ssl connect fail!", "ssl_connect_fail"};

// The record's descriptor becomes a socket of the address's family under the
// same number (its registrations stay) and connects within `timeout`
// seconds (0: a plain blocking connect). 0, or -1 with errno.
int connect_address(ws_record& ws, const sockaddr_storage& address, socklen_t length) {
    const int fresh = socket(address.ss_family, SOCK_STREAM, 0);
    if (fresh == -1)
        return -1;
    const int moved = dup2(fresh, ws.sockfd);
    close(fresh);
    if (moved == -1 || (ws.timeout != 0 && set_nonblocking(ws.sockfd) == -1))
        return -1;
    int result = connect(ws.sockfd, reinterpret_cast<const sockaddr*>(&address), length);
    if (result == -1 && errno == EINPROGRESS) {
        timeval wait{ws.timeout, 0};
        int ready;
        while ((ready = select_single(ws.sockfd, wait_for::write, &wait)) == -1 && errno == EINTR) {
        }
        errno = ready == 0 ? ETIMEDOUT : errno;
        result = ready == 1 ? connect_finished(ws.sockfd) : -1;
    }
    const int error = errno;
    if (ws.timeout != 0 && deactivate_nonblock(ws.sockfd) == -1)
        return -1;
    errno = error;
    return result;
}

constexpr connect_outcome kNext{connect_outcome::next, wait_for::read, 0, nullptr, nullptr, nullptr, nullptr};

// The URL and, for wss, the TLS context: the host to resolve and the port.
connect_outcome split_target(ws_record* ws, std::span<char> text, ws_url_parts& parts, uint16_t& port) {
    if (const char* why = ws_url_split(ws->url, text, parts)) {
        WS_LOG("%s: %s\n", ws->url, why);
        return connect_failed("wrong websocket url!", "wrong websocket url!", "Error: Wrong websocket url\n");
    }
    ws->is_secure = parts.secure ? 1 : 0;
    if (parts.secure && wss_ssl_init(ws) == -1)
        return connect_failed("ssl init fail!", "ssl init fail", nullptr, "ssl init fail\n");
    port = parts.port_written ? parts.port : static_cast<uint16_t>(ws->port & 0xffff);
    return kNext;
}

// A query run to its end in this call: the connect blocks, as the designed one does.
void resolve_here(resolve_query& query) {
    static select_set readers{}, writers{};
    while (query.state == resolve_state::pending) {
        select_set_clear(readers);
        select_set_clear(writers);
        int highest = -1;
        (void)resolve_watch(query, readers, writers, &highest);  // unwatched: the query's own time-out ends it
        const long ms = resolve_wait_ms(query);
        timeval wait{ms / 1000, ms % 1000 * 1000};
        const int ready = select(highest + 1, select_set_fds(readers), select_set_fds(writers), nullptr, &wait);
        resolve_advance(query, ready > 0 ? &readers : nullptr, ready > 0 ? &writers : nullptr);
    }
}

// The host resolved to IPv6 and IPv4 addresses, each connected in turn until
// one takes (the TCP phase is then done); the failure of the last is the one
// reported.
connect_outcome blocking_address(ws_record* ws, const ws_url_parts& parts, uint16_t port, connect_state& c) {
    // the query needs a bound of its own when the connect has none
    const int bound_ms = ws->timeout > 0 ? static_cast<int>(std::min<int64_t>(ws->timeout * int64_t{1000}, INT32_MAX)) : 30000;
    resolve_query* query = resolve_start(parts.host, port, bound_ms);
    if (query != nullptr)
        resolve_here(*query);
    if (query == nullptr || query->state != resolve_state::done) {
        errno = query != nullptr ? query->error : ENOMEM;
        resolve_free(query);
        return connect_failed("domain name resolution fail, get server ip fail!",
                              "domain name resolution fail, get server ip fail!", "Get server_ip: \n", "return -1\n");
    }
    int connected = -1;
    for (std::size_t i = 0; i < query->count && connected == -1; ++i)
        connected = connect_address(*ws, query->addresses[i].address, query->addresses[i].length);
    const int error = errno;
    resolve_free(query);
    errno = error;
    if (connected == -1 || (ws->guard.io_timeout > 0 && stream_bound_waits(ws->sockfd, ws->guard.io_timeout) == -1))
        return connect_failed(nullptr, nullptr);
    c.phase = parts.secure ? connect_phase::tls : connect_phase::send_upgrade;
    return kNext;
}

// The connect's record and texts, and the request with a fresh key; `u`
// expects the record's accept value.
connect_outcome make_request(ws_record* ws, const standard_options& o, const ws_url_parts& parts, uint16_t port,
                             connect_state& c, ws_upgrade& u) {
    const uint16_t standard_port = parts.secure ? 443 : 80;
    char host[TEXT_FIELD_SIZE + 8];
    std::snprintf(host, sizeof host, port == standard_port || parts.port_written ? "%s" : "%s:%u",
                  parts.host_header, static_cast<unsigned>(port));
    WS_LOG("%s: target %s\n", ws->url, parts.target);
    c.fd = ws->sockfd;
    c.timeout = ws->timeout;
    c.ws = ws;
    c.texts = &kTexts;
    std::snprintf(c.host, sizeof c.host, "%s", parts.host);
    const int length = ws_upgrade_key(ws->sec_ws_key) == 0
                           ? ws_upgrade_request(c.request, parts.target, host, ws->sec_ws_key, o.protocols, o.headers)
                           : -1;
    if (length < 0)
        return connect_failed(nullptr, "handshake fail", "do handshake fail\n");
    sec_websocket_accept(ws->sec_ws_key, ws->sec_ws_accept);
    u.accept = ws->sec_ws_accept;
    u.offered = o.protocols;
    c.request_length = static_cast<std::size_t>(length);
    c.upgrade = &u;
    return kNext;
}

connect_outcome prepare_connect(ws_record* ws, const standard_options& o, connect_state& c, ws_upgrade& u,
                                std::span<char> text) {
    ws_url_parts parts{};
    uint16_t port = 0;
    connect_outcome outcome = split_target(ws, text, parts, port);
    if (outcome.what != connect_outcome::failed)
        outcome = blocking_address(ws, parts, port, c);
    return outcome.what != connect_outcome::failed ? make_request(ws, o, parts, port, c, u) : outcome;
}

// The connection's state beside the record; null when out of memory.
std_conn* make_conn(const ws_record& ws, const standard_options& o, std::span<const char> leftover) {
    auto* c = static_cast<std_conn*>(std::calloc(1, sizeof(std_conn)));
    auto* pending = leftover.empty() ? nullptr : static_cast<uint8_t*>(std::malloc(leftover.size()));
    if (pending != nullptr)  // before conn_open: a set-up's entry, which holds them, goes there
        std::memcpy(pending, leftover.data(), leftover.size());
    const uint64_t serial = c != nullptr && (leftover.empty() || pending != nullptr) ? conn_open(ws.sockfd) : 0;
    conn_entry* entry = conn_find(ws.sockfd, serial);
    if (entry == nullptr) {
        std::free(c);
        std::free(pending);
        return nullptr;
    }
    entry->phase = connect_phase::open;
    entry->session = c;
    entry->release = release_conn;
    entry->ending = tell_ending;
    ws_session_init(c->session, static_cast<std::size_t>(std::min(o.max_message, static_cast<double>(SIZE_MAX / 2))));
    c->fd = ws.sockfd;
    c->serial = serial;
    c->secure = ws.is_secure == 1;
    c->tls = ws.ssl;
    c->tls_serial = ws.tls_serial;
    // the options are numbers up to 2^53: bounded to what the fields hold
    static constexpr double most_bytes = static_cast<double>(SIZE_MAX / 2), most_ms = 1e15;
    const auto ms = [](double seconds) { return static_cast<int64_t>(std::min(seconds * 1000, most_ms)); };
    c->max_queue = static_cast<std::size_t>(std::min(o.max_queue, most_bytes));
    c->close_ms = ms(o.close_timeout);
    c->ping_ms = ms(o.ping_interval);
    c->pong_ms = ms(o.pong_timeout);
    c->heard_at = monotonic_ms();
    c->code = CLOSE_ABNORMAL;
    c->pending = pending;
    c->pending_size = leftover.size();
    return c;
}

// The frames that came with the upgrade answer, delivered from the loop only,
// before anything read after them: inside a blocking ws_connect the script
// does not hold its object yet, and an on_message that answers needs it.
// The connection, or null once it went.
std_conn* deliver_pending(lua_State* L, std_conn* c) {
    if (c->pending == nullptr)
        return c;
    c->in_receive = true;
    if ((c = consume(L, c, c->pending, c->pending_size)) != nullptr) {
        std::free(c->pending);
        c->pending = nullptr;
        c->in_receive = false;
    }
    return c;
}

// After on_open inside ws_connect: the first deadlines (the frames that came
// with the answer are due at once).
void schedule_after_open(int32_t fd, uint64_t serial) {
    if (const std_conn* c = still(fd, serial))
        schedule(*c);
}

// After on_open from the loop, where the script holds its object: the
// frames that came with the answer at once, then the first deadlines.
void deliver_after_open(lua_State* L, int32_t fd, uint64_t serial) {
    std_conn* c = still(fd, serial);
    if (c != nullptr && (c = deliver_pending(L, c)) != nullptr)
        schedule(*c);
}

// The tail of a connect that opened: as the designed one, with on_open(protocol)
// and the frames that came with the answer delivered by the loop after it.
int standard_opened(lua_State* L, ws_record* ws, const standard_options& o, std::string_view protocol,
                    std::span<const char> leftover) {
    const int32_t fd = ws->sockfd;
    if (!ws_enter_table(L, ws))
        return 1;
    std_conn* c = make_conn(*ws, o, leftover);
    if (c == nullptr || set_nonblocking(fd) == -1) {
        sock_rem(fd);
        errno = c == nullptr ? ENOMEM : errno;
        report_and_close(L, fd, std::strerror(errno), nullptr, [&](const char* text) { ws_do_close(L, ws, text); });
        return 0;
    }
    const uint64_t serial = c->serial;
    push_record_copy(L, *ws, METATABLE_WS);
    registry_store_top(L, udata_key(fd));
    open_callback_protocol(L, fd, protocol.data(), protocol.size());
    ws->status = WS_STATUS_OPEN;
    schedule_after_open(fd, serial);
    push_record_copy(L, *ws, METATABLE_WS);
    return 1;
}

// ---- connecting from the loop (nonblocking = true) ----

// What a loop-driven set-up needs until it opens, as fd's entry session: the
// options (the request's protocols among them) and the answer's check.
struct std_setup {
    standard_options options;
    ws_upgrade upgrade;
    char accept[TEXT_FIELD_SIZE];
};

void release_setup(void* setup) { std::free(setup); }

constexpr setup_texts kLoopTexts{"domain name resolution fail, get server ip fail!"};

// The URL, the TLS context and the request; the name's resolution started.
connect_outcome prepare_loop_connect(ws_record* ws, loop_conn& conn, conn_entry& entry, std_setup& s) {
    char text[ws_url_text_size(TEXT_FIELD_SIZE)];
    ws_url_parts parts{};
    uint16_t port = 0;
    connect_outcome outcome = split_target(ws, text, parts, port);
    if (outcome.what != connect_outcome::failed)
        outcome = make_request(ws, s.options, parts, port, conn.setup, s.upgrade);
    if (outcome.what == connect_outcome::failed)
        return outcome;
    // the record may be copied before the answer comes: the value is the set-up's
    std::memcpy(s.accept, ws->sec_ws_accept, sizeof s.accept);
    s.upgrade.accept = s.accept;
    errno = ENOMEM;
    if (!setup_begin(conn, entry, parts.host, port, static_cast<int64_t>(ws->timeout) * 1000, &kLoopTexts))
        return connect_failed(nullptr, nullptr);
    return kNext;
}

// The designed closed test: the record, its registration, its connection.
bool record_closed(lua_State* L, ws_record* ws, std_conn** c) {
    tls_settle_stale_copy(*ws);
    const sock_header* registered = push_registered(L, ws->sockfd);
    lua_pop(L, 1);
    *c = conn_of(ws->sockfd);
    if (ws->status != -1 && registered != nullptr && registered->status != WS_STATUS_CLOSED && *c != nullptr)
        return false;
    closed_socket_callback(L, ws->sockfd, ws->status == WS_STATUS_CREATED, registered == nullptr);
    return true;
}

}  // namespace

int ws_standard_connect(lua_State* L, ws_record* ws, const standard_options& o) {
    ws->status = WS_STATUS_CONNECTING;
    connect_state c{};
    ws_upgrade u{};
    char text[ws_url_text_size(TEXT_FIELD_SIZE)];
    connect_outcome outcome = prepare_connect(ws, o, c, u, text);
    if (outcome.what != connect_outcome::failed)
        outcome = connect_blocking(c);
    if (outcome.what != connect_outcome::opened) {
        connect_release(c);
        ws_report_failed_connect(L, ws, outcome);
        return 0;
    }
    // the bytes after the answer are copied into the connection before any callback
    const int results = standard_opened(L, ws, o, u.chosen, connect_leftover(c));
    connect_release(c);
    return results;
}

int ws_standard_connect_loop(lua_State* L, ws_record* ws, const standard_options& o) {
    ws->status = WS_STATUS_CONNECTING;
    loop_conn* conn = loop_conn_attach(ws->sockfd);
    auto* setup = conn != nullptr ? static_cast<std_setup*>(std::calloc(1, sizeof(std_setup))) : nullptr;
    if (setup == nullptr) {
        conn_drop(ws->sockfd);
        errno = ENOMEM;
        ws_report_failed_connect(L, ws, connect_failed(nullptr, nullptr));
        return 0;
    }
    conn_entry* entry = conn_at(ws->sockfd);
    entry->session = setup;
    entry->release = release_setup;
    ws->guard.loop_serial = entry->serial;
    setup->options = o;
    const connect_outcome prepared = prepare_loop_connect(ws, *conn, *entry, *setup);
    if (prepared.what == connect_outcome::failed)
        setup_fail_later(*conn, *entry, prepared);
    push_record_copy(L, *ws, METATABLE_WS);  // the registered record stays the loop's
    return 1;
}

bool ws_standard_loop_opened(lua_State* L, ws_record* ws, const connect_state& setup) {
    const int32_t fd = ws->sockfd;
    conn_entry* entry = conn_at(fd);
    if (entry == nullptr || entry->release != release_setup)
        return false;
    // the set-up's entry, answer and all, goes when the connection's is made
    const auto& s = *static_cast<const std_setup*>(entry->session);
    const standard_options o = s.options;
    char protocol[sizeof o.protocols];
    const std::size_t protocol_size = std::min(s.upgrade.chosen.size(), sizeof protocol);
    if (protocol_size != 0)  // none chosen: no data pointer at all
        std::memcpy(protocol, s.upgrade.chosen.data(), protocol_size);
    if (sock_add(fd) == -1) {
        error_callback(L, fd, errno, "socktbl is full now!");
        ws_do_close(L, ws, "socktbl is full now!");
        return true;
    }
    const std_conn* c = make_conn(*ws, o, connect_leftover(setup));
    if (c == nullptr) {
        errno = ENOMEM;
        report_and_close(L, fd, std::strerror(errno), nullptr, [&](const char* text) { ws_do_close(L, ws, text); });
        return true;
    }
    ws->status = WS_STATUS_OPEN;  // the registered record: a close from on_open leaves the table
    const uint64_t serial = c->serial;
    open_callback_protocol(L, fd, protocol, protocol_size);
    deliver_after_open(L, fd, serial);
    return true;
}

bool ws_standard_setting_up(int32_t fd) {
    const conn_entry* entry = conn_at(fd);
    return entry != nullptr && entry->release == release_setup;
}

bool ws_standard_at(int32_t fd) { return conn_of(fd) != nullptr; }

int ws_standard_receive(lua_State* L, int32_t fd, int* error) {
    std_conn* c = conn_of(fd);
    if (c == nullptr || c->in_receive) {
        *error = EAGAIN;  // a nested loop: the outer call reads on
        return -1;
    }
    if ((c = deliver_pending(L, c)) == nullptr)
        return 1;
    for (int reads = 0; reads < READS_PER_PASS && c != nullptr; ++reads) {
        tls_session* tls = c->secure && tls_live(c->tls_serial) ? c->tls : nullptr;
        errno = c->secure && tls == nullptr ? EBADF : 0;
        // the rest of a large frame goes straight into the session's store: no copy
        std::span<uint8_t> into = ws_session_direct(c->session);
        if (into.size() < DIRECT_LEAST)
            into = {c->input, sizeof c->input};
        const long n = errno == 0 ? stream_read(fd, tls, into.data(), into.size()) : -1;
        if (n == -1 && errno == EINTR)
            continue;
        if (n == -1 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        if (n <= 0) {
            stream_ended(L, *c);
            return 1;
        }
        c->heard_at = monotonic_ms();
        c->ping_at = 0;
        c->in_receive = true;
        if ((c = consume(L, c, into.data(), static_cast<std::size_t>(n))) == nullptr)
            return 1;
        c->in_receive = false;
        if (static_cast<std::size_t>(n) < into.size() && (tls == nullptr || tls_pending(tls) == 0))
            break;  // drained
    }
    if (c != nullptr && flush(*c) == -1)
        fail_with(L, fd, nullptr);
    else if (c != nullptr)
        schedule(*c);
    return 1;
}

int ws_standard_step(lua_State* L, int32_t fd) {
    std_conn* c = conn_of(fd);
    if (c == nullptr || c->in_receive)
        return 0;
    if (c->pending != nullptr) {
        deliver_after_open(L, fd, c->serial);
        return 0;
    }
    int error = 0;
    if (tls_holds_bytes(*c))  // left by a receive that gave the other sockets their turn
        return ws_standard_receive(L, fd, &error), 0;
    if (flush(*c) == -1) {
        fail_with(L, fd, nullptr);
        return 0;
    }
    const int64_t now = monotonic_ms();
    if (c->close_until != 0 && (now >= c->close_until || (!c->close_asked && queued(*c) == 0))) {
        close_quietly(L, fd, c->close_asked ? "User do close" : "closed by server");
        return 0;
    }
    if (c->pong_ms > 0 && c->ping_at != 0 && now >= c->ping_at + c->pong_ms) {
        errno = ETIMEDOUT;
        fail_with(L, fd, "pong timeout");
        return 0;
    }
    if (c->ping_ms > 0 && c->ping_at == 0 && c->close_until == 0 && now >= c->heard_at + c->ping_ms) {
        const ws_framed ping = ws_session_frame(c->session, ws_opcode::PING, {});
        if (ping.error == ws_send_error::none && submit(*c, ping.frame) == -1) {
            fail_with(L, fd, nullptr);
            return 0;
        }
        c->ping_at = now;
    }
    schedule(*c);
    return 0;
}

int ws_standard_send(lua_State* L, ws_record* ws) {
    std::size_t length = 0;
    const char* data = lua_tolstring(L, 2, &length);  // numbers are converted
    luaL_argcheck(L, data != nullptr, 2, "string expected");
    static const char* const kinds[] = {"text", "binary", "ping", nullptr};
    const int kind = luaL_checkoption(L, 3, "text", kinds);
    luaL_argcheck(L, kind != 2 || length <= WS_CONTROL_MAX, 2, "ping payload longer than 125 bytes");
    if (ws_standard_setting_up(ws->sockfd)) {  // as any loop-driven set-up: nothing sent
        errno = ENOTCONN;
        error_callback(L, ws->sockfd, errno, "connection is being set up");
        lua_pushinteger(L, 0);
        return 1;
    }
    std_conn* c = nullptr;
    if (record_closed(L, ws, &c)) {
        lua_pushinteger(L, -1);
        return 1;
    }
    if (queued(*c) != 0 && queued(*c) + frame_size(length) > c->max_queue) {
        errno = ENOBUFS;
        error_callback(L, c->fd, errno, "send queue full");
        lua_pushinteger(L, 0);
        return 1;
    }
    constexpr uint8_t opcodes[] = {ws_opcode::TEXT, ws_opcode::BINARY, ws_opcode::PING};
    const ws_framed framed = ws_session_frame(c->session, opcodes[kind], {reinterpret_cast<const uint8_t*>(data), length});
    if (framed.error != ws_send_error::none) {
        if (framed.error != ws_send_error::after_close)  // after ws_close: refused quietly
            error_callback(L, c->fd, errno = ENOMEM, std::strerror(ENOMEM));
        lua_pushinteger(L, -1);
        return 1;
    }
    if (submit(*c, framed.frame) == -1) {
        fail_with(L, c->fd, nullptr);
        lua_pushinteger(L, -1);
        return 1;
    }
    if (kind == 2 && c->pong_ms > 0 && c->ping_at == 0)
        c->ping_at = monotonic_ms();
    schedule(*c);
    lua_pushinteger(L, static_cast<lua_Integer>(length));
    return 1;
}

void ws_standard_close(lua_State* L, ws_record* ws) {
    const lua_Integer code = luaL_optinteger(L, 2, WS_CLOSE_NORMAL);
    std::size_t length = 0;
    const char* reason = luaL_optlstring(L, 3, "", &length);
    utf8_state text = UTF8_START;
    luaL_argcheck(L, code >= 0 && code <= 0xffff && ws_close_code_valid(static_cast<uint16_t>(code)), 2,
                  "close code 1000-1003, 1007-1014 or 3000-4999 expected");
    luaL_argcheck(L, length <= WS_CONTROL_MAX - 2 && utf8_feed(text, reinterpret_cast<const uint8_t*>(reason), length) &&
                         utf8_complete(text), 3, "UTF-8 of at most 123 bytes expected");
    std_conn* c = nullptr;
    if (record_closed(L, ws, &c))
        return;
    // a second ws_close, or one while the server's close is answered: at once
    if (c->close_asked || c->peer_closed) {
        close_quietly(L, c->fd, "User do close");
        return;
    }
    const ws_framed framed =
        ws_session_close_frame(c->session, static_cast<uint16_t>(code), {reinterpret_cast<const uint8_t*>(reason), length});
    if (framed.error != ws_send_error::none || submit(*c, framed.frame) == -1) {
        fail_with(L, c->fd, nullptr);
        return;
    }
    if (c->close_ms == 0) {  // no wait for the answer
        close_quietly(L, c->fd, "User do close");
        return;
    }
    c->close_asked = true;
    c->close_until = monotonic_ms() + c->close_ms;
    schedule(*c);
}
