// The event loop driven from the script, with real UDP traffic on 127.0.0.1.
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>

#include "lua_fixture.h"

namespace {

class MainLoopTest : public SocketTest {
protected:
    void SetUp() override {
        SocketTest::SetUp();
        LUA_OK("peer, peer_port = peer_open(); got = {}");
    }
    // A registered socket `name` bound to loopback (its port in name_port);
    // its messages are appended to `got` as { name, data, from, port }.
    void make_socket(const std::string& name, const std::string& extra = "") {
        LUA_OK(name + " = ws.udp_connect(ws.udp_new(), { type = 2, on_message = function(data, from, port) " +
               "got[#got + 1] = { '" + name + "', data, from, port } " + extra + " end }); " + name +
               "_port = bind_loopback(" + name + ")");
    }
};

// A failing on_message does not stop the loop either.
TEST_F(MainLoopTest, DatagramsTravelBothWaysWithTheSendersAddress) {
    make_socket("a", "if #got == 2 then ws.loop_stop() end; error('script failure')");
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

// A socket closed in on_message: the one that moves into its slot waits for
// the next pass. loop_stop there ends the loop after the pass (C is served, B never).
TEST_F(MainLoopTest, CloseAndStopInsideOnMessage) {
    make_socket("A", "ws.udp_close(A); collectgarbage('collect'); ws.loop_stop()");
    make_socket("B");
    make_socket("C");
    LUA_OK(R"(
        for _, port in ipairs({ A_port, B_port, C_port }) do peer_send(peer, port, "x") end
        A_fd, ticks = fd_of(A), 0
        ws.loop_start(function() ticks = ticks + 1; ws.loop_stop() end, 1, 1)
        assert(#got == 2 and got[1][1] .. got[2][1] == "AC" and ticks == 0)
        assert(not fd_is_open(A_fd))
    )");
    EXPECT_EQ(socktbl[2], 0);
}

TEST_F(MainLoopTest, PeriodicFunctionRunsCallsPerTickTimesWithoutArguments) {
    LUA_OK(R"(
        calls, nargs = 0, 0
        ws.loop_start(function(...)
            calls, nargs = calls + 1, nargs + select("#", ...)
            if calls == 30 then ws.loop_stop() end
            if calls > 1000 then error("not stopped") end
        end, "3", 0)
        assert(calls == 30 and nargs == 0 and debug.getregistry().loop_ctl == 0, calls)
    )");
    EXPECT_THAT(run("ws.loop_start(function() error('from periodic') end, 1, 0)"), HasSubstr("from periodic"));
    EXPECT_THAT(run("ws.loop_start(function() end, 1)"), HasSubstr("bad argument #3"));
    LUA_OK("untyped = ws.udp_connect(ws.udp_new(), {}); peer_send(peer, bind_loopback(untyped), 'x')");
    EXPECT_THAT(run("ws.loop_start(deadline(5), 1, 0)"), HasSubstr("number expected, got nil"));
}

// Regression: a readable descriptor of an unknown kind left two values on the
// interpreter stack, per socket and per pass, past the room the stack has.
TEST_F(MainLoopTest, UnknownKindIsSkippedWithoutGrowingTheStack) {
    LUA_OK(R"(
        function loop_frame_values()  -- values on loop_start's own stack
            local level = 1
            while debug.getinfo(level, "f").func ~= ws.loop_start do level = level + 1 end
            local n = 0
            while debug.getlocal(level, n + 1) do n = n + 1 end
            return n
        end
        for i = 1, 30 do
            local odd = ws.udp_connect(ws.udp_new(), { type = 7, on_message = function() got[#got + 1] = { "odd" } end })
            peer_send(peer, bind_loopback(odd), "never read")
        end
    )");
    make_socket("stopper", "frame_values = loop_frame_values(); ws.loop_stop()");  // walked after the others
    LUA_OK(R"(
        peer_send(peer, stopper_port, "stop")
        calls = 0
        ws.loop_start(function() calls = calls + 1 end, 0, 0)
        assert(#got == 1 and frame_values < 20, tostring(frame_values))
        assert(calls == 0, "no periodic calls with 0 per tick")
    )");
}

TEST_F(MainLoopTest, FatalSelectErrorSweepsEverySlot) {
    LUA_OK(R"(
        A = ws.udp_connect(ws.udp_new(), opts({ type = 2 }))
        B = ws.udp_connect(ws.udp_new(), opts({ type = 2 }))
        C = ws.udp_connect(ws.udp_new(), opts({ type = 2 }))
        close_fd(fd_of(A))  -- behind the module's back: select() now fails with EBADF
        clear_events()
        B_fd = fd_of(B)
    )");
    // The table closes up under the sweep: it reaches A and C, then meets an
    // empty slot whose kind lookup raises.
    EXPECT_THAT(run("ws.loop_start(deadline(5), 1, 1)"), HasSubstr("attempt to index a nil value"));
    EXPECT_EQ(events(), "error:9:Bad file descriptor|close:Bad file descriptor|"
                        "error:9:Bad file descriptor|close:Bad file descriptor");
    EXPECT_EQ(socktbl[0], static_cast<int32_t>(global_number("B_fd")));
    EXPECT_EQ(socktbl[1], 0);
}

volatile sig_atomic_t signals_seen = 0;

// An interrupted select() keeps counting down the time that remained, and an
// interrupted sleep resumes: SIGALRM every 50 ms (100 at most), calls not restarted.
TEST_F(MainLoopTest, SignalsCutNeitherTheTimerNorSleep) {
    const std::string log = testing::TempDir() + "main_loop_eintr" + std::to_string(getpid()) + ".log";
    signals_seen = 0;
    struct sigaction action {}, saved {};
    action.sa_handler = [](int) {
        signals_seen = signals_seen + 1;
        const itimerval off{};
        if (signals_seen == 100)
            setitimer(ITIMER_REAL, &off, nullptr);
    };
    sigaction(SIGALRM, &action, &saved);
    const itimerval every_50ms{{0, 50000}, {0, 50000}}, off{};
    setitimer(ITIMER_REAL, &every_50ms, nullptr);
    const std::string result = run("ws.set_debug('" + log + R"(')
        local t0 = now()
        ws.loop_start(function() ws.loop_stop() end, 1, 2)
        elapsed = now() - t0
        ws.set_debug("NULL")
        t0 = now()
        ws.sleep(1)
        slept = now() - t0
    )");
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &saved, nullptr);
    ASSERT_EQ(result, "");
    EXPECT_GE(signals_seen, 5);
    // the first call comes once less than a whole second of the 2 is left
    EXPECT_GE(global_number("elapsed"), 0.9);
    EXPECT_LT(global_number("elapsed"), 4) << "each signal restarted the time-out";
    EXPECT_GE(global_number("slept"), 0.95);
    const std::string text = file_text(log);
    std::remove(log.c_str());
    EXPECT_THAT(text, ::testing::ContainsRegex("File: main_loop, Function: main_loop, Line: [0-9]{5}\\]: "
                                                     "EINTR error, just break, Interrupted system call\n"));
}

// 1024 sockets with descriptors well past FD_SETSIZE: the sets must hold them.
TEST_F(MainLoopTest, ServesAFullTableWithDescriptorsAbove1023) {
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit raised = saved;
    raised.rlim_cur = std::min<rlim_t>(4096, raised.rlim_max);
    if (raised.rlim_cur < 1500)
        GTEST_SKIP() << "descriptor limit too low";
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    std::vector<int> filler;  // the sockets start at descriptor 300 or above
    for (int fd = open("/dev/null", O_RDONLY); fd >= 0 && fd < 300; fd = open("/dev/null", O_RDONLY))
        filler.push_back(fd);
    const std::string result = run(R"(
        local sockets = {}
        for i = 1, 1025 do sockets[i] = ws.udp_connect(ws.udp_new(), opts({ type = 2 })) end
        assert(events():find("|error:%d+:socktbl is full now$"), "the 1025th is refused")
        highest = fd_of(sockets[1024])
        peer_send(peer, bind_loopback(sockets[1024]), "to the last one")
        ws.loop_start(deadline(5, function() if message then ws.loop_stop() end end), 1, 0)
        assert(not timed_out and message == "to the last one")
    )");
    for (int fd : filler)
        close(fd);
    EXPECT_EQ(result, "");
    EXPECT_GT(global_number("highest"), 1023);
    EXPECT_EQ(socktbl[SOCKET_TABLE_SIZE - 1], static_cast<int32_t>(global_number("highest")));
    SocketTest::TearDown();  // closes the sockets before the limit goes back down
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    SocketTest::SetUp();
}

}  // namespace
