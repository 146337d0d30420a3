// Standard-mode WebSocket connections (options key rfc6455 = true): the
// connect with the standard opening handshake, reads on readiness into a
// ws_session kept in the connection table, a bounded send queue the loop
// drains, the closing handshake and keepalive. A connection's end is its
// own: it reports and closes itself and never reaches the loop's failure
// path. Script-visible behaviour: docs/api.md.
#pragma once

#include "lua_api.h"

#include <cstdint>

#include "options.h"
#include "ws_client.h"

// Connects in standard mode. Results pushed as ws_connect gives them: a new
// object, nil (socket table full), or none after a failure was reported.
int ws_standard_connect(lua_State* L, ws_record* ws, const standard_options& options);

// The same with nonblocking = true: returns a copy of the record at once and
// leaves the set-up to the loop (include/loop_conn.h); failures and on_open
// come from the loop.
int ws_standard_connect_loop(lua_State* L, ws_record* ws, const standard_options& options);

// The loop's call once a set-up opened: when it is a standard-mode one, the
// connection becomes standard (on_open(protocol), then the frames that came
// with the answer) and true; false for a designed set-up.
struct connect_state;
bool ws_standard_loop_opened(lua_State* L, ws_record* ws, const connect_state& setup);

// Whether fd is a standard-mode set-up the loop drives.
bool ws_standard_setting_up(int32_t fd);

// Whether fd belongs to an open standard-mode connection.
bool ws_standard_at(int32_t fd);

// The loop's receive for such a descriptor. Reads what is there without
// waiting, hands every event to the script; ends the connection itself.
// Returns 1 (nothing for the loop to do), or -1 with EAGAIN in *error when
// called again from inside one of its own callbacks.
int ws_standard_receive(lua_State* L, int32_t fd, int* error);

// One step for an open connection when the loop found its descriptor
// writable or its deadline passed: writes queued bytes, sends a keepalive
// ping, ends a close or a pong wait that ran out. 0.
int ws_standard_step(lua_State* L, int32_t fd);

// ws_send(ws, data [, kind]) and ws_close(ws [, code [, reason]]) for a
// standard-mode record (argument 1). Send: its result pushed, 1.
int ws_standard_send(lua_State* L, ws_record* ws);
void ws_standard_close(lua_State* L, ws_record* ws);
