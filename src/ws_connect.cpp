// WebSocket client: create, connect, send, receive, close.
#include "ws_connect.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "callbacks.h"
#include "conn_table.h"
#include "connect_machine.h"
#include "fdset.h"
#include "loop_conn.h"
#include "net.h"
#include "socket_table.h"
#include "tls_owner.h"
#include "tools.h"
#include "transport.h"
#include "ws_url.h"

#define LOG_UNIT "ws_connect"

namespace {

// on_close needs the options table registered for the descriptor. A record
// closed before has descriptor -1, for which none is registered: its close
// is not reported instead of raising an indexing error.
bool can_report_close(lua_State* L, int32_t fd) { return fd >= 0 && has_options_table(L, fd); }

// The closed test shared by the send path and the close frame: a record
// marked -1, a registered record that is missing or closed, or a secure
// connection whose session is gone.
bool is_closed(const ws_record& ws, const sock_header* registered) {
    tls_session* tls = nullptr;
    return ws.status == -1 || registered == nullptr || registered->status == WS_STATUS_CLOSED ||
           !record_stream(ws, &tls);
}

// The record's stream; false (errno EBADF) for a secure record whose
// session is gone.
bool stream_of(const ws_record& ws, tls_session** tls) {
    if (record_stream(ws, tls))
        return true;
    errno = EBADF;
    return false;
}

// One write of `size` bytes.
long write_once(const ws_record& ws, const uint8_t* bytes, uint32_t size) {
    tls_session* tls = nullptr;
    return stream_of(ws, &tls) ? stream_write(ws.sockfd, tls, bytes, size) : -1;
}

// One read of at most `room` bytes into `buffer` at `at` (grown to what
// comes); an empty room reads as the end of the stream without a call. A TLS
// read starts from errno 0: a TLS failure that is no system call's must not
// leave a stale EINTR/EAGAIN for the loop to retry on.
long read_once(const ws_record& ws, heap_buffer& buffer, std::size_t at, std::size_t room) {
    if (room == 0)
        return 0;
    tls_session* tls = nullptr;
    if (!stream_of(ws, &tls))
        return -1;
    if (tls != nullptr)
        errno = 0;
    return stream_read_grow(ws.sockfd, tls, buffer, at, room);
}

// Empty control frame (pong or close) answered once, result unchecked.
void send_empty_frame(const ws_record& ws, FrameType type) {
    uint8_t frame[WS_MAX_FRAME_HEADER];
    const uint32_t size = wsMakeFrameHeader(nullptr, 0, frame, type);
    write_once(ws, frame, size);
}

// ---- send ----

// The frame being sent: taken when first needed, kept while small.
heap_buffer send_frame{};

void trace_frame(const uint8_t* frame, uint32_t size) {
    if (!debug_log_enabled())
        return;
    for (uint32_t i = 0; i < size && i < 10; ++i)
        WS_LOG("buf[%d] is %2x\n", static_cast<int>(i), frame[i]);
    for (uint32_t i = size > 10 ? size - 10 : size; i < size; ++i)
        WS_LOG("buf[%d] is %2x\n", static_cast<int>(i), frame[i]);
}

// The masked text frame in send_frame; null (errno ENOMEM) without memory.
const uint8_t* build_frame(const char* data, std::size_t length, uint32_t* framesize) {
    const auto* payload = reinterpret_cast<const uint8_t*>(data);
    const auto payload_length = static_cast<uint32_t>(length);
    WS_LOG_AS("ws_send", "data length is %u\n", payload_length);
    if (!heap_grow(send_frame, WS_MAX_FRAME_HEADER + length))
        return nullptr;
    uint8_t* const frame = send_frame.bytes;
    const uint32_t header = wsMakeFrameHeader(payload, payload_length, frame, WS_TEXT_FRAME);
    wsMaskPayload(frame + header, payload, payload_length, frame + header - WS_MASK_KEY_SIZE);
    *framesize = header + payload_length;
    WS_LOG_AS("ws_send", "frame size is %u, header %u\n", *framesize, header);
    trace_frame(frame, *framesize);
    return frame;
}

// ---- receive ----

// on_message may run a loop of its own, whose receive path must not touch the
// frames the outer call has yet to walk: one frame buffer per nesting level.
// Each reads as WS_FRAME_CAPACITY bytes and a zero byte that is never
// overwritten, so string scans end inside it; only what the reads need is
// held (the rest reads as zeros), and a buffer grown past HEAP_KEEP is given
// back when its call ends. Bytes from `extent` on are zero; a call clears
// only what the previous one wrote.
constexpr int RECEIVE_LEVELS = 8;

struct frame_buffer {
    heap_buffer held;
    uint32_t extent;
};
frame_buffer frame_buffers[RECEIVE_LEVELS];
int receive_depth = 0;

// heap_claim / heap_done on a frame buffer; one given back reads as zeros.
void hand_over(frame_buffer& buffer, int32_t fd, void (*step)(heap_buffer&, int)) {
    step(buffer.held, fd);
    if (buffer.held.bytes == nullptr)
        buffer.extent = 0;
}

// One receive call: what the loop passed in, and where the walk stands.
struct frame_walk {
    ws_record* ws;
    int32_t fd;
    int* err;
    frame_buffer* buffer;
    int result;
    int32_t nread;
    uint32_t total_len;
    uint32_t offset_len;
    uint32_t datasize;
    uint32_t headerLength;
    uint8_t* data;
    FrameType type;
};

void note_written(frame_buffer& buffer, std::size_t end) {
    buffer.extent = std::max(buffer.extent, static_cast<uint32_t>(end));
}

uint8_t* bytes_of(const frame_walk& w) { return w.buffer->held.bytes; }

// on_message(text, nil, -1): the payload up to datasize bytes or its first
// zero byte. The byte after it is zeroed for the call and put back, so
// the frames after it read as they came.
void deliver_text(lua_State* L, int32_t fd, uint8_t* data, uint32_t datasize) {
    const uint8_t kept = data[datasize];
    data[datasize] = 0;
    WS_LOG("Will callback to receive callback data: %s\n", reinterpret_cast<char*>(data));
    receive_callback(L, fd, reinterpret_cast<char*>(data), nullptr, -1);
    data[datasize] = kept;
}

// The steps of walk_frames log as walk_frames.

// A read at the end of what the walk holds. Bytes up to the first zero go
// first: an earlier read's tail is overwritten.
void read_frames(frame_walk& w) {
    heap_buffer& held = w.buffer->held;
    if (held.bytes != nullptr)
        std::memset(held.bytes, 0, strnlen(reinterpret_cast<char*>(held.bytes), held.capacity));
    WS_LOG_AS("walk_frames", w.ws->is_secure == 1 ? "recv with ssl\n" : "recv without ssl\n");
    w.nread = static_cast<int32_t>(read_once(*w.ws, held, w.total_len, WS_FRAME_CAPACITY - w.total_len));
    *w.err = errno;
    if (w.nread > 0)
        note_written(*w.buffer, w.total_len + static_cast<std::size_t>(w.nread));
}

// The frame at offset_len, parsed as if total_len bytes followed it but never
// past the buffer: a header cut there cannot be completed. False when the
// walk ends here.
bool parse_frame(frame_walk& w) {
    if (w.offset_len >= WS_FRAME_CAPACITY)
        return false;
    const uint32_t available = std::min(w.total_len, WS_FRAME_CAPACITY - w.offset_len);
    // the header's bytes are held (zeros where nothing was read)
    if (!heap_grow(w.buffer->held, w.offset_len + std::min<uint32_t>(available, WS_MAX_FRAME_HEADER))) {
        w.nread = -1;
        *w.err = errno;
        return false;
    }
    w.headerLength = 0;
    w.type = wsParseInputFrame(bytes_of(w) + w.offset_len, available, &w.data, &w.datasize, &w.headerLength);
    if (w.type == WS_INCOMPLETE_FRAME && available < w.total_len) {
        WS_LOG_AS("walk_frames", "frame header cut at the end of the buffer\n");
        return false;
    }
    return true;
}

// A text is complete once its string length reaches datasize; a zero byte
// inside it is overwritten by the next read. 1 when complete, otherwise the
// walk's result (-1 failed, 0 end of stream).
int complete_text(frame_walk& w) {
    const std::size_t data_at = static_cast<std::size_t>(w.data - bytes_of(w));  // reads may move the buffer
    uint32_t have = static_cast<uint32_t>(strnlen(reinterpret_cast<char*>(w.data), w.datasize));
    while (have < w.datasize) {
        WS_LOG_AS("walk_frames", "Errno: %d, Error str: %s\n", errno, std::strerror(errno));
        const std::size_t at = data_at + have;
        const long got = read_once(*w.ws, w.buffer->held, at, WS_FRAME_CAPACITY - at);
        w.data = bytes_of(w) + data_at;
        w.nread = static_cast<int32_t>(got);
        if (got == -1 && errno != EINTR && errno != EAGAIN) {
            *w.err = errno;
            return -1;
        }
        if (got == -1 && errno == EAGAIN && conn_loop_state(w.fd) != nullptr)
            select_single(w.fd, wait_for::read, nullptr);  // the rest of the frame, as designed: waited for
        if (got == 0) {
            *w.err = errno;
            return 0;
        }
        if (got > 0) {
            note_written(*w.buffer, at + static_cast<std::size_t>(got));
            have += static_cast<uint32_t>(strnlen(reinterpret_cast<char*>(bytes_of(w) + at), w.datasize - have));
        }
    }
    return 1;
}

// Hands a text to on_message; true when the walk goes on with the next frame.
bool text_delivered_go_on(lua_State* L, frame_walk& w) {
    WS_LOG_AS("walk_frames", "Type; WS_TEXT_FRAME\n");
    deliver_text(L, w.fd, w.data, w.datasize);
    if (w.ws->status == WS_STATUS_CLOSED) {
        // on_message closed this connection: what is left of the read
        // belongs to nobody, and the descriptor may be reused already
        WS_LOG_AS("walk_frames", "closed from on_message, rest of the read dropped\n");
        return false;
    }
    if (w.offset_len >= static_cast<uint32_t>(w.nread))
        return false;
    WS_LOG_AS("walk_frames", "\n\n\nincomplete fram, receive continue!\n\n\n");
    w.type = WS_INCOMPLETE_FRAME;
    return true;
}

// An empty pong: the ping's payload is not echoed.
void answer_ping(frame_walk& w) {
    WS_LOG_AS("walk_frames", "Type: WS_PING_FRAME\n");
    uint8_t reply[WS_MAX_FRAME_HEADER];
    w.datasize = wsMakeFrameHeader(nullptr, 0, reply, WS_PONG_FRAME);
    WS_LOG_AS("walk_frames", "PONG datasize is %zu\n", static_cast<std::size_t>(w.datasize));
    if (w.ws->is_secure != 1)
        WS_LOG_AS("walk_frames", "Will send PONG\n");
    write_once(*w.ws, reply, w.datasize);
}

int walk_frames(lua_State* L, frame_walk& w) {
    if (w.buffer->held.bytes != nullptr)
        std::memset(w.buffer->held.bytes, 0, w.buffer->extent);  // every call starts on a zeroed buffer
    w.buffer->extent = 0;
    for (;;) {
        if (w.offset_len == 0)
            read_frames(w);
        if (w.nread == -1 || w.nread == 0) {
            WS_LOG("Recv tcp fram is empty\n");
            return w.nread;
        }
        w.total_len += static_cast<uint32_t>(w.nread);  // also on passes without a read: counted again
        if (!parse_frame(w))
            break;
        if (w.type == WS_TEXT_FRAME) {
            const int complete = complete_text(w);
            if (complete != 1)
                return complete;
        }
        w.offset_len += w.datasize + w.headerLength;
        WS_LOG("offset_len is %zu, receive data is %s, data type is %x\n", static_cast<std::size_t>(w.offset_len),
               w.data != nullptr ? reinterpret_cast<char*>(w.data) : "", static_cast<unsigned>(w.type));
        if (w.type == WS_TEXT_FRAME) {
            if (text_delivered_go_on(L, w))
                continue;
            break;
        }
        if (w.type == WS_PING_FRAME) {
            answer_ping(w);
            break;  // frames after the ping are dropped
        }
        if (w.type == WS_CLOSING_FRAME) {
            WS_LOG("Type: WS_CLOSING_FRAME\n");
            WS_LOG("Will send close\n");
            send_empty_frame(*w.ws, WS_CLOSING_FRAME);
            return 0;
        }
        if (w.type == WS_INCOMPLETE_FRAME) {
            WS_LOG("Type: WS_INCOMPLETE_FRAME\n");
            continue;
        }
        WS_LOG("Type: None default\n");  // binary, pong, malformed: dropped
        break;
    }
    WS_LOG("<<<<<<<< received <<<<<<<<<\n");
    return w.nread;
}

// The walk's own frame: the record's object (argument 1) stays on its stack
// for the whole walk; the call is argument 2.
int walk_frames_protected(lua_State* L) {
    auto& walk = *static_cast<frame_walk*>(lua_touserdata(L, 2));
    walk.result = walk_frames(L, walk);
    return 0;
}

// Its address names the registry slot of the walk's cached closure.
char walker_key;

void push_walker(lua_State* L) {
    lua_pushlightuserdata(L, &walker_key);
    lua_rawget(L, LUA_REGISTRYINDEX);
    if (lua_type(L, -1) == LUA_TFUNCTION)
        return;
    lua_pop(L, 1);
    lua_pushcfunction(L, walk_frames_protected);
    lua_pushlightuserdata(L, &walker_key);
    lua_pushvalue(L, -2);
    lua_rawset(L, LUA_REGISTRYINDEX);
}

// ---- connect ----

constexpr connect_texts kTexts{"ssl connect fail!", "ssl_connect_fail"};

// The connect's set-up before any phase: URL check, TLS context for wss,
// host and path, name resolution, the address.
connect_outcome prepare_connect(ws_record* ws, connect_state& c) {
    ws->is_secure = is_secure(ws->url);
    if (ws->is_secure == -1)
        return connect_failed("wrong websocket url!", "wrong websocket url!", "Error: Wrong websocket url\n");
    ws->status = WS_STATUS_CONNECTING;
    if (ws->is_secure == 1 && wss_ssl_init(ws) == -1)
        return connect_failed("ssl init fail!", "ssl init fail", nullptr, "ssl init fail\n");
    char url[TEXT_FIELD_SIZE];
    std::memcpy(url, ws->url, sizeof url);
    url[sizeof url - 1] = '\0';
    const int split = get_host_path(url, c.host, c.path);
    WS_LOG_AS("do_new_connect", "URL is %s, Get host: %s, path: %s\n", ws->url, c.host, c.path);
    if (split == -1)
        return connect_failed("wrong websocket url!", "wrong websocket url!", "Error: Wrong websocket url\n");
    char server_ip[16] = {};
    if (get_ip(c.host, server_ip) == nullptr)
        return connect_failed("domain name resolution fail, get server ip fail!",
                              "domain name resolution fail, get server ip fail!", "Get server_ip: \n", "return -1\n");
    WS_LOG_AS("do_new_connect", "Get server_ip: %s\n", server_ip);
    c.address.sin_family = AF_INET;
    c.address.sin_port = htons(static_cast<uint16_t>(ws->port & 0xffff));
    c.address.sin_addr.s_addr = inet_addr(server_ip);
    c.fd = ws->sockfd;
    c.timeout = ws->timeout;
    c.ws = ws;
    c.texts = &kTexts;
    return {connect_outcome::next, wait_for::read, 0, nullptr, nullptr, nullptr, nullptr};
}

}  // namespace

