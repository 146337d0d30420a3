// A fresh interpreter with the module for each test. Snippets get `ws` and:
//   events(): what opts(t)'s callbacks noted (t's own are kept), joined by "|": "open", "message"
//     (data, from, port in message, from_, port_), "error:<errno>:<text>", "close:<reason>"
//   tcp_opts(port, extra...): plain TCP options to 127.0.0.1:port plus each extra's fields
//   deadline(seconds[, also]): a periodic function that stops the loop (timed_out) after `seconds`
//   fd_of(obj), status_of(obj), copy_of(obj) (byte for byte), bind_loopback(obj) -> port,
//   recv_tcp(fd) -> result, err (the TCP receive path), fd_is_open(fd), blocking(fd), watched(fd)
//   (in the socket table), tls_sessions(), now()
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "luacli.h"
#include "peers/peer.h"
#include "net.h"
#include "tcp.h"
#include "tls_owner.h"
#include "tools.h"

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using peers::step;

class SocketTest : public ::testing::Test {
protected:
    lua_State* L = nullptr;
    int first_free_fd_ = 0;
    void SetUp() override;
    void TearDown() override;
    // "" or the error message; with `result`, what the chunk returned (as text) instead
    std::string run(const std::string& code, bool result = false);
    std::string eval(const std::string& expression) { return run("return tostring(" + expression + ")", true); }
    double num(const std::string& expression) { return std::stod(eval(expression)); }
    std::string events() { return eval("events()"); }
    void expose(const char* name, lua_CFunction function) { lua_pushcfunction(L, function), lua_setglobal(L, name); }
};

// (5.2 and later name status 0 LUA_OK; no test needs that name.)
#undef LUA_OK
#define LUA_OK(code) ASSERT_EQ(run(code), "")
// Lua source for `text` as a string literal.
inline std::string quoted(const std::string& text) { return "[==[" + text + "]==]"; }

