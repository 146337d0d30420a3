// The debug log: off by default, line format, one open-append-close per line.
#include <filesystem>
#include <regex>

#include "lua_fixture.h"

namespace fs = std::filesystem;

using DebugLogTest = LuaTest;

TEST_F(DebugLogTest, OnlyBetweenSetDebugAndNULLWithTheLineFormat) {
    char pattern[] = "/tmp/ws_client_log_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const fs::path dir = pattern, log = dir / "debug.log";
    set_global("log_path", log.string());
    expose("open_again", luaopen_ws_client);
    LUA_OK("open_again(); ws.set_debug(log_path .. '/missing/dir/x.log'); open_again()");
    EXPECT_TRUE(fs::is_empty(dir)) << "off by default; an unwritable path is quiet";
    LUA_OK("ws.set_debug(table.concat({ log_path })); collectgarbage('collect'); open_again()");
    const std::regex line(
        R"(\[Time: (Mon|Tue|Wed|Thu|Fri|Sat|Sun) [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}, )"
        R"(File: luacli, Function: luaopen_ws_client, Line: [0-9]{5}\]: come in open\n)");
    EXPECT_TRUE(std::regex_match(file_text(log), line)) << file_text(log);
    fs::remove(log);
    LUA_OK("open_again(); ws.set_debug('NULL'); open_again()");
    const std::string text = file_text(log);
    EXPECT_THAT(text, ::testing::EndsWith("]: come in open\n")) << "reopened for every line";
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << "off after NULL";
    LUA_OK("ws.set_debug('null')");
    EXPECT_TRUE(debug_log_enabled()) << "only the exact text NULL turns logging off";
    fs::remove_all(dir);
    EXPECT_THAT(run("ws.set_debug()"), HasSubstr("bad argument #1 to 'set_debug' (string expected, got no value)"));
    EXPECT_THAT(run("ws.set_debug(string.rep('a', 5000))"), HasSubstr("path too long"));
}

TEST_F(DebugLogTest, LineNumbersPadToFiveDigitsAndErrnoSurvives) {
    const std::string log = testing::TempDir() + "ws_client_debug" + std::to_string(getpid()) + ".log";
    std::remove(log.c_str());
    ASSERT_TRUE(debug_log_set_path(log.c_str()));
    errno = ECONNRESET;
    debug_log_write("tcp", "tcp_recv", 47, "n=%d\n", 3);
    EXPECT_EQ(errno, ECONNRESET);
    debug_log_write("tcp", "tcp_recv", 123456, "%s", "\n\nblank lines kept\n\n");
    const std::string text = file_text(log);
    std::remove(log.c_str());
    EXPECT_THAT(text, HasSubstr(", File: tcp, Function: tcp_recv, Line: 00047]: n=3\n["));
    EXPECT_THAT(text, HasSubstr("Line: 123456]: \n\nblank lines kept\n\n"));
}
