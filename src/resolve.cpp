// Host names to socket addresses: c-ares in the loop, or getaddrinfo() at
// once where the build has no c-ares.
#include "resolve.h"

#include <netdb.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "address_text.h"

#ifdef WS_CLIENT_CARES
#include <ares.h>
#endif

#ifdef lua_h
#error "the resolver must stay free of the interpreter"
#endif

namespace {

enum class failure : uint8_t { not_found, server, timed_out, bad_name, bad_server_list, no_memory, other };
constexpr struct {
    int error;
    const char* text;
} failures[] = {
    {ENOENT, "host name not found"},
    {EAGAIN, "name server failure"},
    {ETIMEDOUT, "host name lookup timed out"},
    {EINVAL, "bad host name"},
    {EINVAL, "bad WS_CLIENT_DNS_SERVER"},
    {ENOMEM, "out of memory"},
    {EIO, "host name lookup failed"},
};
static_assert(std::size(failures) == static_cast<std::size_t>(failure::other) + 1);

constexpr std::size_t longest_name = 253;  // without the root's dot

void fail(resolve_query& query, failure why) {
    query.state = resolve_state::failed;
    query.error = failures[static_cast<int>(why)].error;
    query.text = failures[static_cast<int>(why)].text;
    query.count = 0;
}

// Keeps an address of either family with the query's port, once.
void keep(resolve_query& query, const sockaddr* address, socklen_t length) {
    static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
    const bool known = (address->sa_family == AF_INET && length == sizeof(sockaddr_in)) ||
                       (address->sa_family == AF_INET6 && length == sizeof(sockaddr_in6));
    if (!known || query.count == RESOLVE_MAX_ADDRESSES)
        return;
    resolved_address kept{{}, length};
    const uint16_t port = htons(query.port);
    std::memcpy(&kept.address, address, length);
    std::memcpy(reinterpret_cast<char*>(&kept.address) + offsetof(sockaddr_in, sin_port), &port, sizeof port);
    for (std::size_t i = 0; i < query.count; ++i)
        if (query.addresses[i].length == length && std::memcmp(&query.addresses[i].address, &kept.address, length) == 0)
            return;
    query.addresses[query.count++] = kept;
}

// The resolver's first address, then the families in turn, each family in
// the resolver's order: a family that cannot be reached costs one attempt
// before the other is tried, not all of its addresses.
void alternate_families(resolve_query& query) {
    resolved_address ordered[RESOLVE_MAX_ADDRESSES];
    bool taken[RESOLVE_MAX_ADDRESSES] = {};
    sa_family_t want = query.addresses[0].address.ss_family;
    const auto next_untaken = [&](bool any_family) {
        std::size_t i = 0;
        while (i < query.count && (taken[i] || (!any_family && query.addresses[i].address.ss_family != want)))
            ++i;
        return i;
    };
    for (std::size_t placed = 0; placed < query.count; ++placed) {
        std::size_t pick = next_untaken(false);
        if (pick == query.count)  // none of that family left
            pick = next_untaken(true);
        taken[pick] = true;
        ordered[placed] = query.addresses[pick];
        want = ordered[placed].address.ss_family == AF_INET6 ? AF_INET : AF_INET6;
    }
    std::memcpy(query.addresses, ordered, query.count * sizeof ordered[0]);
}

void finish(resolve_query& query) {
    if (query.count == 0)
        return fail(query, failure::not_found);
    alternate_families(query);
    query.state = resolve_state::done;
}

}  // namespace

#ifdef WS_CLIENT_CARES

// ---- c-ares: the query runs in the loop ----

