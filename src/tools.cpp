// Registry lookups, TLS session set-up and ownership, and the debug log.
#include "tools.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "tcp.h"
#include "udp.h"
#include "ws_connect.h"

#define LOG_UNIT "tools"

// ---- registry ----

static registry_key format_key(const char* format, int32_t fd) {
    registry_key key{};
    std::snprintf(key.text, sizeof key.text, format, fd);
    return key;
}

registry_key sockfd_key(int32_t fd) { return format_key("sockfd-%d", fd); }
registry_key udata_key(int32_t fd) { return format_key("udata-%d", fd); }

void registry_store_top(lua_State* L, const registry_key& key) {
    lua_pushstring(L, key.text);
    lua_insert(L, -2);
    lua_settable(L, LUA_REGISTRYINDEX);
}

void get_udata_by_sockfd(lua_State* L, int32_t fd) {
    const registry_key key = udata_key(fd);
    lua_getfield(L, LUA_REGISTRYINDEX, key.text);
}

// The three kinds share one implementation: only the status field is touched.
static void udata_mark_closed(lua_State* L, int32_t fd) {
    const registry_key key = udata_key(fd);
    lua_getfield(L, LUA_REGISTRYINDEX, key.text);
    if (lua_type(L, -1) == LUA_TUSERDATA)
        static_cast<sock_header*>(lua_touserdata(L, -1))->status = 0;
    registry_store_top(L, key);  // stored back under the same key
}

void ws_udata_close(lua_State* L, int32_t fd) { udata_mark_closed(L, fd); }
void tcp_udata_close(lua_State* L, int32_t fd) { udata_mark_closed(L, fd); }
void udp_udata_close(lua_State* L, int32_t fd) { udata_mark_closed(L, fd); }

// ---- socket helpers ----

char* get_ip(const char* host, std::span<char> ip) {
    const hostent* entry = gethostbyname(host);
    if (entry == nullptr || entry->h_addrtype != AF_INET || entry->h_length != sizeof(in_addr) ||
        entry->h_addr_list[0] == nullptr)
        return nullptr;
    in_addr first{};
    std::memcpy(&first, entry->h_addr_list[0], sizeof first);
    const char* text = inet_ntoa(first);
    const std::size_t length = std::strlen(text);
    if (length >= ip.size())
        return nullptr;
    std::memcpy(ip.data(), text, length + 1);
    return ip.data();
}

int32_t get_sock_type(lua_State* L, int32_t fd) {
    const registry_key key = sockfd_key(fd);
    lua_getfield(L, LUA_REGISTRYINDEX, key.text);
    lua_getfield(L, -1, "type");  // raises on a missing options table
    const int32_t type = number_to_int32(luaL_checknumber(L, -1));
    WS_LOG("type is %d\n", type);
    return type;
}

// Shared steps log under the name of the procedure they serve.
#define LOG_AS(function, ...)                                          \
    do {                                                               \
        if (debug_log_enabled())                                       \
            debug_log_write(LOG_UNIT, function, __LINE__, __VA_ARGS__); \
    } while (0)

static int change_flags(int fd, bool nonblocking, const char* function) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1) {
        LOG_AS(function, "fcntl error\n");
        return -1;
    }
    const int wanted = nonblocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    if (fcntl(fd, F_SETFL, wanted) == -1) {
        LOG_AS(function, "fcntl error\n");
        return -1;
    }
    return 0;
}

int set_nonblocking(int fd) { return change_flags(fd, true, __func__); }
int deactivate_nonblock(int fd) { return change_flags(fd, false, __func__); }

