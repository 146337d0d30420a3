// WebSocket client: create, connect, send, receive, close.
#include "ws_connect.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "callbacks.h"
#include "handshake.h"
#include "luacli.h"
#include "tools.h"

#define LOG_UNIT "ws_connect"

namespace {

// The record's TLS session; null when it has none or another copy of the
// record released it.
SSL* session_of(const ws_record& ws) { return tls_session(ws); }

// on_close needs the options table registered for the descriptor. A record
// closed before has descriptor -1, for which none is registered: its close
// is not reported instead of raising an indexing error.
bool can_report_close(lua_State* L, int32_t fd) { return fd >= 0 && has_options_table(L, fd); }

// The record registered for fd (pushed and left on the stack), null when
// nothing usable is registered.
const sock_header* push_registered(lua_State* L, int32_t fd) {
    get_udata_by_sockfd(L, fd);
    if (lua_type(L, -1) != LUA_TUSERDATA || lua_api_rawlen(L, -1) < sizeof(sock_header))
        return nullptr;
    return static_cast<const sock_header*>(lua_touserdata(L, -1));
}

// The closed test shared by the send path and the close frame: a record
// marked -1, a registered record that is missing or closed, or a secure
// connection whose session is gone.
bool is_closed(const ws_record& ws, const sock_header* registered) {
    return ws.status == -1 || registered == nullptr || registered->status == WS_STATUS_CLOSED ||
           (ws.is_secure == 1 && session_of(ws) == nullptr);
}

// One write of `size` bytes, through TLS on a secure connection.
long write_once(const ws_record& ws, const uint8_t* bytes, uint32_t size) {
    if (ws.is_secure == 1) {
        SSL* ssl = session_of(ws);
        if (ssl == nullptr) {
            errno = EBADF;
            return -1;
        }
        return SSL_write(ssl, bytes, static_cast<int>(size));
    }
    return send(ws.sockfd, bytes, size, MSG_NOSIGNAL);  // a reset peer gives EPIPE, not a signal
}

// One read of at most `size` bytes; -1 for every failure. An empty room reads
// as the end of the stream without a call.
long read_once(const ws_record& ws, uint8_t* into, std::size_t size) {
    if (size == 0)
        return 0;
    long got;
    if (ws.is_secure == 1) {
        SSL* ssl = session_of(ws);
        if (ssl == nullptr) {
            errno = EBADF;
            return -1;
        }
        // A TLS failure that is not a system call's leaves errno alone; a
        // stale EINTR/EAGAIN must not make the caller spin.
        errno = 0;
        got = SSL_read(ssl, into, static_cast<int>(std::min<std::size_t>(size, 0x7fffffff)));
    } else {
        got = recv(ws.sockfd, into, size, 0);
    }
    return got < 0 ? -1 : got;
}

// Empty control frame (pong or close) answered once, result unchecked.
void send_empty_frame(const ws_record& ws, FrameType type) {
    uint8_t frame[WS_MAX_FRAME_HEADER];
    const uint32_t size = wsMakeFrameHeader(nullptr, 0, frame, type);
    write_once(ws, frame, size);
}

// ---- send buffer ----

uint8_t* send_buffer() {
    static auto* buffer = static_cast<uint8_t*>(std::malloc(WS_FRAME_CAPACITY));
    return buffer;
}

void trace_frame(const uint8_t* frame, uint32_t size) {
    if (!debug_log_enabled())
        return;
    for (uint32_t i = 0; i < size && i < 10; ++i)
        WS_LOG("buf[%d] is %2x\n", static_cast<int>(i), frame[i]);
    for (uint32_t i = size > 10 ? size - 10 : size; i < size; ++i)
        WS_LOG("buf[%d] is %2x\n", static_cast<int>(i), frame[i]);
}

// ---- receive buffers ----

// on_message may run a loop of its own, whose receive path must not touch the
// frames the outer call has yet to walk: one frame buffer per nesting level,
// allocated on first use and kept. Each holds the capacity plus a zero byte
// that is never overwritten, so string scans end inside it. Bytes from
// `extent` on are zero; a call clears only what the previous one wrote.
constexpr int RECEIVE_LEVELS = 8;

struct frame_buffer {
    uint8_t* bytes;
    uint32_t extent;
};
frame_buffer frame_buffers[RECEIVE_LEVELS];
int receive_depth = 0;

frame_buffer* frame_buffer_for(int depth) {
    if (depth < 0 || depth >= RECEIVE_LEVELS)
        return nullptr;
    frame_buffer& level = frame_buffers[depth];
    if (level.bytes == nullptr)
        level.bytes = static_cast<uint8_t*>(std::calloc(WS_FRAME_CAPACITY + 1, 1));
    return level.bytes != nullptr ? &level : nullptr;
}

struct receive_call {
    ws_record* ws;  // the registered record, anchored for the whole call
    int32_t fd;
    int* err;
    frame_buffer* buffer;
    int result;
};

void note_written(frame_buffer& buffer, const uint8_t* end) {
    const auto reach = static_cast<uint32_t>(end - buffer.bytes);
    buffer.extent = std::max(buffer.extent, reach);
}

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

int walk_frames(lua_State* L, receive_call& call) {
    ws_record& ws = *call.ws;
    frame_buffer& buffer = *call.buffer;
    uint8_t* const frame = buffer.bytes;
    std::memset(frame, 0, buffer.extent);  // every call starts on a zeroed buffer
    buffer.extent = 0;

    int32_t nread = 0;
    uint32_t total_len = 0;
    uint32_t offset_len = 0;
    uint32_t datasize = 0;
    uint32_t headerLength = 0;
    uint8_t* data = nullptr;
    FrameType type = WS_INCOMPLETE_FRAME;

    for (;;) {
        if (offset_len == 0) {
            // bytes up to the first zero go; an earlier read's tail is overwritten
            std::memset(frame, 0, strnlen(reinterpret_cast<char*>(frame), WS_FRAME_CAPACITY));
            WS_LOG(ws.is_secure == 1 ? "recv with ssl\n" : "recv without ssl\n");
            nread = static_cast<int32_t>(read_once(ws, frame + total_len, WS_FRAME_CAPACITY - total_len));
            *call.err = errno;
            if (nread > 0)
                note_written(buffer, frame + total_len + nread);
        }
        if (nread == -1 || nread == 0) {
            WS_LOG("Recv tcp fram is empty\n");
            return nread;
        }
        total_len += static_cast<uint32_t>(nread);  // also on passes without a read: counted again

        // Parsed as if total_len bytes followed the frame, but never past the
        // buffer: a header cut there cannot be completed.
        if (offset_len >= WS_FRAME_CAPACITY)
            break;
        const uint32_t available = std::min(total_len, WS_FRAME_CAPACITY - offset_len);
        headerLength = 0;
        type = wsParseInputFrame(frame + offset_len, available, &data, &datasize, &headerLength);
        if (type == WS_INCOMPLETE_FRAME && available < total_len) {
            WS_LOG("frame header cut at the end of the buffer\n");
            break;
        }

        // A text is complete once its string length reaches datasize; a zero
        // byte inside it is overwritten by the next read.
        if (type == WS_TEXT_FRAME) {
            uint32_t have = static_cast<uint32_t>(strnlen(reinterpret_cast<char*>(data), datasize));
            while (have < datasize) {
                WS_LOG("Errno: %d, Error str: %s\n", errno, std::strerror(errno));
                uint8_t* at = data + have;
                const long got = read_once(ws, at, static_cast<std::size_t>(frame + WS_FRAME_CAPACITY - at));
                nread = static_cast<int32_t>(got);
                if (got == -1 && errno != EINTR && errno != EAGAIN) {
                    *call.err = errno;
                    return -1;
                }
                if (got == 0) {
                    *call.err = errno;
                    return 0;
                }
                if (got > 0) {
                    note_written(buffer, at + got);
                    have += static_cast<uint32_t>(strnlen(reinterpret_cast<char*>(at), datasize - have));
                }
            }
        }

        offset_len += datasize + headerLength;
        WS_LOG("offset_len is %zu, receive data is %s, data type is %x\n", static_cast<std::size_t>(offset_len),
               data != nullptr ? reinterpret_cast<char*>(data) : "", static_cast<unsigned>(type));

        if (type == WS_TEXT_FRAME) {
            WS_LOG("Type; WS_TEXT_FRAME\n");
            deliver_text(L, call.fd, data, datasize);
            if (ws.status == WS_STATUS_CLOSED) {
                // on_message closed this connection: what is left of the read
                // belongs to nobody, and the descriptor may be reused already
                WS_LOG("closed from on_message, rest of the read dropped\n");
                break;
            }
            if (offset_len >= static_cast<uint32_t>(nread))
                break;
            WS_LOG("\n\n\nincomplete fram, receive continue!\n\n\n");
            type = WS_INCOMPLETE_FRAME;
            continue;
        }
        if (type == WS_PING_FRAME) {
            WS_LOG("Type: WS_PING_FRAME\n");
            uint8_t reply[WS_MAX_FRAME_HEADER];
            datasize = wsMakeFrameHeader(nullptr, 0, reply, WS_PONG_FRAME);  // the ping's payload is not echoed
            WS_LOG("PONG datasize is %zu\n", static_cast<std::size_t>(datasize));
            if (ws.is_secure != 1)
                WS_LOG("Will send PONG\n");
            write_once(ws, reply, datasize);
            break;  // frames after the ping are dropped
        }
        if (type == WS_CLOSING_FRAME) {
            WS_LOG("Type: WS_CLOSING_FRAME\n");
            WS_LOG("Will send close\n");
            send_empty_frame(ws, WS_CLOSING_FRAME);
            return 0;
        }
        if (type == WS_INCOMPLETE_FRAME) {
            WS_LOG("Type: WS_INCOMPLETE_FRAME\n");
            continue;
        }
        WS_LOG("Type: None default\n");  // binary, pong, malformed: dropped
        break;
    }
    WS_LOG("<<<<<<<< received <<<<<<<<<\n");
    return nread;
}

int walk_frames_protected(lua_State* L) {
    auto& call = *static_cast<receive_call*>(lua_touserdata(L, 1));
    lua_settop(L, 0);
    call.result = walk_frames(L, call);
    return 0;
}

// ---- connect ----

// on_error(errno, message), then the close with `reason` (null: the text of
// errno as on_error left it). -1 for the caller to return.
int fail_connect(lua_State* L, ws_record* ws, const char* message, const char* reason) {
    char message_copy[256];
    std::snprintf(message_copy, sizeof message_copy, "%s", message);
    error_callback(L, ws->sockfd, errno, message_copy);
    char reason_copy[256];
    std::snprintf(reason_copy, sizeof reason_copy, "%s", reason != nullptr ? reason : std::strerror(errno));
    ws_do_close(L, ws, reason_copy);
    return -1;
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
    ws->is_secure = is_secure(ws->url);
    if (ws->is_secure == -1) {
        WS_LOG("Error: Wrong websocket url\n");
        return fail_connect(L, ws, "wrong websocket url!", "wrong websocket url!");
    }
    ws->status = WS_STATUS_CONNECTING;
    if (ws->is_secure == 1 && wss_ssl_init(ws) == -1) {
        fail_connect(L, ws, "ssl init fail!", "ssl init fail");
        WS_LOG("ssl init fail\n");
        return -1;
    }

    char url[TEXT_FIELD_SIZE];
    std::memcpy(url, ws->url, sizeof url);
    url[sizeof url - 1] = '\0';
    char host[TEXT_FIELD_SIZE] = {};
    char path[TEXT_FIELD_SIZE] = {};
    const int split = get_host_path(url, host, path);
    WS_LOG("URL is %s, Get host: %s, path: %s\n", ws->url, host, path);
    if (split == -1) {
        WS_LOG("Error: Wrong websocket url\n");
        return fail_connect(L, ws, "wrong websocket url!", "wrong websocket url!");
    }

    char server_ip[16] = {};
    if (get_ip(host, server_ip) == nullptr) {
        WS_LOG("Get server_ip: %s\n", server_ip);
        fail_connect(L, ws, "domain name resolution fail, get server ip fail!",
                     "domain name resolution fail, get server ip fail!");
        WS_LOG("return -1\n");
        return -1;
    }
    WS_LOG("Get server_ip: %s\n", server_ip);

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(ws->port & 0xffff));
    address.sin_addr.s_addr = inet_addr(server_ip);
    if (connect_timeout(ws->sockfd, &address, ws->timeout) == -1)
        return fail_connect(L, ws, std::strerror(errno), nullptr);
    if (ws->is_secure == 1 && wss_ssl_connect(ws) == -1) {
        fail_connect(L, ws, "ssl connect fail!", "ssl_connect_fail");
        WS_LOG("ssl_connect_fail\n");
        return -1;
    }

