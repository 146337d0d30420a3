// Connect phases and the blocking driver. The lines these steps log keep the
// unit and procedure names they were always logged under.
#include "connect_machine.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <algorithm>

#include "net.h"
#include "tls_owner.h"
#include "transport.h"
#include "ws_upgrade.h"

#ifdef lua_h
#error "the connect machine must stay free of the interpreter"
#endif

namespace {

constexpr long kAnswerWaitSeconds = 5;
constexpr std::size_t kAnswerCapacity = 1048576;  // one read of at most this less one byte

constexpr connect_outcome next_phase{connect_outcome::next, wait_for::read, 0, nullptr, nullptr, nullptr, nullptr};

connect_outcome again(wait_for what) {
    return {connect_outcome::again, what, 0, nullptr, nullptr, nullptr, nullptr};
}

// A step whose call would block on a non-blocking descriptor waits for it.
bool would_block() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINPROGRESS; }

const stream_guard& guard_of(const connect_state& c) { return c.ws != nullptr ? c.ws->guard : c.tcp->guard; }

// The record's stream for the exchange; false for a secure record whose
// session is gone.
bool stream_of(const connect_state& c, tls_session** tls) {
    return c.ws != nullptr ? record_stream(*c.ws, tls) : record_stream(*c.tcp, tls);
}

// ---- TCP connect ----

// The opt-in wait bound, once connected.
connect_outcome connected(connect_state& c) {
    const double bound = guard_of(c).io_timeout;
    if (bound > 0 && stream_bound_waits(c.fd, bound) == -1)
        return connect_failed(nullptr, nullptr);
    return next_phase;
}

connect_outcome step_tcp(connect_state& c) {
    if (c.blocking)
        return connect_timeout(c.fd, &c.address, c.timeout) == 0 ? connected(c) : connect_failed(nullptr, nullptr);
    const int result = c.started ? connect_finished(c.fd) : connect_start(c.fd, &c.address);
    if (result == 1) {
        c.started = true;
        return again(wait_for::write);
    }
    return result == 0 ? connected(c) : connect_failed(nullptr, nullptr);
}

// ---- TLS handshake ----

connect_outcome tls_failed(const connect_state& c) {
    return connect_failed(c.texts->tls_message, c.texts->tls_reason, nullptr, "ssl_connect_fail\n");
}

connect_outcome step_tls(connect_state& c) {
    if (c.blocking) {
        const int done = c.ws != nullptr ? wss_ssl_connect(c.ws, c.host) : tcp_ssl_connect(c.tcp);
        return done == 0 ? next_phase : tls_failed(c);
    }
    if (!c.started) {
        c.started = true;
        if ((c.ws != nullptr ? wss_ssl_begin(c.ws, c.host) : tcp_ssl_begin(c.tcp)) != 0)
            return tls_failed(c);
    }
    tls_session* tls = nullptr;
    switch (stream_of(c, &tls) && tls != nullptr ? tls_session_step(tls) : tls_progress::failed) {
    case tls_progress::done:
        return next_phase;
    case tls_progress::want_read:
        return again(wait_for::read);
    case tls_progress::want_write:
        return again(wait_for::write);
    default:
        return tls_failed(c);
    }
}

// ---- the upgrade ----

connect_outcome handshake_failed() { return connect_failed(nullptr, "handshake fail", "do handshake fail\n"); }

// The request with a fresh key; the record keeps the key and the accept
// value the answer must carry.
void make_request(connect_state& c) {
    ws_record& ws = *c.ws;
    sec_websocket_key(ws.sec_ws_key);
    sec_websocket_accept(ws.sec_ws_key, ws.sec_ws_accept);
    WS_LOG_IN("handshake", "do_handshake", "sec_ws_accept is %s\n", ws.sec_ws_accept);
    const int length = format_handshake_request(c.request, c.path, c.host, ws.sec_ws_key);
    c.request_length = length > 0 ? static_cast<std::size_t>(length) : 0;
    WS_LOG_IN("handshake", "do_handshake", "handshake str is\n%s\n", c.request);
}

