// The event loop.
#include "main_loop.h"

#include <sys/select.h>

#include <cerrno>
#include <cstring>

#include "callbacks.h"
#include "conn_table.h"
#include "fdset.h"
#include "kinds.h"
#include "loop_conn.h"
#include "socket_table.h"
#include "tools.h"

#define LOG_UNIT "main_loop"
// The loop's steps live in small helpers but log as the loop itself.
constexpr const char* LOOP = "main_loop";

namespace {

constexpr int32_t LOOP_STOP = 0;
constexpr long TIMER_SLACK_USEC = 2000;

// Read and error sets shared by every run; see `select_generation`.
select_set read_fds{};
select_set error_fds{};
// Descriptors that wait for writability: connects under way, queued bytes.
// Empty, and not passed to select(), while no connection asks for it.
select_set write_fds{};
// Counts the loop's select() calls. A run nested inside a callback rebuilds
// the shared sets; the outer walk notices the change and leaves the rest of
// its pass to the next pass (select() is level-triggered, nothing is lost).
unsigned long select_generation = 0;

void run_periodic(lua_State* L, int32_t calls_per_tick) {
    WS_LOG_AS(LOOP, "will Do Main loop, try to get lua loop callback function!\n");
    for (int32_t call = 0; call < calls_per_tick; ++call) {
        lua_getfield(L, LUA_REGISTRYINDEX, "main_loop");
        WS_LOG_AS(LOOP, "will Do Main loop\n");
        lua_call(L, 0, 0);  // unprotected: its errors end the loop
        lua_settop(L, 0);
        WS_LOG_AS(LOOP, "<-- %s out stack len is %d -->\n", "main_loop", lua_gettop(L));
    }
}

// on_error, then the close with the text of errno as on_error left it.
void fail(lua_State* L, int32_t fd) {
    report_and_close(L, fd, std::strerror(errno), nullptr, [&](const char* text) { do_close(L, fd, text); });
    lua_settop(L, 0);
}

// Set-ups the loop drives are in no slot: they fail first, with the same
// errno, so that none is left waiting on a loop that has ended.
void fail_set_ups(lua_State* L) {
    const int error = errno;
    for (int fd = conn_next(-1); fd != -1; fd = conn_next(fd)) {
        const conn_entry* entry = conn_at(fd);
        if (entry == nullptr || conn_loop_state(fd) == nullptr || entry->phase == connect_phase::open)
            continue;
        errno = error;
        fail(L, fd);
    }
    errno = error;
}

// A failed select() other than EINTR: every slot, occupied or not, gets
// on_error and a close. The table closes up under the sweep and empty slots
// reach do_close with descriptor 0, whose kind lookup raises.
int fatal_sweep(lua_State* L) {
    WS_LOG_AS(LOOP, "Main select error\n");
    fail_set_ups(L);
    for (int slot = 0; slot < SOCKET_TABLE_SIZE; ++slot) {
        // the slot is read again for the close: on_error may have moved the table
        report_and_close(L, socktbl[slot], std::strerror(errno), nullptr,
                         [&](const char* text) { do_close(L, socktbl[slot], text); });
        lua_settop(L, 0);
    }
    WS_LOG_AS(LOOP, "Main return -1\n");
    return -1;
}

void receive_stream(lua_State* L, int32_t fd, const kind_ops& kind) {
    int error = 0;
    const int received = kind.receive(L, fd, &error);
    const bool failed = received == 0 || (received == -1 && error != EINTR && error != EAGAIN);
    if (!failed)
        return;
    WS_LOG_AS(LOOP, "Main receive len is %d, err_no: %d, errstr: %s\n", received, error, std::strerror(error));
    WS_LOG_AS(LOOP, "EINTR is %d, EAGAIN is %d\n", EINTR, EAGAIN);
    fail(L, fd);
    WS_LOG_AS(LOOP, "Main return %d\n", received);
}

void serve_readable(lua_State* L, int32_t fd) {
    WS_LOG_AS(LOOP, "Main select receive\n");
    const kind_ops* kind = kind_ops_of(get_sock_type(L, fd));
    if (kind != nullptr && kind->failure_ends_connection) {
        receive_stream(L, fd, *kind);
    } else if (kind != nullptr) {
        WS_LOG_AS(LOOP, "will do udp recv\n");  // a datagram's failure ends nothing
        int error = 0;
        kind->receive(L, fd, &error);
    }
    lua_settop(L, 0);  // the kind lookup leaves two values; keep the stack bounded
}

// Serves the descriptors select() reported. Callbacks may close sockets: the
// table closes up, and the socket that moved into a freed slot waits for the
// next pass.
void walk_ready(lua_State* L) {
    const unsigned long generation = select_generation;
    for (int slot = 0; slot < SOCKET_TABLE_SIZE && socktbl[slot] != 0; ++slot) {
        const int32_t fd = socktbl[slot];
        const bool readable = select_set_has(read_fds, fd);
        if (!readable && select_set_has(error_fds, fd)) {
            WS_LOG_AS(LOOP, "Main switch come in error\n");
            fail(L, fd);
            WS_LOG_AS(LOOP, "Main return -1\n");
        } else if (readable) {
            serve_readable(L, fd);
        } else {
            continue;
        }
        if (select_generation != generation)
            break;  // a nested run reused the sets
    }
    WS_LOG_AS(LOOP, "switch readable break\n");
}

// ---- connections that wait for more than reading ----

// The resolver's pending query of fd's loop-driven set-up, or null.
resolve_query* pending_query(int fd) {
    const auto* conn = static_cast<const loop_conn*>(conn_loop_state(fd));
    return conn != nullptr && conn->query != nullptr && conn->query->state == resolve_state::pending ? conn->query
                                                                                                      : nullptr;
}

// Adds what the connection entries wait for to the sets (a set-up waiting
// to read joins the read set: it is in no slot yet) and gives the nearest
// deadline (0: none). False when the entries add nothing; *highest -2 when
// a set could not grow.
bool add_waiting_fds(int* highest, int64_t* nearest) {
    bool any = false;
    select_set_clear(write_fds);
    for (int fd = conn_next(-1); fd != -1 && *highest != -2; fd = conn_next(fd)) {
        const conn_entry& entry = *conn_at(fd);
        bool added = true;
        if (entry.wants == conn_wait::write)
            added = select_set_add(write_fds, fd);
        else if (entry.wants == conn_wait::read && entry.phase != connect_phase::open)
            added = select_set_add(read_fds, fd);
        int64_t due = entry.deadline_ms;
        if (const resolve_query* query = pending_query(fd)) {
            added = added && resolve_watch(*query, read_fds, write_fds, highest);
            const int64_t resolver_due = monotonic_ms() + resolve_wait_ms(*query);
            due = due == 0 || resolver_due < due ? resolver_due : due;
        }
        if (!added) {
            errno = ENOMEM;
            *highest = -2;
        }
        if (entry.wants != conn_wait::none && fd > *highest && *highest != -2)
            *highest = fd;
        if (due != 0 && (*nearest == 0 || due < *nearest))
            *nearest = due;
        any = any || entry.wants != conn_wait::none || due != 0;
    }
    return any;
}

// Whether fd's entry is due a step after select() (`selected`: select()
// reported readiness, so the sets are meaningful).
bool step_due(conn_entry& entry, int fd, bool selected, int64_t now) {
    if (resolve_query* query = pending_query(fd)) {
        resolve_advance(*query, selected ? &read_fds : nullptr, selected ? &write_fds : nullptr);
        if (query->state != resolve_state::pending)
            return true;
    }
    if (selected && entry.wants == conn_wait::write && select_set_has(write_fds, fd))
        return true;
    if (selected && entry.wants == conn_wait::read && entry.phase != connect_phase::open &&
        select_set_has(read_fds, fd))
        return true;
    return entry.deadline_ms != 0 && now >= entry.deadline_ms;
}

// Steps every connection that became ready or whose deadline passed. A step
// may close or open connections: each descriptor is looked at once, under
// the connection it had when the walk reached it.
void serve_waiting(lua_State* L, bool selected, unsigned long generation) {
    if (select_generation != generation)
        return;  // a nested run inside a receive reused the sets
    const int64_t now = monotonic_ms();
    for (int fd = conn_next(-1); fd != -1; fd = conn_next(fd)) {
        conn_entry* entry = conn_at(fd);
        if (entry == nullptr || !step_due(*entry, fd, selected, now))
            continue;
        const kind_ops* kind = kind_ops_of(get_sock_type(L, fd));
        if (kind != nullptr && kind->step != nullptr)
            kind->step(L, fd);
        lua_settop(L, 0);
        if (select_generation != generation)
            break;  // a nested run reused the sets
    }
}

// A wait shorter than the timer's for `nearest`: the timer keeps its own
// remaining time, counted down here as select() would have.
struct timer_wait {
    timeval shorter;
    int64_t started_ms;
    bool used;
};

timer_wait plan_wait(const timeval& timer, int64_t nearest) {
    timer_wait wait{timer, 0, false};
    if (nearest == 0)
        return wait;
    wait.started_ms = monotonic_ms();
    const int64_t left = nearest > wait.started_ms ? nearest - wait.started_ms : 0;
    if (left * 1000 < static_cast<int64_t>(timer.tv_sec) * 1000000 + timer.tv_usec) {
        wait.shorter = {static_cast<time_t>(left / 1000), static_cast<suseconds_t>(left % 1000 * 1000)};
        wait.used = true;
    }
    return wait;
}

void count_down(timeval& timer, const timer_wait& wait) {
    const int64_t elapsed_us = (monotonic_ms() - wait.started_ms) * 1000;
    int64_t left = static_cast<int64_t>(timer.tv_sec) * 1000000 + timer.tv_usec - elapsed_us;
    if (left < 0)
        left = 0;
    timer = {static_cast<time_t>(left / 1000000), static_cast<suseconds_t>(left % 1000000)};
}

bool loop_continues(lua_State* L) {
    WS_LOG_AS(LOOP, "Main check loop_continue\n");
    lua_getfield(L, LUA_REGISTRYINDEX, "loop_ctl");
    const int32_t loop_continue = number_to_int32(lua_tonumber(L, -1));
    lua_settop(L, 0);  // nothing clears the stack on a quiet pass
    WS_LOG_AS(LOOP, "loop_continue is %d\n", loop_continue);
    WS_LOG_AS(LOOP, "loop_continue == LOOP_STOP is %d\n", loop_continue == LOOP_STOP);
    return loop_continue != LOOP_STOP;
}

}  // namespace

