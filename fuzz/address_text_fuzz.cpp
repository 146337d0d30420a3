// Arbitrary text as an address for a socket of the family the first byte
// picks. An accepted address formats within ADDRESS_TEXT_SIZE, and the text
// parses back to the same address, port and length (a v4-mapped one as the
// IPv4 text it is shown as, mapped again for the dual-stack socket).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "address_text.h"

namespace {

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0)
        return 0;
    const int families[] = {AF_UNSPEC, AF_INET, AF_INET6};
    const int family = families[data[0] % 3];
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);  // to its first zero byte
    sockaddr_storage address{};
    const socklen_t length = address_parse(text.c_str(), 4242, family, address);
    if (length == 0)
        return 0;
    require(length <= sizeof address && (family != AF_INET || address.ss_family == AF_INET));
    auto formatted = std::make_unique<char[]>(ADDRESS_TEXT_SIZE);
    uint16_t port = 0;
    require(address_format(address, {formatted.get(), ADDRESS_TEXT_SIZE}, &port) != nullptr && port == 4242);
    sockaddr_storage again{};
    const int family_again = address.ss_family == AF_INET6 ? AF_INET6 : family;
    require(address_parse(formatted.get(), port, family_again, again) == length);
    require(std::memcmp(&address, &again, length) == 0);
    return 0;
}