namespace {

// per try; c-ares doubles it for each round of tries, the deadline cuts it short
constexpr int try_timeout_ms = 2000;
constexpr int tries = 3;

// Rounded up, so that a wait of this long reaches the deadline; 0 once it has
// passed (or when the clock cannot be read).
long ms_until(const timespec& deadline) {
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return 0;
    const long long left = (deadline.tv_sec - now.tv_sec) * 1000000000LL + (deadline.tv_nsec - now.tv_nsec);
    return left <= 0 ? 0 : static_cast<long>((left + 999999) / 1000000);
}

ares_channel channel_of(const resolve_query& query) { return static_cast<ares_channel>(query.channel); }

failure failure_of(int status) {
    switch (status) {
    case ARES_ENOTFOUND: case ARES_ENODATA: return failure::not_found;
    case ARES_ESERVFAIL: case ARES_EREFUSED: case ARES_ECONNREFUSED: case ARES_EFORMERR: case ARES_EBADRESP:
        return failure::server;
    case ARES_ETIMEOUT: return failure::timed_out;
    case ARES_EBADNAME: return failure::bad_name;
    case ARES_ENOMEM: return failure::no_memory;
    default: return failure::other;
    }
}

// c-ares tells which sockets it waits on, and for what (nothing: closed).
void note_socket(void* argument, ares_socket_t fd, int read, int write) {
    resolve_query& query = *static_cast<resolve_query*>(argument);
    std::size_t at = 0;
    while (at < query.socket_count && query.sockets[at].fd != fd)
        ++at;
    if (!read && !write) {
        if (at < query.socket_count)
            query.sockets[at] = query.sockets[--query.socket_count];
        return;
    }
    if (at == query.socket_count && at < RESOLVE_MAX_SOCKETS)
        ++query.socket_count;
    if (at < query.socket_count)
        query.sockets[at] = {fd, read != 0, write != 0};
}

// Called from c-ares, also when the channel goes (then the query is no longer pending).
void take_answer(void* argument, int status, int, ares_addrinfo* result) {
    resolve_query& query = *static_cast<resolve_query*>(argument);
    if (query.state == resolve_state::pending && status == ARES_SUCCESS && result != nullptr) {
        for (const ares_addrinfo_node* node = result->nodes; node != nullptr; node = node->ai_next)
            keep(query, node->ai_addr, node->ai_addrlen);
        finish(query);
    } else if (query.state == resolve_state::pending) {
        fail(query, failure_of(status));
    }
    if (result != nullptr)
        ares_freeaddrinfo(result);
}

// Never from inside take_answer: c-ares forbids it.
void close_channel(resolve_query& query) {
    ares_channel channel = channel_of(query);
    query.channel = nullptr;
    if (channel != nullptr)
        ares_destroy(channel);
    query.socket_count = 0;
}

void start_query(resolve_query& query, const char* name) {
    static bool library_ready = false;
    if (!library_ready && ares_library_init(ARES_LIB_INIT_ALL) != ARES_SUCCESS)
        return fail(query, failure::no_memory);
    library_ready = true;
    ares_options options{};
    options.timeout = try_timeout_ms;
    options.tries = tries;
    options.sock_state_cb = note_socket;
    options.sock_state_cb_data = &query;
    ares_channel channel = nullptr;
    const int status =
        ares_init_options(&channel, &options, ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES | ARES_OPT_SOCK_STATE_CB);
    if (status != ARES_SUCCESS)
        return fail(query, status == ARES_ENOMEM ? failure::no_memory : failure::other);
    query.channel = channel;
    const char* servers = std::getenv("WS_CLIENT_DNS_SERVER");
    if (servers != nullptr && ares_set_servers_ports_csv(channel, servers) != ARES_SUCCESS)
        fail(query, failure::bad_server_list);
    ares_addrinfo_hints hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;  // one entry per address
    if (query.state == resolve_state::pending)
        ares_getaddrinfo(channel, name, nullptr, &hints, take_answer, &query);
    if (query.state != resolve_state::pending)  // answered from the hosts file, or refused
        close_channel(query);
}

}  // namespace

const char* resolve_backend() { return "c-ares"; }

bool resolve_watch(const resolve_query& query, select_set& readers, select_set& writers, int* highest) {
    for (std::size_t i = 0; i < query.socket_count; ++i) {
        const auto& socket = query.sockets[i];
        if ((socket.read && !select_set_add(readers, socket.fd)) ||
            (socket.write && !select_set_add(writers, socket.fd)))
            return false;
        if (socket.fd > *highest)
            *highest = socket.fd;
    }
    return true;
}

long resolve_wait_ms(const resolve_query& query) {
    if (query.state != resolve_state::pending)
        return 0;
    const long left = ms_until(query.deadline);
    timeval most{left / 1000, (left % 1000) * 1000}, next{};
    const timeval* wait = ares_timeout(channel_of(query), &most, &next);
    return wait->tv_sec * 1000 + (wait->tv_usec + 999) / 1000;
}