int add_select_fds(select_set& read_set, select_set& error_set) {
    select_set_clear(read_set);
    select_set_clear(error_set);
    int highest = -1;
    for (int slot = 0; slot < SOCKET_TABLE_SIZE && socktbl[slot] != 0; ++slot) {
        const int32_t fd = socktbl[slot];
        if (!select_set_add(read_set, fd) || !select_set_add(error_set, fd)) {
            errno = ENOMEM;
            return -2;
        }
        if (fd > highest)
            highest = fd;
        WS_LOG("Now has sockfd %d\n", fd);
    }
    return highest;
}

int main_loop(lua_State* L, int32_t calls_per_tick, int32_t interval_sec) {
    timeval timeout{interval_sec, TIMER_SLACK_USEC};
    for (;;) {
        WS_LOG("\n\nmain loop, timeout.tv_sec = %d\n\n", static_cast<int>(timeout.tv_sec));
        WS_LOG("\n\n\nmain loop, timeout.tv_sec == 0 is %d\n\n\n", timeout.tv_sec == 0);
        // Linux select() leaves the time that remained in `timeout`: the
        // periodic function runs once less than a whole second is left.
        if (timeout.tv_sec == 0) {
            timeout = {interval_sec, TIMER_SLACK_USEC};
            run_periodic(L, calls_per_tick);
        }
        int highest = add_select_fds(read_fds, error_fds);
        int64_t nearest = 0;
        // nothing changes while no connection waits for more than reading
        const bool waiting = highest != -2 && conn_count() > 0 && add_waiting_fds(&highest, &nearest);
        const unsigned long generation = ++select_generation;
        timer_wait wait = plan_wait(timeout, nearest);
        const int ready = highest == -2 ? -1
                                        : select(highest + 1, select_set_fds(read_fds),
                                                 waiting ? select_set_fds(write_fds) : nullptr,
                                                 select_set_fds(error_fds), wait.used ? &wait.shorter : &timeout);
        if (wait.used)
            count_down(timeout, wait);
        if (ready == 0 && wait.used) {
            WS_LOG("connect deadline or resolver wake-up\n");
        } else if (ready < 0 && errno == EINTR) {
            WS_LOG("Main select error\n");
            WS_LOG("EINTR error, just break, %s\n", std::strerror(errno));
        } else if (ready < 0) {
            return fatal_sweep(L);
        } else if (ready == 0) {
            timeout.tv_sec = 0;
            WS_LOG("Main select timeout break\n");
        } else {
            walk_ready(L);
        }
        if (waiting && ready >= 0)
            serve_waiting(L, ready > 0, generation);
        if (!loop_continues(L)) {
            WS_LOG("main loop out\n");
            return 1;
        }
    }
}
