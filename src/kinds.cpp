// The kinds table and the close by descriptor.
#include "kinds.h"

#include <iterator>

#include "tcp.h"
#include "tools.h"
#include "udp.h"
#include "ws_connect.h"
#include "ws_standard.h"

namespace {

// Indexed by kind code.
constexpr kind_ops kinds[] = {
    {METATABLE_WS,
     [](lua_State* L, int32_t fd, int* error) {
         return ws_standard_at(fd) ? ws_standard_receive(L, fd, error) : ws_recv(L, fd, error);
     },
     true,
     [](lua_State* L, int32_t fd) {
         return ws_standard_at(fd) ? ws_standard_step(L, fd) : ws_step(L, fd, ws_standard_loop_opened);
     },
     [](lua_State* L, void* record, const char* reason) { ws_do_close(L, static_cast<ws_record*>(record), reason); }},
    {METATABLE_TCP, [](lua_State* L, int32_t fd, int* error) -> int { return tcp_recv(L, fd, error); }, true, tcp_step,
     [](lua_State* L, void* record, const char* reason) { tcp_do_close(L, static_cast<tcp_record*>(record), reason); }},
    {METATABLE_UDP, [](lua_State* L, int32_t fd, int*) { return udp_recv(L, fd); }, false, nullptr,
     [](lua_State* L, void* record, const char* reason) { udp_do_close(L, static_cast<udp_record*>(record), reason); }},
};
static_assert(std::size(kinds) == std::size(KIND_METATABLES));
constexpr bool rows_follow_the_kind_codes() {
    for (std::size_t kind = 0; kind < std::size(kinds); ++kind)
        if (kinds[kind].metatable != KIND_METATABLES[kind])
            return false;
    return true;
}
static_assert(rows_follow_the_kind_codes());
static_assert(SOCK_TYPE_WS == 0 && SOCK_TYPE_TCP == 1 && SOCK_TYPE_UDP == 2);

}  // namespace

const kind_ops* kind_ops_of(int32_t kind) {
    return kind >= 0 && kind < static_cast<int32_t>(std::size(kinds)) ? &kinds[kind] : nullptr;
}

void do_close(lua_State* L, int32_t fd, const char* reason) {
    int32_t kind = -1;
    void* record = registered_record(L, fd, &kind);
    if (record != nullptr)
        kinds[kind].close(L, record, reason);  // the block stays on this stack (callbacks.cpp)
}