// The one report of a failed connect: on_error, the close, and the lines
// logged around them.
int ws_report_failed_connect(lua_State* L, ws_record* ws, const connect_outcome& failure) {
    if (failure.log_before != nullptr)
        WS_LOG_AS("do_new_connect", "%s", failure.log_before);
    errno = failure.error;
    const char* message = failure.message != nullptr ? failure.message : std::strerror(errno);
    report_and_close(L, ws->sockfd, message, failure.reason, [&](const char* text) { ws_do_close(L, ws, text); });
    if (failure.log_after != nullptr)
        WS_LOG_AS("do_new_connect", "%s", failure.log_after);
    return -1;
}

namespace {

// ---- loop-driven connections (nonblocking) ----

constexpr setup_texts kLoopTexts{"domain name resolution fail, get server ip fail!"};
constexpr std::size_t kDefaultMaxQueue = WS_FRAME_CAPACITY;

// The loop-driven state of the connection `ws` belongs to; null for a
// designed connection, or a copy whose descriptor went to another one.
loop_conn* loop_state(const ws_record& ws) {
    return ws.sockfd >= 0 && conn_find(ws.sockfd, ws.guard.loop_serial) != nullptr
               ? static_cast<loop_conn*>(conn_loop_state(ws.sockfd))
               : nullptr;
}

// The registered record a loop-driven connection is served through (the
// script's copy was taken before it opened); pushed, so that it stays
// alive on this stack. `ws` itself for any other record.
ws_record* served_record(lua_State* L, ws_record* ws) {
    if (loop_state(*ws) == nullptr)
        return ws;
    int32_t kind = -1;
    void* registered = registered_record(L, ws->sockfd, &kind);
    return registered != nullptr && kind == SOCK_TYPE_WS ? static_cast<ws_record*>(registered) : ws;
}

// The URL, the TLS context and the name's resolution: on_error and the
// close come from the loop when one fails.
connect_outcome prepare_loop_connect(ws_record* ws, loop_conn& conn, conn_entry& entry) {
    connect_state& c = conn.setup;
    c.fd = ws->sockfd;
    c.ws = ws;
    c.texts = &kTexts;
    ws->is_secure = is_secure(ws->url);
    if (ws->is_secure == -1)
        return connect_failed("wrong websocket url!", "wrong websocket url!", "Error: Wrong websocket url\n");
    if (ws->is_secure == 1 && wss_ssl_init(ws) == -1)
        return connect_failed("ssl init fail!", "ssl init fail", nullptr, "ssl init fail\n");
    char text[ws_url_text_size(TEXT_FIELD_SIZE)];
    ws_url_parts parts{};
    if (ws_url_split(ws->url, text, parts) != nullptr || std::strlen(parts.host_header) >= sizeof c.host ||
        std::strlen(parts.target) >= sizeof c.path)
        return connect_failed("wrong websocket url!", "wrong websocket url!", "Error: Wrong websocket url\n");
    std::memcpy(c.host, parts.host_header, std::strlen(parts.host_header) + 1);
    std::memcpy(c.path, parts.target, std::strlen(parts.target) + 1);
    // a port written in the URL wins; else the `port` key, as designed
    const bool url_port = std::strchr(parts.host_header, ']') != nullptr
                              ? std::strstr(parts.host_header, "]:") != nullptr
                              : std::strchr(parts.host_header, ':') != nullptr;
    const uint16_t port = url_port ? parts.port : static_cast<uint16_t>(ws->port & 0xffff);
    WS_LOG_AS("do_new_connect", "URL is %s, Get host: %s, path: %s\n", ws->url, parts.host, c.path);
    errno = ENOMEM;
    if (!setup_begin(conn, entry, parts.host, port, static_cast<int64_t>(ws->timeout) * 1000, &kLoopTexts))
        return connect_failed(nullptr, nullptr);
    return {connect_outcome::next, wait_for::read, 0, nullptr, nullptr, nullptr, nullptr};
}

// The tail of a set-up that opened, from the loop: the descriptor joins the
// socket table, the registered record is marked open (so that the loop's
// close takes it out of the table again), on_open.
void ws_loop_opened(lua_State* L, ws_record* ws) {
    const int32_t fd = ws->sockfd;
    if (sock_add(fd) == -1) {
        error_callback(L, fd, errno, "socktbl is full now!");
        ws_do_close(L, ws, "socktbl is full now!");
        return;
    }
    ws->status = WS_STATUS_OPEN;
    WS_LOG_IN("luacli", "ws_connect", "Will do on open\n");
    connect_callback(L, fd);
    WS_LOG_IN("luacli", "ws_connect", "Connect callback out\n");
}

// The open connection's part of the step: the dialect writes what its
// sends left queued.
int ws_open_step(lua_State* L, ws_record* ws, loop_conn& conn, conn_entry& entry) {
    tls_session* tls = nullptr;
    if (!stream_of(*ws, &tls) || loop_drain(conn, entry, ws->sockfd, tls) == -1) {
        const int32_t fd = ws->sockfd;
        report_and_close(L, fd, std::strerror(errno), std::strerror(errno),
                         [&](const char* text) { ws_do_close(L, ws, text); });
        return -1;
    }
    return 0;
}

// ws_send on a loop-driven connection: queued behind what waits, bounded by
// max_queue. Still being set up: nothing is sent (0, on_error).
int ws_send_queued(lua_State* L, ws_record* ws, loop_conn& conn, const uint8_t* frame, uint32_t size,
                   std::size_t length) {
    const int32_t fd = ws->sockfd;
    conn_entry* entry = conn_at(fd);
    tls_session* tls = nullptr;
    if (!stream_of(*ws, &tls))
        return -1;
    switch (loop_send(conn, *entry, fd, tls, frame, size)) {
    case queued_send::full:
        errno = ENOBUFS;
        error_callback(L, fd, errno, "send queue full");
        return 0;
    case queued_send::failed: {
        const int error = errno;
        report_and_close(L, fd, std::strerror(error), std::strerror(error),
                         [&](const char* text) { ws_do_close(L, ws, text); });
        return -1;
    }
    default:
        return static_cast<int>(length);
    }
}

}  // namespace

