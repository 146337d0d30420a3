// Calls from the module into the script's callbacks. Every call is
// protected and its status ignored; a script error never reaches the module.
// Every callback leaves the stack below it as it found it: that is what keeps
// records alive across callbacks (the rule is in callbacks.cpp).
#pragma once

#include "lua_api.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "ws_client.h"

// Pushes the options table registered for fd and, on top, its field `name`.
// An fd without an options table raises the interpreter's indexing error.
void get_cb(lua_State* L, int32_t fd, const char* name);

// on_error(errno, message); does nothing for fd 0. errnum is ignored: the
// script always sees errno as it stands at the call.
void error_callback(lua_State* L, int32_t fd, int errnum, const char* message);
// on_open()
void connect_callback(lua_State* L, int32_t fd);
void tcp_connect_callback(lua_State* L, const tcp_record* record);
// on_close(reason)
void close_callback(lua_State* L, int32_t fd, const char* reason);
// on_message(data, from, port); a null `from` reaches the script as nil.
void receive_callback(lua_State* L, int32_t fd, const char* data, const char* from, int port);

// Standard mode. on_open(protocol): nil when `protocol` is empty.
void open_callback_protocol(lua_State* L, int32_t fd, const char* protocol, std::size_t length);
// on_message(data, kind): the whole payload, zero bytes included.
void message_callback(lua_State* L, int32_t fd, const void* data, std::size_t length, const char* kind);
// on_close(reason, code, peer_reason): peer_reason nil when null.
void close_callback_coded(lua_State* L, int32_t fd, const char* reason, int code, const char* peer_reason,
                          std::size_t peer_length);

// True when an options table is registered for fd.
bool has_options_table(lua_State* L, int32_t fd);

// The send paths' report for a socket found closed: on_error(errno,
// "Socket has been closed!"). A copy whose registration is gone (the
// script's own object after its close holds descriptor -1) has no options
// table to report through: it is refused quietly. A socket that was never
// connected still reports, which raises when nothing is registered for it.
void closed_socket_callback(lua_State* L, int32_t fd, bool never_connected, bool registration_missing);

// Report, then close: on_error(errno, message) for fd, then close(reason)
// where `reason` null means the text of errno as on_error left it. The
// reason is copied before it is used, so a strerror() text may be passed.
template <typename Close>
void report_and_close(lua_State* L, int32_t fd, const char* message, const char* reason, Close close) {
    char text[256] = "";
    if (reason != nullptr)
        std::strncpy(text, reason, sizeof text - 1);
    error_callback(L, fd, errno, message);
    if (reason == nullptr)
        std::strncpy(text, std::strerror(errno), sizeof text - 1);
    close(text);
}