// Written once on a blocking descriptor (a short write counts as sent);
// otherwise until all of it went.
connect_outcome step_send_upgrade(connect_state& c) {
    if (!c.started) {
        c.started = true;
        WS_LOG_IN("ws_connect", "do_new_connect", "will do handshake\n");
        if (c.upgrade == nullptr)
            make_request(c);
        if (c.request_length == 0)
            return handshake_failed();
    }
    tls_session* tls = nullptr;
    const long sent =
        stream_of(c, &tls) ? stream_write(c.fd, tls, c.request + c.sent, c.request_length - c.sent) : -1;
    if (sent == -1)
        return !c.blocking && would_block() ? again(wait_for::write) : handshake_failed();
    c.sent += static_cast<std::size_t>(sent);
    return c.blocking || c.sent == c.request_length ? next_phase : again(wait_for::write);
}

// The wait for the answer: 5 s, or io_timeout when the script set one (a
// wait that runs out is then ETIMEDOUT, as every bounded wait's).
bool answer_arrives(const connect_state& c) {
    const double bound = guard_of(c).io_timeout;
    timeval wait = bound > 0 ? bound_wait(bound) : timeval{kAnswerWaitSeconds, 0};
    const int ready = select_single(c.fd, wait_for::read, &wait);
    if (ready == 0 && bound > 0)
        errno = ETIMEDOUT;
    return ready > 0;
}

// The designed answer: one read after the wait, checked as text (the status
// line, then the accept value after its header's name).
connect_outcome read_answer_once(connect_state& c, bool live, tls_session* tls) {
    if (!answer_arrives(c))
        return handshake_failed();
    const long nread = live ? stream_read_grow(c.fd, tls, c.answer, 0, kAnswerCapacity - 1) : -1;
    c.have = nread > 0 ? static_cast<std::size_t>(nread) : 0;  // a failed read counts as an empty answer
    if (!heap_grow(c.answer, c.have))
        return handshake_failed();  // (the spare byte after it is the terminator)
    char* const answer = reinterpret_cast<char*>(c.answer.bytes);
    WS_LOG_IN("handshake", "handshake_result", "handshake_result is:\n%s\n", answer);
    if (nread == 0 || (nread == -1 && errno != EINTR && errno != EAGAIN)) {
        WS_LOG_IN("handshake", "handshake_result", "handshake_result nread is %d\n", static_cast<int>(nread));
        return handshake_failed();
    }
    const std::span<const char> got(answer, c.have);
    const answer_check check = check_upgrade_answer(got, c.ws->sec_ws_accept, c.scan);
    if (!answer_status_ok(got) || check_ws_accept(c.ws, answer) != 0)
        return handshake_failed();
    WS_LOG_IN("handshake", "handshake_result", "handshake_result is:\n%s\n", answer);
    c.answer_used = check.what == answer_verdict::complete ? check.used : c.have;
    return next_phase;
}

// Reads until the answer is complete: what follows it stays for the caller.
connect_outcome read_answer_whole(connect_state& c, tls_session* tls) {
    if (c.have + 1 >= kAnswerCapacity)
        return handshake_failed();
    const long nread = stream_read_grow(c.fd, tls, c.answer, c.have, kAnswerCapacity - 1 - c.have);
    if (nread == -1 && would_block())
        return again(wait_for::read);
    if (nread <= 0)
        return handshake_failed();
    c.have += static_cast<std::size_t>(nread);
    const char* const answer = reinterpret_cast<const char*>(c.answer.bytes);
    const answer_check check = check_upgrade_answer({answer, c.have}, c.ws->sec_ws_accept, c.scan);
    if (check.what == answer_verdict::needs_more)
        return c.have + 1 < kAnswerCapacity ? again(wait_for::read) : handshake_failed();
    if (check.what == answer_verdict::refused)
        return handshake_failed();
    c.answer_used = check.used;
    return next_phase;
}

// Monotonic milliseconds.
int64_t now_ms() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

// Standard mode: reads until the blank line, however the answer is cut, with
// 5 s for the whole answer on a blocking descriptor; what follows stays.
constexpr std::size_t kStandardAnswerMax = 16384;  // a longer answer fails the handshake

