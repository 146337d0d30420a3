// ws:// and wss:// URLs for the standard mode.
#include "ws_url.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#ifdef lua_h
#error "the URL split must stay free of the interpreter"
#endif

namespace {

constexpr auto npos = std::string_view::npos;

// Texts one after the other in the caller's buffer, each ending in a zero.
struct text_writer {
    std::span<char> room;
    std::size_t used = 0;
    const char* put(std::initializer_list<std::string_view> pieces) {
        const std::size_t start = used;
        for (std::string_view piece : pieces) {
            if (piece.size() >= room.size() - used)
                return nullptr;
            std::memcpy(room.data() + used, piece.data(), piece.size());
            used += piece.size();
        }
        room[used++] = '\0';  // each piece left room for it
        return room.data() + start;
    }
};

bool has_scheme(std::string_view url, std::string_view scheme) {
    const auto same = [](char want, char got) { return want == (got >= 'A' && got <= 'Z' ? got - 'A' + 'a' : got); };
    return url.size() >= scheme.size() && std::equal(scheme.begin(), scheme.end(), url.begin(), same);
}

bool is_name_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_';
}

// what a request line may carry: visible ASCII; a fragment is not sent
bool is_target_char(char c) { return c > ' ' && c < 0x7f && c != '#'; }

// No zone: a "%25" in a URL is not worth its cost here.
bool is_ipv6(std::string_view text) {
    char copy[INET6_ADDRSTRLEN];
    in6_addr address{};
    if (text.size() >= sizeof copy || text.find_first_not_of("0123456789abcdefABCDEF:.") != npos)
        return false;  // inet_pton would stop at a zero byte
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return inet_pton(AF_INET6, copy, &address) == 1;
}

bool parse_port(std::string_view digits, uint16_t& port) {
    if (digits.empty() || digits.size() > 5)
        return false;
    unsigned value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    port = static_cast<uint16_t>(value);
    return value >= 1 && value <= 65535;
}

// host (bare) and written (as in the URL) from "host[:port]" or "[v6][:port]";
// port_text stays null without a ':'.
const char* split_authority(std::string_view authority, std::string_view& host, std::string_view& written,
                            std::string_view& port_text) {
    std::size_t host_end = 0;
    if (authority.starts_with('[')) {
        host_end = authority.find(']');
        if (host_end == npos || !is_ipv6(authority.substr(1, host_end - 1)))
            return "bad IPv6 address in the URL";
        host = authority.substr(1, host_end - 1);
        ++host_end;
    } else {
        host_end = std::min(authority.find(':'), authority.size());
        host = authority.substr(0, host_end);
        if (host.empty())
            return "no host in the URL";
        if (!std::all_of(host.begin(), host.end(), is_name_char))
            return "bad host in the URL";
    }
    written = authority.substr(0, host_end);
    if (host_end == authority.size())
        return nullptr;
    if (authority[host_end] != ':')
        return "bad host in the URL";
    port_text = authority.substr(host_end + 1);
    return nullptr;
}

}  // namespace

const char* ws_url_split(std::string_view url, std::span<char> text, ws_url_parts& parts) {
    parts.secure = has_scheme(url, "wss://");
    if (!parts.secure && !has_scheme(url, "ws://"))
        return "not a ws:// or wss:// URL";
    url.remove_prefix(parts.secure ? 6 : 5);
    const std::size_t end = std::min(url.find_first_of("/?"), url.size());
    const std::string_view authority = url.substr(0, end), rest = url.substr(end);
    if (!std::all_of(rest.begin(), rest.end(), is_target_char))
        return "bad character in the URL's path";
    std::string_view host, written, port_text;
    if (const char* why = split_authority(authority, host, written, port_text))
        return why;
    const uint16_t standard = parts.secure ? 443 : 80;
    parts.port = standard;
    parts.port_written = port_text.data() != nullptr;
    if (port_text.data() != nullptr && !parse_port(port_text, parts.port))
        return "bad port in the URL";
    char port_suffix[8] = "";
    if (parts.port != standard)
        std::snprintf(port_suffix, sizeof port_suffix, ":%u", static_cast<unsigned>(parts.port));
    text_writer out{text};
    parts.host = out.put({host});
    parts.target = out.put({rest.starts_with('/') ? "" : "/", rest});
    parts.host_header = out.put({written, port_suffix});
    if (parts.host == nullptr || parts.target == nullptr || parts.host_header == nullptr)
        return "URL too long";
    return nullptr;
}