// The outcome of a non-blocking connect that is under way.
static int finish_connect(int fd, int32_t timeout_sec) {
    timeval wait{timeout_sec, 0};
    int ready = 0;
    do {
        ready = select_single(fd, wait_for::write, &wait);  // Linux leaves the time that remained
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) {
        errno = ETIMEDOUT;
        return -1;
    }
    if (ready < 0) {
        LOG_AS("connect_timeout", "select error\n");
        return -1;
    }
    int result = 0;
    int pending = 0;
    socklen_t length = sizeof pending;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &length) < 0)
        result = -1;
    // Overrides the getsockopt failure on purpose: a zero error word counts as
    // connected.
    if (pending != 0) {
        errno = pending;
        result = -1;
    } else {
        result = 0;
    }
    return result;
}

int connect_timeout(int fd, const sockaddr_in* address, int32_t timeout_sec) {
    if (timeout_sec != 0 && set_nonblocking(fd) == -1)
        return -1;
    int result = connect(fd, reinterpret_cast<const sockaddr*>(address), sizeof(sockaddr_in));
    if (result < 0 && errno == EINPROGRESS)
        result = finish_connect(fd, timeout_sec);
    if (timeout_sec != 0 && deactivate_nonblock(fd) == -1)
        result = -1;
    return result;
}

// ---- close by descriptor ----

using close_procedure = void (*)(lua_State* L, void* record, const char* reason);

struct close_entry {
    const char* metatable;  // the block must carry it: a record of another kind is never closed
    close_procedure close;  // null: the kind's close is not part of this build
};

// Indexed by kind code. The WebSocket and TCP closes plug in here.
constexpr close_entry close_by_kind[] = {
    {METATABLE_WS, [](lua_State* L, void* record, const char* reason) {
         ws_do_close(L, static_cast<ws_record*>(record), reason);
     }},
    {METATABLE_TCP, [](lua_State* L, void* record, const char* reason) {
         tcp_do_close(L, static_cast<tcp_record*>(record), reason);
     }},
    {METATABLE_UDP, [](lua_State* L, void* record, const char* reason) {
         udp_do_close(L, static_cast<udp_record*>(record), reason);
     }},
};
static_assert(std::size(close_by_kind) == SOCK_TYPE_UDP + 1);

static bool has_metatable(lua_State* L, int index, const char* name) {
    if (!lua_getmetatable(L, index))
        return false;
    luaL_getmetatable(L, name);
    const bool same = lua_rawequal(L, -1, -2) != 0;
    lua_pop(L, 2);
    return same;
}

void do_close(lua_State* L, int32_t fd, const char* reason) {
    const int32_t kind = get_sock_type(L, fd);
    get_udata_by_sockfd(L, fd);
    void* record = lua_touserdata(L, -1);
    if (record == nullptr || kind < 0 || kind >= static_cast<int32_t>(std::size(close_by_kind)))
        return;
    const close_entry& entry = close_by_kind[kind];
    if (entry.close == nullptr || !has_metatable(L, -1, entry.metatable))
        return;
    // The block is on the stack until on_close clears it; a kind's close may
    // still allocate and use the record after that, while on_close may have
    // replaced the registry entry that was the block's last reference. (A
    // close that raises leaves this one reference behind.)
    const int anchor = anchor_value(L, -1);
    entry.close(L, record, reason);
    anchor_release(L, anchor);
}

int anchor_value(lua_State* L, int index) {
    lua_pushvalue(L, index);
    return luaL_ref(L, LUA_REGISTRYINDEX);
}

void anchor_release(lua_State* L, int anchor) { luaL_unref(L, LUA_REGISTRYINDEX, anchor); }

// ---- descriptor sets ----

constexpr std::size_t bits_per_word = sizeof(unsigned long) * CHAR_BIT;

void select_set_clear(select_set& set) {
    if (set.words != nullptr)
        std::memset(set.words, 0, set.word_count * sizeof(unsigned long));
}