ws_record* ws_init(lua_State*, ws_record* ws, int) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd == -1) {
        WS_LOG("socket create fail!\n");
        return nullptr;
    }
    // 9 lies outside what F_SETFL changes on Linux: the socket stays blocking
    // and connect_timeout switches modes itself.
    const int flags = fcntl(fd, F_GETFL, 0);
    if (flags == -1 || fcntl(fd, F_SETFL, flags | 9) == -1)
        WS_LOG("fcntl error\n");
    ws->sockfd = fd;
    ws->status = WS_STATUS_CREATED;
    ws->is_secure = -1;
    ws->port = 0;
    ws->ssl = nullptr;
    ws->ssl_ctx = nullptr;
    ws->tls_serial = 0;
    return ws;
}

int do_new_connect(lua_State* L, ws_record* ws) {
    ws->status = WS_STATUS_CONNECTING;
    WS_LOG("Come in connect\n");
    connect_state c{};
    connect_outcome outcome = prepare_connect(ws, c);
    if (outcome.what != connect_outcome::failed)
        outcome = connect_blocking(c);
    connect_release(c);  // what followed the answer in its read is dropped, as designed
    return outcome.what == connect_outcome::opened ? 1 : ws_report_failed_connect(L, ws, outcome);
}

bool ws_enter_table(lua_State* L, const ws_record* ws) {
    const int32_t fd = ws->sockfd;
    if (sock_add(fd) != -1)
        return true;
    error_callback(L, fd, errno, "socktbl is full now!");
    close(fd);
    lua_pushnil(L);
    return false;
}

