// TLS sessions of the socket records: the ownership table and the set-up
// steps. Logs under the unit name "tools", where these steps have always
// logged.
#include "tls_owner.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "transport.h"

#ifdef lua_h
#error "TLS ownership and set-up must stay free of the interpreter"
#endif

#define LOG_UNIT "tools"

// ---- ownership ----

namespace {

struct tls_entry {
    uint64_t serial;
    tls_session* session;
    tls_context* ctx;
};

// Sorted by serial: serials only grow, so entries are appended in order.
tls_entry* entries = nullptr;
std::size_t entry_count = 0;
std::size_t entry_capacity = 0;
uint64_t last_serial = 0;

tls_entry* find_entry(uint64_t serial) {
    if (serial == 0)
        return nullptr;
    std::size_t low = 0;
    std::size_t high = entry_count;
    while (low < high) {
        const std::size_t middle = low + (high - low) / 2;
        if (entries[middle].serial < serial)
            low = middle + 1;
        else
            high = middle;
    }
    return low < entry_count && entries[low].serial == serial ? &entries[low] : nullptr;
}

}  // namespace

uint64_t tls_adopt(tls_context* ctx) {
    if (entry_count == entry_capacity) {
        const std::size_t wanted = entry_capacity == 0 ? 16 : entry_capacity * 2;
        void* grown = std::realloc(entries, wanted * sizeof(tls_entry));
        if (grown == nullptr) {
            tls_context_free(ctx);
            return 0;
        }
        entries = static_cast<tls_entry*>(grown);
        entry_capacity = wanted;
    }
    entries[entry_count++] = {++last_serial, nullptr, ctx};
    return last_serial;
}

void tls_adopt_session(uint64_t serial, tls_session* session) {
    if (tls_entry* entry = find_entry(serial))
        entry->session = session;
}

bool tls_live(uint64_t serial) { return find_entry(serial) != nullptr; }

void tls_release(uint64_t serial) {
    tls_entry* entry = find_entry(serial);
    if (entry == nullptr)
        return;
    if (entry->session != nullptr)
        tls_session_free(entry->session);
    if (entry->ctx != nullptr)
        tls_context_free(entry->ctx);
    const std::size_t index = static_cast<std::size_t>(entry - entries);
    for (std::size_t i = index + 1; i < entry_count; ++i)
        entries[i - 1] = entries[i];
    --entry_count;
}

std::size_t tls_live_count() { return entry_count; }

// ---- set-up ----
// The shared steps return the failure's log text (null on success) so that
// each log line names the public procedure that failed.