static bool select_set_grow(select_set& set, std::size_t word_count) {
    // at least what an fd_set holds, doubling after that
    std::size_t wanted = set.word_count == 0 ? FD_SETSIZE / bits_per_word : set.word_count;
    while (wanted < word_count)
        wanted *= 2;
    void* grown = std::realloc(set.words, wanted * sizeof(unsigned long));
    if (grown == nullptr)
        return false;
    set.words = static_cast<unsigned long*>(grown);
    std::memset(set.words + set.word_count, 0, (wanted - set.word_count) * sizeof(unsigned long));
    set.word_count = wanted;
    return true;
}

bool select_set_add(select_set& set, int fd) {
    if (fd < 0)
        return true;
    const std::size_t word = static_cast<std::size_t>(fd) / bits_per_word;
    if (word >= set.word_count && !select_set_grow(set, word + 1))
        return false;
    set.words[word] |= 1UL << (static_cast<std::size_t>(fd) % bits_per_word);
    return true;
}

bool select_set_has(const select_set& set, int fd) {
    if (fd < 0)
        return false;
    const std::size_t word = static_cast<std::size_t>(fd) / bits_per_word;
    if (word >= set.word_count)
        return false;
    return (set.words[word] >> (static_cast<std::size_t>(fd) % bits_per_word)) & 1UL;
}

fd_set* select_set_fds(select_set& set) { return reinterpret_cast<fd_set*>(set.words); }

int select_single(int fd, wait_for what, timeval* timeout) {
    static select_set single{};
    select_set_clear(single);
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    if (!select_set_add(single, fd)) {
        errno = ENOMEM;
        return -1;
    }
    fd_set* set = select_set_fds(single);
    return what == wait_for::read ? select(fd + 1, set, nullptr, nullptr, timeout)
                                  : select(fd + 1, nullptr, set, nullptr, timeout);
}

// ---- debug log ----

namespace debug_log_detail {
bool enabled = false;
}

// Our own copy: the interpreter's string may be collected after set_debug.
static char log_path[4096] = "NULL";

bool debug_log_set_path(const char* path) noexcept {
    const std::size_t length = std::strlen(path);
    if (length >= sizeof log_path)
        return false;
    std::memcpy(log_path, path, length + 1);
    debug_log_detail::enabled = std::strcmp(log_path, "NULL") != 0;
    return true;
}

// Keeps errno: callers log between a failing call and the report of its errno.
void debug_log_write(const char* unit, const char* function, int line, const char* format, ...) noexcept {
    const int saved_errno = errno;
    std::FILE* file = std::fopen(log_path, "a");
    if (file == nullptr) {
        errno = saved_errno;
        return;  // lost quietly: logging never disturbs the module
    }
    const std::time_t now = std::time(nullptr);
    char stamp[64] = "";
    const char* text = std::ctime(&now);
    if (text != nullptr) {
        std::size_t length = std::strlen(text);
        if (length > 0 && text[length - 1] == '\n')
            --length;
        if (length >= sizeof stamp)
            length = sizeof stamp - 1;
        std::memcpy(stamp, text, length);
        stamp[length] = '\0';
    }
    std::fprintf(file, "[Time: %s, File: %s, Function: %s, Line: %05d]: ", stamp, unit, function, line);
    va_list args;
    va_start(args, format);
    std::vfprintf(file, format, args);
    va_end(args);
    std::fclose(file);
    errno = saved_errno;
}

// ---- TLS session ownership ----

namespace {

struct tls_entry {
    uint64_t serial;
    SSL* ssl;
    SSL_CTX* ctx;
};

// Sorted by serial: serials only grow, so entries are appended in order.
std::vector<tls_entry> live_sessions;
uint64_t last_serial = 0;

tls_entry* find_session(uint64_t serial) {
    if (serial == 0)
        return nullptr;
    auto it = std::lower_bound(live_sessions.begin(), live_sessions.end(), serial,
                               [](const tls_entry& entry, uint64_t wanted) { return entry.serial < wanted; });
    return it != live_sessions.end() && it->serial == serial ? &*it : nullptr;
}

}  // namespace

