// Arbitrary bytes as a ws:// URL (the input ends exactly at its allocation,
// the text buffer is exactly ws_url_text_size). An accepted URL must give
// parts a request line and a connect can use, and must split the same way
// again when put back together from its Host value and target.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "ws_url.h"

namespace {

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

bool visible(std::string_view text) {
    for (const char c : text)
        if (c <= ' ' || c >= 0x7f || c == '#')
            return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    auto input = std::make_unique<char[]>(size);
    std::memcpy(input.get(), data, size);
    const std::size_t room = ws_url_text_size(size);
    auto text = std::make_unique<char[]>(room);
    ws_url_parts parts{};
    if (ws_url_split({input.get(), size}, {text.get(), room}, parts) != nullptr)
        return 0;
    const std::string_view host = parts.host, target = parts.target, header = parts.host_header;
    require(!host.empty() && visible(host) && visible(target) && visible(header) && parts.port != 0);
    require(target.starts_with('/') && host.find_first_of("/?@") == std::string_view::npos);
    const bool bracketed = header.starts_with('[');
    require(header.substr(bracketed, host.size()) == host);  // then "]" and ":port" when not the default
    const bool default_port = parts.port == (parts.secure ? 443 : 80);
    require(header.size() == host.size() + (bracketed ? 2 : 0) + (default_port ? 0 : 1 + std::to_string(parts.port).size()));

    const std::string again = std::string(parts.secure ? "wss://" : "ws://") + std::string(header) + std::string(target);
    auto text_again = std::make_unique<char[]>(ws_url_text_size(again.size()));
    ws_url_parts second{};
    require(ws_url_split(again, {text_again.get(), ws_url_text_size(again.size())}, second) == nullptr);
    require(second.secure == parts.secure && second.port == parts.port && host == second.host &&
            target == second.target && header == second.host_header);
    return 0;
}
