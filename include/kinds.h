// The socket kinds as data: one row of operations per kind code, above the
// kind units. The loop and the close by descriptor dispatch through it; no
// kind unit dispatches by kind.
#pragma once

#include "lua_api.h"

#include <cstdint>

struct kind_ops {
    const char* metatable;  // a registered block must carry it to be served or closed
    // Serves a readable descriptor: the byte count, 0 when the peer closed,
    // or -1 with the error number in *error.
    int (*receive)(lua_State* L, int32_t fd, int* error);
    bool failure_ends_connection;  // stream kinds: a failed receive reports and closes
    // One step of a connect the loop drives (readiness or deadline); null
    // while the kind connects inside its connect call only.
    int (*step)(lua_State* L, int32_t fd);
    void (*close)(lua_State* L, void* record, const char* reason);
};

// The row of kind code `kind`; null for codes no kind has.
const kind_ops* kind_ops_of(int32_t kind);