uint64_t tls_adopt(SSL_CTX* ctx) {
    live_sessions.push_back({++last_serial, nullptr, ctx});
    return last_serial;
}

void tls_adopt_session(uint64_t serial, SSL* ssl) {
    if (tls_entry* entry = find_session(serial))
        entry->ssl = ssl;
}

bool tls_live(uint64_t serial) { return find_session(serial) != nullptr; }

void tls_release(uint64_t serial) {
    tls_entry* entry = find_session(serial);
    if (entry == nullptr)
        return;
    if (entry->ssl != nullptr)
        SSL_free(entry->ssl);  // no close-notify: the peer learns from the descriptor
    if (entry->ctx != nullptr)
        SSL_CTX_free(entry->ctx);
    live_sessions.erase(live_sessions.begin() + (entry - live_sessions.data()));
}

std::size_t tls_live_count() { return live_sessions.size(); }

// ---- TLS transport without SIGPIPE ----
// Writes go through send(MSG_NOSIGNAL) so that a reset peer yields EPIPE on
// the write instead of a signal that would kill the host process; the
// process's signal disposition is left alone.

namespace {

int bio_descriptor(BIO* bio) { return static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(bio))); }

int nosignal_write(BIO* bio, const char* data, int length) {
    const ssize_t written = send(bio_descriptor(bio), data, static_cast<std::size_t>(length), MSG_NOSIGNAL);
    BIO_clear_retry_flags(bio);
    if (written < 0 && BIO_sock_should_retry(-1))
        BIO_set_retry_write(bio);
    return static_cast<int>(written);
}

int socket_read(BIO* bio, char* out, int length) {
    const ssize_t got = recv(bio_descriptor(bio), out, static_cast<std::size_t>(length), 0);
    BIO_clear_retry_flags(bio);
    if (got == 0)
        BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
    else if (got < 0 && BIO_sock_should_retry(-1))
        BIO_set_retry_read(bio);
    return static_cast<int>(got);
}

int socket_puts(BIO* bio, const char* text) { return nosignal_write(bio, text, static_cast<int>(std::strlen(text))); }

long socket_ctrl(BIO* bio, int command, long, void* out) {
    switch (command) {
    case BIO_C_GET_FD:
        if (out != nullptr)
            *static_cast<int*>(out) = bio_descriptor(bio);
        return bio_descriptor(bio);
    case BIO_CTRL_FLUSH:
        return 1;
    case BIO_CTRL_EOF:
        return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
    default:
        return 0;
    }
}

// Made once and kept for the life of the process.
const BIO_METHOD* nosignal_socket_method() {
    static BIO_METHOD* method = [] {
        BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR,
                                        "socket without SIGPIPE");
        if (made != nullptr && (BIO_meth_set_write(made, nosignal_write) != 1 ||
                                BIO_meth_set_read(made, socket_read) != 1 ||
                                BIO_meth_set_puts(made, socket_puts) != 1 ||
                                BIO_meth_set_ctrl(made, socket_ctrl) != 1)) {
            BIO_meth_free(made);
            made = nullptr;
        }
        return made;
    }();
    return method;
}

// Binds ssl to the descriptor for reading and writing; 0 on failure, as
// SSL_set_fd reports it.
int bind_descriptor(SSL* ssl, int fd) {
    const BIO_METHOD* method = nosignal_socket_method();
    if (method == nullptr)
        return 0;
    BIO* bio = BIO_new(method);
    if (bio == nullptr)
        return 0;
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(fd)));
    BIO_set_init(bio, 1);
    SSL_set_bio(ssl, bio, bio);  // one reference, owned by ssl
    return 1;
}

// ---- TLS session set-up ----
// The shared steps return the failure's log text (null on success) so that
// each log line names the public procedure that failed.

