// The select() event loop: waits on every socket of the socket table, hands
// readable descriptors to their kind's receive path, turns failures into
// on_error plus a close, and calls the script's periodic function on a timer.
#pragma once

#include "lua_api.h"

#include "tools.h"
#include "ws_client.h"

// The receive buffer the loop hands to the WebSocket receive path: this many
// bytes plus one spare for a terminator. Allocated zeroed once and shared by
// every run (also by a run nested inside a callback, so a receive path must
// not read it after a callback returned). The loop never clears it whole:
// the receive path clears what it wrote.
constexpr std::size_t LOOP_BUFFER_SIZE = 0x100000;

// Runs until the registry value "loop_ctl" reads 0 at the end of a pass (1),
// or select() fails fatally (-1, after on_error and a close for every slot).
// Errors raised by the periodic function or a kind lookup unwind through it.
int main_loop(lua_State* L, int32_t calls_per_tick, int32_t interval_sec);

// Clears both sets and adds every descriptor of the socket table to both.
// The highest descriptor added, -1 for an empty table, -2 when a set could
// not grow (errno ENOMEM).
int add_select_fds(select_set& read_set, select_set& error_set);