connect_outcome read_answer_standard(connect_state& c, tls_session* tls) {
    const int64_t until = now_ms() + kAnswerWaitSeconds * 1000;
    for (;;) {
        if (c.blocking && (tls == nullptr || tls_pending(tls) == 0)) {
            const int64_t left = std::max<int64_t>(until - now_ms(), 0);
            timeval wait{static_cast<time_t>(left / 1000), static_cast<suseconds_t>(left % 1000 * 1000)};
            if (select_single(c.fd, wait_for::read, &wait) <= 0)
                return handshake_failed();
        }
        const long nread = stream_read_grow(c.fd, tls, c.answer, c.have, kStandardAnswerMax - 1 - c.have);
        if (nread == -1 && errno == EINTR)
            continue;
        if (nread == -1 && !c.blocking && would_block())
            return again(wait_for::read);
        if (nread <= 0)
            return handshake_failed();
        c.have += static_cast<std::size_t>(nread);
        const answer_check check = ws_upgrade_check({reinterpret_cast<const char*>(c.answer.bytes), c.have}, *c.upgrade);
        if (check.what == answer_verdict::refused || (check.what == answer_verdict::needs_more && c.have + 1 >= kStandardAnswerMax))
            return handshake_failed();
        if (check.what == answer_verdict::complete) {
            c.answer_used = check.used;
            return next_phase;
        }
    }
}

connect_outcome step_read_upgrade(connect_state& c) {
    tls_session* tls = nullptr;
    const bool live = stream_of(c, &tls);
    const connect_outcome outcome = c.upgrade != nullptr ? (live ? read_answer_standard(c, tls) : handshake_failed())
                                  : c.blocking ? read_answer_once(c, live, tls)
                                  : live       ? read_answer_whole(c, tls)
                                               : handshake_failed();
    if (outcome.what != connect_outcome::again)
        WS_LOG_IN("handshake", "do_handshake", "handshake result is %d\n", outcome.what == connect_outcome::next ? 1 : -1);
    return outcome;
}

// ---- phases ----

using step_function = connect_outcome (*)(connect_state&);
constexpr step_function steps[] = {step_tcp, step_tls, step_send_upgrade, step_read_upgrade};
static_assert(std::size(steps) == static_cast<std::size_t>(connect_phase::open));

// The phase after `at`: a plain connect has no TLS, a TCP one no upgrade.
connect_phase after(const connect_state& c, connect_phase at) {
    const bool secure = c.ws != nullptr ? c.ws->is_secure == 1 : c.tcp->is_secure == 1;
    if (at == connect_phase::tcp && secure)
        return connect_phase::tls;
    if (at == connect_phase::tcp || at == connect_phase::tls)
        return c.ws != nullptr ? connect_phase::send_upgrade : connect_phase::open;
    return at == connect_phase::send_upgrade ? connect_phase::read_upgrade : connect_phase::open;
}

}  // namespace

connect_outcome connect_failed(const char* message, const char* reason, const char* log_before, const char* log_after) {
    return {connect_outcome::failed, wait_for::read, errno, message, reason, log_before, log_after};
}

connect_outcome connect_advance(connect_state& c) {
    while (c.phase != connect_phase::open) {
        const connect_outcome outcome = steps[static_cast<int>(c.phase)](c);
        if (outcome.what != connect_outcome::next)
            return outcome;
        c.phase = after(c, c.phase);
        c.started = false;
    }
    return {connect_outcome::opened, wait_for::read, 0, nullptr, nullptr, nullptr, nullptr};
}

connect_outcome connect_blocking(connect_state& c) {
    c.blocking = true;
    return connect_advance(c);
}

std::span<const char> connect_leftover(const connect_state& c) {
    if (c.phase != connect_phase::open || c.answer.bytes == nullptr)
        return {};
    return {reinterpret_cast<const char*>(c.answer.bytes) + c.answer_used, c.have - c.answer_used};
}

void connect_release(connect_state& c) { heap_trim(c.answer, 0); }