template <typename Record>
const char* new_client_context(Record& record) {
    // Repeated on every set-up on purpose; cheap once the library is up.
    SSL_library_init();
    OPENSSL_add_all_algorithms_noconf();
    SSL_load_error_strings();
    tls_release_record(record);  // a reconnected record gives up its old session
    record.ssl_ctx = SSL_CTX_new(SSLv23_method());
    if (record.ssl_ctx == nullptr) {
        ERR_clear_error();
        return "SSL context create fail!\n";
    }
    record.tls_serial = tls_adopt(record.ssl_ctx);
    return nullptr;
}

template <typename Record>
const char* connect_session(Record& record) {
    SSL_CTX* ctx = tls_live(record.tls_serial) ? record.ssl_ctx : nullptr;
    record.ssl = ctx != nullptr ? SSL_new(ctx) : nullptr;
    const char* failure = nullptr;
    if (record.ssl == nullptr) {
        failure = "error creating SSL\n";
    } else {
        tls_adopt_session(record.tls_serial, record.ssl);
        if (bind_descriptor(record.ssl, record.sockfd) == 0)
            failure = "can't set SSL socket\n";
        else if (SSL_connect(record.ssl) <= 0)  // blocking: waits for the whole handshake
            failure = "fail to connect ssl\n";
    }
    if (failure != nullptr)
        ERR_clear_error();  // the queue is not read; keep it from piling up
    return failure;
}

}  // namespace

int wss_ssl_init(ws_record* record) {
    if (const char* failure = new_client_context(*record)) {
        WS_LOG("%s", failure);
        return -1;
    }
    return 0;
}

int tcp_ssl_init(tcp_record* record) {
    if (const char* failure = new_client_context(*record)) {
        WS_LOG("%s", failure);
        return -1;
    }
    if (SSL_CTX_use_certificate_chain_file(record->ssl_ctx, record->crt) != 1) {
        ERR_clear_error();
        WS_LOG("SSL loading private key error\n");  // names the key although the chain failed: kept so
        return -1;
    }
    if (SSL_CTX_use_PrivateKey_file(record->ssl_ctx, record->prikey, SSL_FILETYPE_PEM) != 1) {
        ERR_clear_error();
        WS_LOG("error loading private key\n");
        return -1;
    }
    return 0;
}

int wss_ssl_connect(ws_record* record) {
    if (const char* failure = connect_session(*record)) {
        WS_LOG("%s", failure);
        return -1;
    }
    return 0;
}

int tcp_ssl_connect(tcp_record* record) {
    if (const char* failure = connect_session(*record)) {
        WS_LOG("%s", failure);
        return -1;
    }
    return 0;
}

// ---- WebSocket URLs ----

int is_secure(const char* url) {
    if (std::strncmp(url, "wss", 3) == 0)
        return 1;
    if (std::strncmp(url, "ws", 2) == 0)
        return 0;
    return -1;
}

int get_host_path(char* url, std::span<char> host, std::span<char> path) {
    if (host.empty() || path.empty())
        return -1;
    host[0] = '\0';
    path[0] = '\0';
    char* rest = nullptr;
    const char* scheme = strtok_r(url, "/", &rest);
    const char* name = scheme != nullptr ? strtok_r(nullptr, "/", &rest) : nullptr;
    if (name == nullptr)
        return -1;
    const std::size_t name_length = std::strlen(name);
    if (name_length >= host.size())
        return -1;
    std::memcpy(host.data(), name, name_length + 1);
    std::size_t used = 0;
    for (const char* piece = strtok_r(nullptr, "/", &rest); piece != nullptr; piece = strtok_r(nullptr, "/", &rest)) {
        const std::size_t length = std::strlen(piece);
        if (used + 1 + length >= path.size()) {
            host[0] = '\0';
            path[0] = '\0';
            return -1;
        }
        path[used] = '/';
        std::memcpy(path.data() + used + 1, piece, length + 1);
        used += 1 + length;
    }
    return 0;
}
