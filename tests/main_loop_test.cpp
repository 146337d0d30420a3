// The event loop driven from the script, with real UDP traffic on 127.0.0.1.
#include <gmock/gmock.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "udp_fixture.h"

using ::testing::HasSubstr;

namespace {

// Every loop here ends by itself: `deadline(s)` returns a periodic function
// that stops the loop (setting timed_out) once s seconds have passed.
constexpr const char* kDeadline = R"(
    function deadline(seconds, also)
        local t0 = now()
        return function()
            if also then also() end
            if now() - t0 > seconds then timed_out = true; ws.loop_stop() end
        end
    end
)";

class MainLoopTest : public UdpLuaTest {
protected:
    void SetUp() override {
        UdpLuaTest::SetUp();
        LUA_OK(kDeadline);
        LUA_OK("peer, peer_port = peer_open(); got = {}");
    }
    // A registered socket named `name`, bound to loopback; its messages are
    // appended to `got` as { name, data, from, port }.
    void make_socket(const std::string& name, const std::string& extra = "") {
        LUA_OK(name + " = ws.udp_connect(ws.udp_new(), { type = 2, on_message = function(data, from, port) " +
               "got[#got + 1] = { '" + name + "', data, from, port } " + extra + " end }); " + name +
               "_port = bind_loopback(" + name + ")");
    }
};

TEST_F(MainLoopTest, DatagramsTravelBothWaysWithTheSendersAddress) {
    make_socket("a", "if #got == 2 then ws.loop_stop() end");
    LUA_OK(R"(
        assert(ws.udp_sendto(a, "ping", "127.0.0.1", peer_port) == 4)
        ws.loop_start(deadline(5, function()
            local data, port = peer_recv(peer, 0)
            if data then
                peer_send(peer, port, data .. "!")
                peer_send(peer, port, "hi\0there")
            end
        end), 1, 0)
        assert(not timed_out)
        assert(got[1][2] == "ping!" and got[1][3] == "127.0.0.1" and got[1][4] == peer_port)
        assert(got[2][2] == "hi", "cut at the zero byte")
    )");
}