int ws_opened(lua_State* L, ws_record* ws) {
    const int32_t fd = ws->sockfd;
    if (!ws_enter_table(L, ws))
        return 1;
    // The loop and the receive path use this copy, taken while connecting.
    push_record_copy(L, *ws, METATABLE_WS);
    registry_store_top(L, udata_key(fd));
    WS_LOG_IN("luacli", "ws_connect", "Will do on open\n");  // the binding's lines, as they always read
    connect_callback(L, fd);
    ws->status = WS_STATUS_OPEN;
    WS_LOG_IN("luacli", "ws_connect", "Connect callback out\n");
    push_record_copy(L, *ws, METATABLE_WS);
    return 1;
}

// The connection's large buffers go back with it (a frame buffer still
// walked at its level when its walk ends).
static void release_buffers(int32_t fd) {
    for (int level = 0; level < RECEIVE_LEVELS; ++level) {
        heap_disown(frame_buffers[level].held, fd, level < receive_depth);
        if (frame_buffers[level].held.bytes == nullptr)
            frame_buffers[level].extent = 0;
    }
    heap_disown(send_frame, fd);
}

void ws_do_close(lua_State* L, ws_record* ws, const char* reason) {
    WS_LOG("will do ws_do_close\n");
    // A copy whose session went with another copy's close is closed already:
    // its descriptor is -1 from here on.
    tls_settle_stale_copy(*ws);
    if (tls_live(ws->tls_serial)) {
        WS_LOG("ssl_free -\n");
        WS_LOG("ssl_ctx_free -\n");
        tls_release_record(*ws);  // session, then context; no close-notify is sent
        WS_LOG("ssl_free +\n");
        WS_LOG("ssl_ctx_free +\n");
    }
    ws->ssl = nullptr;
    ws->ssl_ctx = nullptr;
    conn_ending end;
    const bool coded = conn_ended(ws->sockfd, &end);  // before the entry goes
    // other statuses leave the table alone, deliberately; a connection whose
    // session tells its end (standard mode) always leaves it, so its end
    // closes no other socket
    if (ws->status == WS_STATUS_OPEN || coded)
        sock_rem(ws->sockfd);
    if (ws->sockfd != -1) {
        conn_drop(ws->sockfd);  // the connection's state and buffers go with its descriptor
        release_buffers(ws->sockfd);
        if (close(ws->sockfd) == -1)
            WS_LOG("close %d: %s\n", ws->sockfd, std::strerror(errno));
        ws_udata_close(L, ws->sockfd);
    }
    // The caller keeps the object on its stack (callbacks.cpp).
    if (can_report_close(L, ws->sockfd) && coded)
        close_callback_coded(L, ws->sockfd, reason, end.code, end.peer_closed ? end.reason : nullptr, end.reason_size);
    else if (can_report_close(L, ws->sockfd))
        close_callback(L, ws->sockfd, reason);
    ws->sockfd = -1;
}

