// The debug log writer.
#include "debug_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#ifdef lua_h
#error "the debug log must stay free of the interpreter"
#endif

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