    WS_LOG("will do handshake\n");
    if (do_handshake(ws, host, path) == -1) {
        WS_LOG("do handshake fail\n");
        return fail_connect(L, ws, std::strerror(errno), "handshake fail");
    }
    return 1;
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
    if (ws->status == WS_STATUS_OPEN)
        sock_rem(ws->sockfd);  // other statuses leave the table alone, deliberately
    if (ws->sockfd != -1) {
        if (close(ws->sockfd) == -1)
            WS_LOG("close %d: %s\n", ws->sockfd, std::strerror(errno));
        ws_udata_close(L, ws->sockfd);
    }
    // Nothing allocates between on_close's stack clear and the write below,
    // so the caller's reference keeps the record valid.
    if (can_report_close(L, ws->sockfd))
        close_callback(L, ws->sockfd, reason);
    ws->sockfd = -1;
}

int ws_send(lua_State* L, ws_record* ws, const char* data) {
    WS_LOG(">>> send <<<\n");
    tls_settle_stale_copy(*ws);
    const int32_t fd = ws->sockfd;
    const sock_header* registered = push_registered(L, fd);
    if (is_closed(*ws, registered)) {
        closed_socket_callback(L, fd, ws->status == WS_STATUS_CREATED, registered == nullptr);
        WS_LOG("ERROR: socket has been closed\n");
        return -1;
    }
    const std::size_t length = std::strlen(data);
    if (length > WS_MAX_TEXT_LENGTH) {
        WS_LOG("text of %zu bytes does not fit one frame\n", length);
        return -1;
    }
    uint8_t* frame = send_buffer();
    if (frame == nullptr) {
        errno = ENOMEM;
        error_callback(L, fd, errno, std::strerror(errno));
        return -1;
    }

    timeval no_wait{0, 0};
    const int ready = select_single(fd, wait_for::write, &no_wait);
    if (ready == -1) {
        const int error = errno;
        char text[128];
        std::snprintf(text, sizeof text, "%s", std::strerror(error));
        WS_LOG("Send select error %d: %s\n", error, text);
        error_callback(L, fd, error, text);
        do_close(L, fd, text);
        WS_LOG("<<<<<< Send fail -1 >>>>>>\n");
        WS_LOG("Main return -1\n");
        return -1;
    }
    if (ready == 0) {
        WS_LOG("Send select timeout return\n");
        error_callback(L, fd, errno, std::strerror(errno));  // errno is whatever came before: kept
        return 0;
    }

    const auto* payload = reinterpret_cast<const uint8_t*>(data);
    const auto payload_length = static_cast<uint32_t>(length);
    WS_LOG("data length is %u\n", payload_length);
    const uint32_t header = wsMakeFrameHeader(payload, payload_length, frame, WS_TEXT_FRAME);
    wsMaskPayload(frame + header, payload, payload_length, frame + header - WS_MASK_KEY_SIZE);
    const uint32_t framesize = header + payload_length;
    WS_LOG("frame size is %u, header %u\n", framesize, header);
    trace_frame(frame, framesize);

    WS_LOG("will send buf\n");
    const long sent = write_once(*ws, frame, framesize);  // once: a short write is not completed
    WS_LOG("Send framsize is %zu\n", static_cast<std::size_t>(framesize));
    WS_LOG("Send len is %d\n", static_cast<int>(sent));
    if (sent == -1) {
        const int error = errno;
        char text[128];
        std::snprintf(text, sizeof text, "%s", std::strerror(error));
        WS_LOG("send fail return -1: %d -> %s\n", error, text);
        error_callback(L, fd, error, text);
        do_close(L, fd, text);
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

int ws_recv(lua_State* L, int32_t fd, char*, int* err) {
    get_udata_by_sockfd(L, fd);
    stackDump(L);
    ws_record* ws = check_ws_client(L, lua_gettop(L));
    WS_LOG("ws->sockfd %d\n", ws->sockfd);
    frame_buffer* buffer = frame_buffer_for(receive_depth);
    if (buffer == nullptr) {
        WS_LOG("no receive buffer at depth %d\n", receive_depth);
        *err = ENOMEM;
        return -1;
    }
    // The walk runs in a protected call of its own: on_message empties only
    // that call's stack, so the object stays on this one and keeps the record
    // alive even when the script closes and reconnects (which replaces the
    // registry entry); and a raising lookup cannot leave the depth behind.
    receive_call call{ws, fd, err, buffer, 0};
    const int depth = receive_depth++;
    const int status = lua_api_cpcall(L, walk_frames_protected, &call);
    receive_depth = depth;
    if (status != 0)
        lua_error(L);  // the lookup's error, passed on
    return call.result;
}
