// Debug log: one line per call, appended to the file named by set_debug; the
// file is opened and closed for every line. Off until a path other than
// "NULL" is set. Lua-free.
#pragma once

namespace debug_log_detail {
extern bool enabled;
}
// off costs this one test per log site
inline bool debug_log_enabled() noexcept { return debug_log_detail::enabled; }
// keeps its own copy of the path; "NULL" turns logging off; false when too long
bool debug_log_set_path(const char* path) noexcept;
// Keeps errno: callers log between a failing call and the report of its errno.
void debug_log_write(const char* unit, const char* function, int line, const char* format, ...) noexcept
    __attribute__((format(printf, 4, 5)));

// The one log macro. Every .cpp defines LOG_UNIT (the unit name the log
// shows) before using it; `function` is the name the line shows (__func__
// unless a helper logs for the procedure it serves). The message carries its
// own line end, as each log site's text does.
#define WS_LOG_IN(unit, function, ...)                                    \
    do {                                                                  \
        if (debug_log_enabled())                                          \
            debug_log_write(unit, function, __LINE__, __VA_ARGS__);       \
    } while (0)
// A line that shows another unit's name: code moved out of the unit whose
// name its lines have always shown.
#define WS_LOG_AS(function, ...) WS_LOG_IN(LOG_UNIT, function, __VA_ARGS__)
#define WS_LOG(...) WS_LOG_AS(__func__, __VA_ARGS__)