int ws_send(lua_State* L, ws_record* ws, const char* data, std::size_t length) {
    WS_LOG(">>> send <<<\n");
    ws = served_record(L, ws);
    tls_settle_stale_copy(*ws);
    const int32_t fd = ws->sockfd;
    loop_conn* conn = loop_state(*ws);
    if (conn != nullptr && conn_at(fd)->phase != connect_phase::open) {
        errno = ENOTCONN;
        error_callback(L, fd, errno, "connection is being set up");
        return 0;
    }
    const sock_header* registered = push_registered(L, fd);
    if (is_closed(*ws, registered)) {
        closed_socket_callback(L, fd, ws->status == WS_STATUS_CREATED, registered == nullptr);
        WS_LOG("ERROR: socket has been closed\n");
        return -1;
    }
    if (length > WS_MAX_TEXT_LENGTH) {
        WS_LOG("text of %zu bytes does not fit one frame\n", length);
        return -1;
    }

    timeval no_wait{0, 0};
    const int ready = conn != nullptr ? 1 : select_single(fd, wait_for::write, &no_wait);
    if (ready == -1) {
        const int error = errno;
        WS_LOG("Send select error %d: %s\n", error, std::strerror(error));
        report_and_close(L, fd, std::strerror(error), std::strerror(error),
                         [&](const char* text) { do_close(L, fd, text); });
        WS_LOG("<<<<<< Send fail -1 >>>>>>\n");
        WS_LOG("Main return -1\n");
        return -1;
    }
    if (ready == 0) {
        WS_LOG("Send select timeout return\n");
        error_callback(L, fd, errno, std::strerror(errno));  // errno is whatever came before: kept
        return 0;
    }

    uint32_t framesize = 0;
    heap_claim(send_frame, fd);
    const uint8_t* frame = build_frame(data, length, &framesize);
    if (conn != nullptr && frame != nullptr)
        return ws_send_queued(L, ws, *conn, frame, framesize, length);
    WS_LOG("will send buf\n");
    // once: a short write is not completed; a frame with no memory fails as a write would (ENOMEM)
    const long sent = frame != nullptr ? write_once(*ws, frame, framesize) : -1;
    WS_LOG("Send framsize is %zu\n", static_cast<std::size_t>(framesize));
    WS_LOG("Send len is %d\n", static_cast<int>(sent));
    if (sent == -1) {
        const int error = errno;
        WS_LOG("send fail return -1: %d -> %s\n", error, std::strerror(error));
        report_and_close(L, fd, std::strerror(error), std::strerror(error),
                         [&](const char* text) { do_close(L, fd, text); });
    }
    WS_LOG("<<<<<< Send success >>>>>>\n");
    return static_cast<int>(length);
}