void resolve_advance(resolve_query& query, const select_set* readable, const select_set* writable) {
    if (query.state != resolve_state::pending)
        return;
    const auto ready = [](const select_set* set, bool wanted, int fd) {
        return wanted && set != nullptr && select_set_has(*set, fd) ? fd : ARES_SOCKET_BAD;
    };
    decltype(query.sockets) watched;  // c-ares changes the table as it goes
    const std::size_t count = query.socket_count;
    std::memcpy(watched, query.sockets, sizeof watched);
    bool handled = false;
    for (std::size_t i = 0; i < count && query.state == resolve_state::pending; ++i) {
        const int read = ready(readable, watched[i].read, watched[i].fd);
        const int write = ready(writable, watched[i].write, watched[i].fd);
        if (read != ARES_SOCKET_BAD || write != ARES_SOCKET_BAD) {
            ares_process_fd(channel_of(query), read, write);
            handled = true;
        }
    }
    if (!handled)  // time-outs only
        ares_process_fd(channel_of(query), ARES_SOCKET_BAD, ARES_SOCKET_BAD);
    if (query.state == resolve_state::pending && ms_until(query.deadline) == 0)
        fail(query, failure::timed_out);
    if (query.state != resolve_state::pending)
        close_channel(query);
}

void resolve_free(resolve_query* query) {
    if (query == nullptr)
        return;
    query->state = resolve_state::failed;  // the destroyed channel's answer is not taken
    close_channel(*query);
    std::free(query);
}

#else

// ---- getaddrinfo(): done before resolve_start returns ----

namespace {

failure failure_of(int status) {
    switch (status) {
    case EAI_NONAME: case EAI_NODATA: case EAI_ADDRFAMILY: return failure::not_found;
    case EAI_AGAIN: case EAI_FAIL: return failure::server;  // glibc's time-out is EAI_AGAIN too
    case EAI_MEMORY: return failure::no_memory;
    default: return failure::other;
    }
}

void start_query(resolve_query& query, const char* name) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;  // one entry per address
    addrinfo* list = nullptr;
    const int status = getaddrinfo(name, nullptr, &hints, &list);
    const int saved = errno;
    if (status != 0) {
        fail(query, failure_of(status));
        if (status == EAI_SYSTEM && saved != 0)
            query.error = saved;
        return;
    }
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next)
        keep(query, entry->ai_addr, entry->ai_addrlen);
    freeaddrinfo(list);
    finish(query);
}

}  // namespace

const char* resolve_backend() { return "getaddrinfo"; }
bool resolve_watch(const resolve_query&, select_set&, select_set&, int*) { return true; }
long resolve_wait_ms(const resolve_query&) { return 0; }
void resolve_advance(resolve_query&, const select_set*, const select_set*) {}
void resolve_free(resolve_query* query) { std::free(query); }

#endif

resolve_query* resolve_start(const char* name, uint16_t port, int timeout_ms) {
    auto* query = static_cast<resolve_query*>(std::calloc(1, sizeof(resolve_query)));
    if (query == nullptr)
        return nullptr;
    query->state = resolve_state::pending;
    query->port = port;
    if (clock_gettime(CLOCK_MONOTONIC, &query->deadline) == 0) {  // else {0, 0}: already passed
        const long long end = query->deadline.tv_nsec + (timeout_ms > 0 ? timeout_ms : 0) * 1000000LL;
        query->deadline.tv_sec += static_cast<time_t>(end / 1000000000);
        query->deadline.tv_nsec = static_cast<long>(end % 1000000000);
    }
    sockaddr_storage literal{};
    const socklen_t length = address_parse(name, port, AF_UNSPEC, literal);
    if (length != 0) {
        keep(*query, reinterpret_cast<const sockaddr*>(&literal), length);
        finish(*query);
    } else if (const std::size_t name_length = std::strlen(name);
               name_length == 0 || name_length - (name[name_length - 1] == '.') > longest_name) {
        fail(*query, failure::bad_name);
    } else {
        start_query(*query, name);
    }
    return query;
}
