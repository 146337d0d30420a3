// The standard mode's opening handshake: request and answer check.
#include "ws_upgrade.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "csprng.h"

#ifdef lua_h
#error "the upgrade check must stay free of the interpreter"
#endif

namespace {

constexpr std::string_view kBlank = "\r\n\r\n";
constexpr std::string_view kOws = " \t";

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool same_any_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return lower(x) == lower(y);
           });
}

std::string_view trim(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kOws);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kOws) - first + 1);
}

// "HTTP/1.1 101" followed by a space or the line's end.
bool status_switching(std::string_view line) {
    constexpr std::string_view status = "HTTP/1.1 101";
    return line.starts_with(status) && (line.size() == status.size() || line[status.size()] == ' ');
}

struct answer_seen {
    bool upgrade, connection, accept;
};

// One header line; false when it refuses the answer.
bool take_header(std::string_view line, ws_upgrade& u, answer_seen& seen) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0)
        return false;
    const std::string_view name = line.substr(0, colon), value = trim(line.substr(colon + 1));
    if (same_any_case(name, "upgrade")) {
        seen.upgrade = seen.upgrade || ws_token_listed(value, "websocket", true);
    } else if (same_any_case(name, "connection")) {
        seen.connection = seen.connection || ws_token_listed(value, "upgrade", true);
    } else if (same_any_case(name, "sec-websocket-accept")) {
        if (value != u.accept)
            return false;
        seen.accept = true;
    } else if (same_any_case(name, "sec-websocket-extensions")) {
        return value.empty();  // none is ever offered
    } else if (same_any_case(name, "sec-websocket-protocol")) {
        if (value.empty() || !ws_token_listed(u.offered, value, false) || (!u.chosen.empty() && u.chosen != value))
            return false;
        const std::string_view offered(u.offered);
        u.chosen = offered.substr(offered.find(value), value.size());  // the offered token itself
    }
    return true;
}

}  // namespace

bool ws_token_listed(std::string_view list, std::string_view token, bool any_case) {
    while (!list.empty()) {
        const std::size_t comma = std::min(list.find(','), list.size());
        const std::string_view item = trim(list.substr(0, comma));
        if (!item.empty() && (any_case ? same_any_case(item, token) : item == token))
            return true;
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    return false;
}

int ws_upgrade_key(char (&out)[TEXT_FIELD_SIZE]) {
    unsigned char material[16];
    if (csprng_fill(material, sizeof material) != 0)
        return -1;
    return base64_encode(material, sizeof material, out) < 0 ? -1 : 0;
}

int ws_upgrade_request(std::span<char> out, const char* target, const char* host, const char* key,
                       const char* offered, const char* extra) {
    const bool any = offered[0] != '\0';
    const int length = std::snprintf(out.data(), out.size(),
                                     "GET %s HTTP/1.1\r\nHost: %s\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                                     "Sec-WebSocket-Key: %s\r\nSec-WebSocket-Version: 13\r\n%s%s%s%s\r\n",
                                     target, host, key, any ? "Sec-WebSocket-Protocol: " : "", offered,
                                     any ? "\r\n" : "", extra);
    if (length < 0 || static_cast<std::size_t>(length) >= out.size())
        return -1;
    return length;
}

answer_check ws_upgrade_check(std::span<const char> got, ws_upgrade& u) {
    const std::string_view text(got.data(), got.size());
    const std::size_t from = u.scanned > kBlank.size() ? u.scanned - (kBlank.size() - 1) : 0;
    const std::size_t blank = text.find(kBlank, from);
    u.scanned = text.size();
    if (blank == std::string_view::npos)
        return {text.size() >= WS_ANSWER_MAX ? answer_verdict::refused : answer_verdict::needs_more, 0};
    const std::size_t used = blank + kBlank.size();
    std::string_view head = text.substr(0, blank + 2);  // every line with its CRLF
    if (used > WS_ANSWER_MAX || head.find('\0') != std::string_view::npos)
        return {answer_verdict::refused, 0};
    const std::size_t status_end = head.find("\r\n");
    if (!status_switching(head.substr(0, status_end)))
        return {answer_verdict::refused, 0};
    head.remove_prefix(status_end + 2);
    answer_seen seen{};
    u.chosen = {};
    while (!head.empty()) {
        const std::size_t end = head.find("\r\n");
        if (!take_header(head.substr(0, end), u, seen))
            return {answer_verdict::refused, 0};
        head.remove_prefix(end + 2);
    }
    if (!seen.upgrade || !seen.connection || !seen.accept)
        return {answer_verdict::refused, 0};
    return {answer_verdict::complete, used};
}
