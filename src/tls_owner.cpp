// TLS sessions of the socket records: the ownership table and the set-up
// steps. Logs under the unit name "tools", where these steps have always
// logged.
#include "tls_owner.h"

#include <cstdlib>

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
    return nullptr;
}

template <typename Record>
const char* connect_session(Record& record) {
    tls_context* ctx = tls_live(record.tls_serial) ? record.ssl_ctx : nullptr;
    record.ssl = ctx != nullptr ? tls_session_new(ctx) : nullptr;
    if (record.ssl == nullptr)
        return "error creating SSL\n";
    tls_adopt_session(record.tls_serial, record.ssl);
    if (tls_session_bind(record.ssl, record.sockfd) != 0)
        return "can't set SSL socket\n";
    if (tls_session_connect(record.ssl) != 0)
        return "fail to connect ssl\n";
    return nullptr;
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
