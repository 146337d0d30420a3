// Registry lookups and the debug log.
#include "tools.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#define LOG_UNIT "tools"

// ---- registry ----

static registry_key format_key(const char* format, int32_t fd) {
    registry_key key{};
    std::snprintf(key.text, sizeof key.text, format, fd);
    return key;
}

registry_key sockfd_key(int32_t fd) { return format_key("sockfd-%d", fd); }
registry_key udata_key(int32_t fd) { return format_key("udata-%d", fd); }

void registry_store_top(lua_State* L, const registry_key& key) {
    lua_pushstring(L, key.text);
    lua_insert(L, -2);
    lua_settable(L, LUA_REGISTRYINDEX);
}

void get_udata_by_sockfd(lua_State* L, int32_t fd) {
    const registry_key key = udata_key(fd);
    lua_getfield(L, LUA_REGISTRYINDEX, key.text);
}

// The three kinds share one implementation: only the status field is touched.
static void udata_mark_closed(lua_State* L, int32_t fd) {
    const registry_key key = udata_key(fd);
    lua_getfield(L, LUA_REGISTRYINDEX, key.text);
    if (lua_type(L, -1) == LUA_TUSERDATA)
        static_cast<sock_header*>(lua_touserdata(L, -1))->status = 0;
    registry_store_top(L, key);  // stored back under the same key
}

void ws_udata_close(lua_State* L, int32_t fd) { udata_mark_closed(L, fd); }
void tcp_udata_close(lua_State* L, int32_t fd) { udata_mark_closed(L, fd); }
void udp_udata_close(lua_State* L, int32_t fd) { udata_mark_closed(L, fd); }

// ---- debug log ----

namespace debug_log_detail {
bool enabled = false;
}

// Our own copy: the interpreter's string may be collected after set_debug.
static char log_path[4096] = "NULL";

bool debug_log_set_path(const char* path) noexcept {
    const std::size_t length = std::strlen(path);
    if (length >= sizeof log_path)
        return false;
    std::memcpy(log_path, path, length + 1);
    debug_log_detail::enabled = std::strcmp(log_path, "NULL") != 0;
    return true;
}

// Keeps errno: callers log between a failing call and the report of its errno.
void debug_log_write(const char* unit, const char* function, int line, const char* format, ...) noexcept {
    const int saved_errno = errno;
    std::FILE* file = std::fopen(log_path, "a");
    if (file == nullptr) {
        errno = saved_errno;
        return;  // lost quietly: logging never disturbs the module
    }
    const std::time_t now = std::time(nullptr);
    char stamp[64] = "";
    const char* text = std::ctime(&now);
    if (text != nullptr) {
        std::size_t length = std::strlen(text);
        if (length > 0 && text[length - 1] == '\n')
            --length;
        if (length >= sizeof stamp)
            length = sizeof stamp - 1;
        std::memcpy(stamp, text, length);
        stamp[length] = '\0';
    }
    std::fprintf(file, "[Time: %s, File: %s, Function: %s, Line: %05d]: ", stamp, unit, function, line);
    va_list args;
    va_start(args, format);
    std::vfprintf(file, format, args);
    va_end(args);
    std::fclose(file);
    errno = saved_errno;
}
