// Common to the tests: a fresh interpreter with the module loaded, for
// running script snippets, and the socket probes the snippets use.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "luacli.h"
#include "peers/peer.h"
#include "net.h"
#include "tls_owner.h"
#include "tools.h"

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using peers::step;

class LuaTest : public ::testing::Test {
protected:
    lua_State* L = nullptr;

    void SetUp() override;
    void TearDown() override;

    // Runs `code`; returns "" on success, else the error message.
    std::string run(const std::string& code);
    // Registers a C function as a global for the snippets to call.
    void expose(const char* name, lua_CFunction function);
    std::string global_string(const char* name);
    double global_number(const char* name);
    void set_global(const char* name, double value);
    void set_global(const char* name, const std::string& value);
};

// Runs a snippet and fails the test with the interpreter's message.
#define LUA_OK(code) ASSERT_EQ(run(code), "")

// What the file at `path` holds ("" if none).
std::string file_text(const std::string& path);

// For tests with real sockets; closes every socket a test left open. Snippets get:
//   events(): what the callbacks of opts() noted, joined by "|":
//     "open", "message" (data, from, port in message, from_, port_),
//     "error:<errno>:<text>", "close:<reason>"
//   opts(t): t with recording callbacks where it has none
//   tcp_opts(port, extra...): plain TCP options to 127.0.0.1:port, then the fields of each extra
//   fd_of(obj), status_of(obj), copy_tcp(obj) (a byte-for-byte copy)
//   recv_tcp(fd) -> result, err: the TCP receive path, once fd is readable
//   bind_loopback(obj) -> port; peer_open() -> fd, port
//   peer_send(fd, port, data); peer_recv(fd[, wait]) -> data, port | nothing
//   fd_is_open(fd), close_fd(fd), wait_readable(fd), tls_sessions(), now() -> monotonic seconds
//   deadline(seconds[, also]): a periodic function (calling also) that stops the loop
//     and sets timed_out once `seconds` have passed
class SocketTest : public LuaTest {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string events();

private:
    int first_free_fd_ = 0;
};