void ws_send_close(lua_State* L, ws_record* ws) {
    tls_settle_stale_copy(*ws);
    const int32_t fd = ws->sockfd;
    const sock_header* registered = push_registered(L, fd);
    if (is_closed(*ws, registered)) {
        // a socket that never connected is closed quietly: ws_close must
        // still release its descriptor
        closed_socket_callback(L, fd, false, registered == nullptr);
        WS_LOG("ERROR: socket has been closed\n");
        return;
    }
    WS_LOG("Will send close\n");
    send_empty_frame(*ws, WS_CLOSING_FRAME);  // the server's answer is not awaited
}

int ws_recv(lua_State* L, int32_t fd, int* err) {
    get_udata_by_sockfd(L, fd);
    stackDump(L);
    ws_record* ws = check_ws_client(L, lua_gettop(L));
    WS_LOG("ws->sockfd %d\n", ws->sockfd);
    if (receive_depth >= RECEIVE_LEVELS) {
        WS_LOG("no receive buffer at depth %d\n", receive_depth);
        *err = ENOMEM;
        return -1;
    }
    // The walk runs in a protected call of its own, with the object moved
    // onto its stack: a raising callback lookup cannot leave the depth behind.
    frame_walk walk{ws, fd, err, &frame_buffers[receive_depth], 0, 0, 0, 0, 0, 0, nullptr, WS_INCOMPLETE_FRAME};
    push_walker(L);
    lua_insert(L, -2);
    lua_pushlightuserdata(L, &walk);
    const int depth = receive_depth++;
    frame_buffer& used = frame_buffers[depth];
    hand_over(used, fd, heap_claim);
    const int status = lua_pcall(L, 2, 0, 0);
    receive_depth = depth;
    hand_over(used, fd, heap_done);
    if (status != 0)
        lua_error(L);  // the lookup's error, passed on
    return walk.result;
}

