// A fresh interpreter with the module loaded for each test, and the probes
// the snippets use. Snippets get `ws` (the module) and:
//   events(): what the callbacks of opts() noted, joined by "|": "open",
//     "message" (data, from, port in message, from_, port_),
//     "error:<errno>:<text>", "close:<reason>"
//   opts(t): t with recording callbacks where it has none
//   tcp_opts(port, extra...): plain TCP options to 127.0.0.1:port, then the fields of each extra
//   deadline(seconds[, also]): a periodic function (calling also) that stops
//     the loop and sets timed_out once `seconds` have passed
//   fd_of(obj), status_of(obj), copy_of(obj) (a byte-for-byte copy)
//   recv_tcp(fd) -> result, err: the TCP receive path once fd is readable
//   bind_loopback(obj) -> port
//   fd_is_open(fd), blocking(fd), tls_sessions(), now()
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
#include "tcp.h"
#include "tools.h"

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using peers::step;

class SocketTest : public ::testing::Test {
protected:
    lua_State* L = nullptr;
    void SetUp() override;
    void TearDown() override;
    // "" or the error message; with `result`, what the chunk returned (as text) instead
    std::string run(const std::string& code, bool result = false);
    std::string eval(const std::string& expression) { return run("return tostring(" + expression + ")", true); }
    double num(const std::string& expression) { return std::stod(eval(expression)); }
    std::string events() { return eval("events()"); }
    void expose(const char* name, lua_CFunction function) { lua_pushcfunction(L, function), lua_setglobal(L, name); }

private:
    int first_free_fd_ = 0;
};

#define LUA_OK(code) ASSERT_EQ(run(code), "")
// Lua source for `text` as a string literal.
inline std::string quoted(const std::string& text) { return "[==[" + text + "]==]"; }

std::string file_text(const std::string& path);
