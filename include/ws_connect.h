// WebSocket client: socket creation, connection set-up, the send path, the
// receive path with its answers to control frames, and the close.
#pragma once

#include "lua_api.h"

#include <cstddef>
#include <cstdint>

#include "packets.h"
#include "ws_client.h"

// Capacity of a frame on either path. The receive path never keeps more than
// this of one read; a sent frame (header and key included) must fit in it.
constexpr uint32_t WS_FRAME_CAPACITY = 0x100000;
// Longest text one frame can carry: the capacity less the longest header.
constexpr uint32_t WS_MAX_TEXT_LENGTH = WS_FRAME_CAPACITY - WS_MAX_FRAME_HEADER;
static_assert(WS_MAX_TEXT_LENGTH == 1048562);

// Creates the record's TCP socket (blocking) and resets the record to
// "created". Null when socket() failed: the failure is only logged, since no
// options table can be registered for a socket that does not exist. `unused`
// plays no part.
ws_record* ws_init(lua_State* L, ws_record* ws, int unused);

// URL check, name resolution, connect with time-out, TLS for wss, opening
// handshake. 1 when open; -1 after the failure was reported (on_error) and
// the socket closed (on_close). The caller keeps the record's object on its
// stack (callbacks.cpp).
int do_new_connect(lua_State* L, ws_record* ws);

// The one report of a failed connect (on_error, the close, the log lines
// around them); -1.
struct connect_outcome;
int ws_report_failed_connect(lua_State* L, ws_record* ws, const connect_outcome& failure);

// Enters the record's descriptor in the socket table; when it is full:
// on_error "socktbl is full now!", the descriptor closed, nil pushed, false.
bool ws_enter_table(lua_State* L, const ws_record* ws);

// The tail of a connect that succeeded: enters the descriptor in the socket
// table, registers a copy taken while connecting (the loop's), calls on_open,
// marks the record open and pushes a copy of it; nil with on_error when the
// table is full (the descriptor is closed, nothing else undone). Results
// pushed.
int ws_opened(lua_State* L, ws_record* ws);

// Releases TLS state (once, whichever copy comes first), takes the descriptor
// out of the socket table when `ws` is open, closes it, marks the registered
// record closed and calls on_close(reason); then sets ws->sockfd to -1.
// on_close is skipped when no options table is registered for the
// descriptor (a record closed before: descriptor -1). The caller keeps the
// record's object on its stack.
void ws_do_close(lua_State* L, ws_record* ws, const char* reason);

// Sends the `length` bytes of `data` (the text up to its first zero byte) as
// one masked text frame, written once. The text length (also when the write failed: on_error, then the
// connection is closed), 0 when the socket was not writable at once (on_error
// with the errno that happened to be set; nothing is queued), -1 when the
// connection is closed (on_error "Socket has been closed!" under the shared
// rule of closed_socket_callback), the poll failed (on_error, then closed) or
// the text is longer than WS_MAX_TEXT_LENGTH (nothing is sent, nothing
// reported). Leaves the registered object on the stack.
int ws_send(lua_State* L, ws_record* ws, const char* data, std::size_t length);

// Called by the main loop when fd is readable: reads, walks the frames read,
// hands texts to on_message, answers a ping with an empty pong (frames after
// it in the same read are dropped) and a close with an empty close (0).
// Binary frames, pongs and malformed frames are dropped. The byte count of
// the last read (the connection stays), 0 (peer closed, close answered, or
// the frame buffer filled before a text completed) or -1 with the errno in
// *err. Nothing is kept from one call to the next.
int ws_recv(lua_State* L, int32_t fd, int* err);

// Sends an empty close frame once, without waiting for the answer. On a
// closed connection reports "Socket has been closed!" instead, where an
// options table is registered (a never connected socket stays quiet).
void ws_send_close(lua_State* L, ws_record* ws);

// ---- loop-driven connections (options key nonblocking) ----

// ws_connect's part once the record and its options are registered: starts
// the set-up the loop drives and pushes a copy of the record (the result).
// Every failure, and on_open, come from the loop.
int ws_connect_loop(lua_State* L, ws_record* ws);
// Offered a loop-driven set-up that opened, before the designed tail: true
// when it took the connection over (another framing), false to leave it.
struct connect_state;
using ws_open_handler = bool(lua_State* L, ws_record* ws, const connect_state& setup);
// The kind's step for a designed connection: advances the set-up, or writes
// what sends left queued.
int ws_step(lua_State* L, int32_t fd, ws_open_handler* take_over);
// ws_close on a loop-driven connection (through its registered record): no
// close frame while it is being set up. 0 when `ws` is not loop-driven.
int ws_close_served(lua_State* L, ws_record* ws);