TEST_F(MainLoopTest, FailingOnMessageDoesNotStopTheLoop) {
    LUA_OK(R"(
        s = ws.udp_connect(ws.udp_new(), { type = 2, on_message = function(data)
            got[#got + 1] = data
            if data == "boom" then error("script failure") end
            ws.loop_stop()
        end })
        local port = bind_loopback(s)
        peer_send(peer, port, "boom")
        peer_send(peer, port, "ok")
        ws.loop_start(deadline(5), 1, 0)
        assert(not timed_out and #got == 2 and got[2] == "ok")
    )");
}

TEST_F(MainLoopTest, StopFromOnMessageEndsTheLoopAfterThePass) {
    make_socket("first", "ws.loop_stop()");
    make_socket("second");
    LUA_OK(R"(
        peer_send(peer, first_port, "1")
        peer_send(peer, second_port, "2")
        ticks = 0
        ws.loop_start(function() ticks = ticks + 1 end, 1, 1)
        assert(#got == 2, "the other readable socket of the pass was served")
        assert(got[1][1] == "first" and got[2][1] == "second")
        assert(ticks == 0, "ended with the first pass")
    )");
}

TEST_F(MainLoopTest, PeriodicFunctionRunsCallsPerTickTimes) {
    LUA_OK(R"(
        calls, heights = 0, {}
        ws.loop_start(function(...)
            calls = calls + 1
            heights[select("#", ...)] = true
            if calls == 30 then ws.loop_stop() end
            if calls > 1000 then error("not stopped") end
        end, "3", 0)
        assert(calls == 30, calls)
        assert(heights[0] and not heights[1], "called without arguments")
        assert(debug.getregistry().loop_ctl == 0)
    )");
    EXPECT_THAT(run("ws.loop_start(42, 1, 0)"), HasSubstr("attempt to call a number value"));
    EXPECT_THAT(run("ws.loop_start(function() error('from periodic') end, 1, 0)"), HasSubstr("from periodic"));
    EXPECT_THAT(run("ws.loop_start(function() end, 1)"), HasSubstr("bad argument #3"));
    EXPECT_THAT(run("ws.loop_start(function() end, 1, {})"), HasSubstr("number expected"));
}

TEST_F(MainLoopTest, FirstPeriodicCallComesAfterTheInterval) {
    LUA_OK(R"(
        calls = 0
        local t0 = now()
        ws.loop_start(function()
            calls = calls + 1
            if calls == 2 then ws.loop_stop() end
        end, 2, 1)
        elapsed = now() - t0
        assert(calls == 2, "both calls of the tick happen")
    )");
    EXPECT_GE(global_number("elapsed"), 0.9);
}

TEST_F(MainLoopTest, NoPeriodicCallsWithZeroPerTick) {
    make_socket("stopper", "ws.loop_stop()");
    const DelayedDatagram stop(static_cast<int>(global_number("stopper_port")), 0.3);
    LUA_OK(R"(
        calls = 0
        ws.loop_start(function() calls = calls + 1 end, 0, 0)
        assert(calls == 0 and #got == 1)
    )");
}

// Values on loop_start's own stack when called from a callback it ran.
constexpr const char* kFrameProbe = R"(
    function loop_frame_values()
        for level = 1, 50 do
            local info = debug.getinfo(level, "f")
            if not info then return nil end
            if info.func == ws.loop_start then
                local n = 0
                while debug.getlocal(level, n + 1) do n = n + 1 end
                return n
            end
        end
    end
)";

// Regression: a readable descriptor of an unknown kind left two values on the
// interpreter stack, per socket and per pass, past the room the stack has.
TEST_F(MainLoopTest, UnknownKindIsSkippedWithoutGrowingTheStack) {
    LUA_OK(kFrameProbe);
    LUA_OK(R"(
        for i = 1, 30 do
            local odd = ws.udp_connect(ws.udp_new(), { type = 7, on_message = function() got[#got + 1] = { "odd" } end })
            peer_send(peer, bind_loopback(odd), "never read")
        end
    )");
    make_socket("stopper", "frame_values = loop_frame_values(); ws.loop_stop()");  // walked after the others
    const DelayedDatagram stop(static_cast<int>(global_number("stopper_port")), 0.3);
    LUA_OK(R"(
        ws.loop_start(function() end, 0, 0)
        assert(#got == 1 and got[1][1] == "stopper")
        assert(frame_values and frame_values < 20, tostring(frame_values))
    )");
}

TEST_F(MainLoopTest, OptionsWithoutTypeRaiseOutOfLoopStart) {
    LUA_OK(R"(
        untyped = ws.udp_connect(ws.udp_new(), { on_message = function() end })
        peer_send(peer, bind_loopback(untyped), "x")
    )");
    EXPECT_THAT(run("ws.loop_start(deadline(5), 1, 0)"), HasSubstr("number expected, got nil"));
}

TEST_F(MainLoopTest, CloseInsideOnMessageDefersTheSocketThatMovedIntoTheSlot) {
    make_socket("A", "ws.udp_close(A); collectgarbage('collect')");
    make_socket("B");
    make_socket("C");
    LUA_OK(R"(
        for _, port in ipairs({ A_port, B_port, C_port }) do peer_send(peer, port, "x") end
        A_fd = fd_of(A)
        ws.loop_start(deadline(5, function() if #got == 3 then ws.loop_stop() end end), 1, 0)
        assert(not timed_out)
        local order = got[1][1] .. got[2][1] .. got[3][1]
        assert(order == "ACB", order)
        assert(not fd_is_open(A_fd))
    )");
    EXPECT_EQ(socktbl[2], 0);
}

TEST_F(MainLoopTest, FatalSelectErrorSweepsEverySlot) {
    LUA_OK(R"(
        events = {}
        local function named(name)
            return { type = 2,
                on_error = function(n, text) events[#events + 1] = "error " .. name .. " " .. n .. " " .. text end,
                on_close = function(text) events[#events + 1] = "close " .. name .. " " .. text end }
        end
        A = ws.udp_connect(ws.udp_new(), named("A"))
        B = ws.udp_connect(ws.udp_new(), named("B"))
        C = ws.udp_connect(ws.udp_new(), named("C"))
        close_fd(fd_of(A))  -- behind the module's back: select() now fails with EBADF
    )");
    // The table closes up under the sweep: it reaches A and C, then meets an
    // empty slot whose kind lookup raises.
    EXPECT_THAT(run("ws.loop_start(deadline(5), 1, 1)"), HasSubstr("attempt to index a nil value"));
    LUA_OK(R"(
        local expected = { "error A 9 Bad file descriptor", "close A Bad file descriptor",
                           "error C 9 Bad file descriptor", "close C Bad file descriptor" }
        assert(#events == #expected, table.concat(events, "; "))
        for i, line in ipairs(expected) do assert(events[i] == line, events[i]) end
        B_fd = fd_of(B)
    )");
    EXPECT_EQ(socktbl[0], static_cast<int32_t>(global_number("B_fd")));
    EXPECT_EQ(socktbl[1], 0);
}

volatile sig_atomic_t signals_seen = 0;
void count_signal(int) { signals_seen = signals_seen + 1; }

// SIGALRM with a handler that does nothing and does not restart calls.
class AlarmSignals {
public:
    explicit AlarmSignals(long first_usec, long interval_usec) {
        signals_seen = 0;
        struct sigaction action {};
        action.sa_handler = count_signal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        sigaction(SIGALRM, &action, &saved_);
        itimerval timer{{0, interval_usec}, {0, first_usec}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    ~AlarmSignals() {
        itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &saved_, nullptr);
    }

private:
    struct sigaction saved_ {};
};

TEST_F(MainLoopTest, InterruptedSelectKeepsTheRemainingTime) {
    const std::string log = testing::TempDir() + "main_loop_eintr.log";
    std::remove(log.c_str());
    make_socket("stopper", "ws.loop_stop()");
    const DelayedDatagram stop(static_cast<int>(global_number("stopper_port")), 5.0);
    LUA_OK("ws.set_debug('" + log + "')");
    {
        const AlarmSignals signals(50000, 50000);
        LUA_OK(R"(
            calls = 0
            local t0 = now()
            ws.loop_start(function() calls = calls + 1; ws.loop_stop() end, 1, 2)
            elapsed = now() - t0
            ws.set_debug("NULL")
            assert(#got == 0, "the timer ran out despite a signal every 50 ms")
            assert(calls == 1)
        )");
    }
    EXPECT_GE(signals_seen, 5);
    // the first call comes once less than a whole second of the 2 is left
    EXPECT_GE(global_number("elapsed"), 0.9);
    std::ifstream file(log);
    std::stringstream text;
    text << file.rdbuf();
    EXPECT_THAT(text.str(), HasSubstr("EINTR error, just break, Interrupted system call\n"));
    EXPECT_THAT(text.str(), HasSubstr("Main select error\n"));
    EXPECT_THAT(text.str(), ::testing::ContainsRegex("File: main_loop, Function: main_loop, Line: [0-9]{5}\\]: "
                                                     "EINTR error"));
    std::remove(log.c_str());
}

TEST_F(MainLoopTest, SleepResumesAfterASignal) {
    const AlarmSignals signal(200000, 0);
    LUA_OK("local t0 = now(); ws.sleep(1.5); slept = now() - t0");
    EXPECT_EQ(signals_seen, 1);
    EXPECT_GE(global_number("slept"), 1.45);
    LUA_OK("local t0 = now(); ws.sleep(0); ws.sleep(-1); ws.sleep(-0.5); quick = now() - t0");
    EXPECT_LT(global_number("quick"), 0.5);
    EXPECT_THAT(run("ws.sleep('soon')"), HasSubstr("number expected"));
}

// 1024 sockets with descriptors well past FD_SETSIZE: the sets must hold them.
TEST_F(MainLoopTest, ServesAFullTableWithDescriptorsAbove1023) {
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit raised = saved;
    if (raised.rlim_cur < 4096)
        raised.rlim_cur = std::min<rlim_t>(4096, raised.rlim_max);
    if (raised.rlim_cur < 1500)
        GTEST_SKIP() << "descriptor limit too low";
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    const std::vector<int> filler = occupy_descriptors_below(300);
    const std::string result = run(R"(
        local opts = { type = 2, on_message = function(data, from, port)
            got[#got + 1] = data; ws.loop_stop() end }
        local sockets = {}
        for i = 1, 1024 do sockets[i] = ws.udp_connect(ws.udp_new(), opts) end
        last = sockets[1024]
        highest = fd_of(last)
        full = {}
        local late = ws.udp_new()
        ws.udp_connect(late, { type = 2, on_error = function(n, text) full[#full + 1] = text end })
        peer_send(peer, bind_loopback(last), "to the last one")
        ws.loop_start(deadline(5), 1, 0)
    )");
    for (int fd : filler)
        close(fd);
    ASSERT_EQ(result, "");
    EXPECT_GT(global_number("highest"), 1023);
    EXPECT_EQ(static_cast<double>(socktbl[SOCKET_TABLE_SIZE - 1]), global_number("highest"));
    LUA_OK(R"(
        assert(not timed_out and #got == 1 and got[1] == "to the last one")
        assert(full[1] == "socktbl is full now")
    )");
    // sockets are closed by the fixture before the limit goes back down
    UdpLuaTest::TearDown();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    UdpLuaTest::SetUp();
}

}  // namespace