// ---- loop-driven connections ----

int ws_connect_loop(lua_State* L, ws_record* ws) {
    ws->status = WS_STATUS_CONNECTING;
    WS_LOG("Come in connect\n");
    loop_conn* conn = loop_conn_attach(ws->sockfd);
    if (conn == nullptr) {
        errno = ENOMEM;
        ws_report_failed_connect(L, ws, connect_failed(nullptr, nullptr));
        return 0;
    }
    conn_entry* entry = conn_at(ws->sockfd);
    ws->guard.loop_serial = entry->serial;
    conn->max_queue = ws->guard.max_queue > 0 ? static_cast<std::size_t>(ws->guard.max_queue) : kDefaultMaxQueue;
    const connect_outcome prepared = prepare_loop_connect(ws, *conn, *entry);
    if (prepared.what == connect_outcome::failed)
        setup_fail_later(*conn, *entry, prepared);
    push_record_copy(L, *ws, METATABLE_WS);  // the registered record stays the loop's
    return 1;
}

int ws_step(lua_State* L, int32_t fd, ws_open_handler* take_over) {
    int32_t kind = -1;
    auto* ws = static_cast<ws_record*>(registered_record(L, fd, &kind));
    loop_conn* conn = ws != nullptr && kind == SOCK_TYPE_WS ? loop_state(*ws) : nullptr;
    if (conn == nullptr)
        return 0;
    conn_entry& entry = *conn_at(fd);
    if (entry.phase == connect_phase::open)
        return ws_open_step(L, ws, *conn, entry);
    conn->setup.ws = ws;  // the registered block, wherever it is now
    const connect_outcome outcome = setup_advance(*conn, entry, monotonic_ms());
    if (outcome.what == connect_outcome::failed)
        return ws_report_failed_connect(L, ws, outcome);
    if (outcome.what == connect_outcome::opened && !take_over(L, ws, conn->setup))
        ws_loop_opened(L, ws);
    return 0;
}

int ws_close_served(lua_State* L, ws_record* ws) {
    ws_record* served = served_record(L, ws);
    if (served == ws)
        return 0;
    const conn_entry* entry = conn_at(served->sockfd);
    if (entry != nullptr && entry->phase == connect_phase::open)
        ws_send_close(L, served);  // nothing goes out half-way through a set-up
    ws_do_close(L, served, "User do close");
    ws->sockfd = -1;
    ws->status = WS_STATUS_CLOSED;
    return 1;
}
