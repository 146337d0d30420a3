// Feeds arbitrary bytes to the header cut and the chunked decoder as the
// receive path does (the text ends at its first zero byte). The input sits at
// the very end of its allocation and the body space is exactly as large as
// the text, so a read or write past either is caught; the outputs are checked
// against properties every decode must have.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "chunked.h"

namespace {

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    auto input = std::make_unique<char[]>(size);
    std::memcpy(input.get(), data, size);
    const std::string_view text(input.get(), strnlen(input.get(), size));

    std::size_t header_length = 0;
    if (get_head(text, &header_length) == 0)
        return 0;
    require(header_length + 4 <= text.size());
    require(text.substr(header_length, 4) == "\r\n\r\n");

    auto body = std::make_unique<char[]>(text.size());
    std::size_t body_length = 0;
    const int complete = de_chunked(text, {body.get(), text.size()}, &body_length);
    require(complete == 0 || complete == 1);
    // Every decoded byte costs at least its size line, two line breaks and
    // the final chunk in the encoding.
    require(body_length + header_length + 4 <= text.size());
    // Decoded bytes come from the text after the header block.
    if (body_length > 0)
        require(std::string_view(text).substr(header_length + 4).find(std::string_view(body.get(), 1)) !=
                std::string_view::npos);
    if (complete == 1)
        require(text.find("0\r\n\r\n") != std::string_view::npos);
    return 0;
}
