// Feeds arbitrary bytes from the server side to the WebSocket receive path,
// read after read, until it reports the end of the stream: every call must
// end, stay inside its buffers and deliver texts no longer than the input.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "luacli.h"
#include "tools.h"
#include "ws_connect.h"

namespace {

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

std::size_t input_size = 0;

int on_message(lua_State* L) {
    std::size_t length = 0;
    luaL_checklstring(L, 1, &length);
    require(length <= input_size);
    require(lua_isnil(L, 2) && lua_tonumber(L, 3) == -1);
    return 0;
}

lua_State* interpreter() {
    static lua_State* L = [] {
        lua_State* made = luaL_newstate();
        luaL_openlibs(made);
        lua_pushcfunction(made, luaopen_ws_client);
        lua_call(made, 0, 0);
        return made;
    }();
    return L;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size > 30000)
        return 0;  // the socket pair must take the whole input and every answer at once
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return 0;
    input_size = size;
    lua_State* L = interpreter();
    const int fd = ends[0];
    // the options table and the record, registered as a connect leaves them
    lua_newtable(L);
    lua_pushinteger(L, SOCK_TYPE_WS);
    lua_setfield(L, -2, "type");
    lua_pushcfunction(L, on_message);
    lua_setfield(L, -2, "on_message");
    registry_store_top(L, sockfd_key(fd));
    auto* record = static_cast<ws_record*>(new_record_block(L, sizeof(ws_record), METATABLE_WS));
    record->sockfd = fd;
    record->status = WS_STATUS_CONNECTING;
    registry_store_top(L, udata_key(fd));

    if (size > 0)
        require(send(ends[1], data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size));
    shutdown(ends[1], SHUT_WR);
    int error = 0;
    int received = 1;
    // each call takes at least one byte or ends the stream
    for (std::size_t calls = 0; received > 0; ++calls) {
        require(calls <= size + 1);
        received = ws_recv(L, fd, &error);
        lua_settop(L, 0);
    }
    close(ends[0]);
    close(ends[1]);
    return 0;
}