namespace {

bool verifies(const stream_guard& guard) { return guard.cafile[0] != '\0' || guard.capath[0] != '\0'; }
const char* or_null(const char* text) { return text[0] != '\0' ? text : nullptr; }

// Opt-in verification (cafile/capath) on the new context.
const char* verify_setup(const stream_guard& guard, tls_context* ctx) {
    if (!verifies(guard))
        return nullptr;
    if (tls_context_verify(ctx, or_null(guard.cafile), or_null(guard.capath)) == 0)
        return nullptr;
    WS_LOG_AS("verify_setup", "CA certificates do not load (cafile '%s', capath '%s'): %s\n", guard.cafile,
              guard.capath, tls_error_text());
    return "SSL context create fail!\n";
}

template <typename Record>
const char* new_client_context(Record& record) {
    tls_release_record(record);  // a reconnected record gives up its old session
    tls_context* ctx = tls_context_new();
    if (ctx == nullptr)
        return "SSL context create fail!\n";
    record.tls_serial = tls_adopt(ctx);
    if (record.tls_serial == 0)
        return "SSL context create fail!\n";
    record.ssl_ctx = ctx;
    return verify_setup(record.guard, ctx);
}

// A new session on the record's context, bound to its descriptor, with the
// opt-in server name and identity. `identity`: what the certificate must
// match when verification is on.
template <typename Record>
const char* begin_session(Record& record, const char* identity) {
    tls_context* ctx = tls_live(record.tls_serial) ? record.ssl_ctx : nullptr;
    record.ssl = ctx != nullptr ? tls_session_new(ctx) : nullptr;
    if (record.ssl == nullptr)
        return "error creating SSL\n";
    tls_adopt_session(record.tls_serial, record.ssl);
    if (tls_session_bind(record.ssl, record.sockfd) != 0)
        return "can't set SSL socket\n";
    const stream_guard& guard = record.guard;
    if ((guard.servername[0] != '\0' && tls_session_send_name(record.ssl, guard.servername) != 0) ||
        (verifies(guard) && tls_session_expect_identity(record.ssl, identity) != 0)) {
        WS_LOG_AS("connect_session", "server name '%s' / identity '%s' refused: %s\n", guard.servername, identity,
                  tls_error_text());
        return "fail to connect ssl\n";
    }
    return nullptr;
}

// The handshake on the blocking descriptor: the library waits inside the
// step, so one step is the whole handshake; a want means the wait was cut
// short (a signal, or the bound running out: ETIMEDOUT), which fails it.
template <typename Record>
const char* handshake_blocking(Record& record, const char* identity) {
    if (tls_session_step(record.ssl) == tls_progress::done)
        return nullptr;
    stream_note_timeout(record.sockfd);
    if (verifies(record.guard))
        WS_LOG_AS("connect_session", "certificate of '%s': %s\n", identity, tls_verify_result(record.ssl));
    return "fail to connect ssl\n";
}

template <typename Record>
const char* connect_session(Record& record, const char* identity, bool handshake) {
    const char* failure = begin_session(record, identity);
    return failure == nullptr && handshake ? handshake_blocking(record, identity) : failure;
}

// What a wss certificate must match: the servername key, when set; else the
// URL's host without a ":port" (written into `name`).
const char* wss_identity(const ws_record& record, const char* host, char (&name)[TEXT_FIELD_SIZE]) {
    std::snprintf(name, sizeof name, "%s", host);
    if (char* colon = std::strchr(name, ':'); colon != nullptr && std::strchr(colon + 1, ':') == nullptr)
        *colon = '\0';
    return record.guard.servername[0] != '\0' ? record.guard.servername : name;
}

const char* tcp_identity(const tcp_record& record) {
    return record.guard.servername[0] != '\0' ? record.guard.servername : record.ip;
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
    if (tls_context_use_chain(record->ssl_ctx, record->crt) != 0) {
        WS_LOG("SSL loading private key error\n");  // names the key although the chain failed: kept so
        return -1;
    }
    if (tls_context_use_key(record->ssl_ctx, record->prikey) != 0) {
        WS_LOG("error loading private key\n");
        return -1;
    }
    return 0;
}

// The public procedures log the failure under their own names.

int wss_ssl_connect(ws_record* record, const char* host) {
    char name[TEXT_FIELD_SIZE];
    if (const char* failure = connect_session(*record, wss_identity(*record, host, name), true)) {
        WS_LOG("%s", failure);
        return -1;
    }
    return 0;
}

int tcp_ssl_connect(tcp_record* record) {
    if (const char* failure = connect_session(*record, tcp_identity(*record), true)) {
        WS_LOG("%s", failure);
        return -1;
    }
    return 0;
}

int wss_ssl_begin(ws_record* record, const char* host) {
    char name[TEXT_FIELD_SIZE];
    if (const char* failure = connect_session(*record, wss_identity(*record, host, name), false)) {
        WS_LOG("%s", failure);
        return -1;
    }
    return 0;
}

int tcp_ssl_begin(tcp_record* record) {
    if (const char* failure = connect_session(*record, tcp_identity(*record), false)) {
        WS_LOG("%s", failure);
        return -1;
    }
    return 0;
}
