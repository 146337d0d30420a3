// The select() event loop: waits on every socket of the socket table, hands
// readable descriptors to their kind's receive path, turns failures into
// on_error plus a close, and calls the script's periodic function on a timer.
#pragma once

#include <lua.hpp>

#include "fdset.h"
#include "ws_client.h"

// Runs until the registry value "loop_ctl" reads 0 at the end of a pass (1),
// or select() fails fatally (-1, after on_error and a close for every slot).
// Errors raised by the periodic function or a kind lookup unwind through it.
int main_loop(lua_State* L, int32_t calls_per_tick, int32_t interval_sec);

// Clears both sets and adds every descriptor of the socket table to both.
// The highest descriptor added, -1 for an empty table, -2 when a set could
// not grow (errno ENOMEM).
int add_select_fds(select_set& read_set, select_set& error_set);
