// Parses arbitrary bytes as a server frame header. The input sits at the very
// end of its allocation so any read past the claimed length is caught, and
// the outputs are checked against an independent decoding of the header.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "packets.h"

namespace {

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

uint64_t expected_length(const uint8_t* frame, std::size_t& header) {
    const uint8_t code = frame[1] & 0x7F;
    if (code < 126) {
        header = 2;
        return code;
    }
    if (code == 126) {
        header = 4;
        return static_cast<uint64_t>(frame[2]) << 8 | frame[3];
    }
    header = 10;
    uint64_t length = 0;
    for (int i = 7; i >= 0; --i)
        length = length << 8 | frame[2 + i];
    return length;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, std::size_t size) {
    if (size > UINT32_MAX)
        return 0;
    const std::unique_ptr<uint8_t[]> input(new uint8_t[size ? size : 1]);
    uint8_t* frame = input.get() + (size ? 0 : 1);  // empty input: one past the end
    if (size != 0)
        std::memcpy(frame, bytes, size);

    uint8_t* data = nullptr;
    uint32_t datasize = 0xDEADBEEF;
    uint32_t headerLength = 0xDEADBEEF;
    const FrameType type = wsParseInputFrame(frame, static_cast<uint32_t>(size), &data, &datasize, &headerLength);
    const bool touched = headerLength != 0xDEADBEEF;

    if (touched) {
        // whatever was claimed, the header described lies inside the input
        require(headerLength == 2 || headerLength == 4 || headerLength == 10);
        require(headerLength <= size);
        require(data == frame + headerLength);
    } else {
        require(data == nullptr && datasize == 0xDEADBEEF);
    }
    if (size == 0) {
        require(type == WS_ERROR_FRAME && !touched);
        return 0;
    }
    if (size < 2) {
        require(type == WS_INCOMPLETE_FRAME && !touched);
        return 0;
    }

    const uint8_t first = frame[0];
    const uint8_t opcode = first & 0x0F;
    const bool header_ok = (first & 0x70) == 0 && (first & 0x80) != 0 &&
                           (opcode == 1 || opcode == 2 || opcode == 8 || opcode == 9 || opcode == 10);
    if (!header_ok) {
        require(type == WS_ERROR_FRAME && !touched);
        return 0;
    }
    require(touched);
    const uint8_t code = frame[1] & 0x7F;
    const std::size_t needed = code < 126 ? 2 : code == 126 ? 4 : 10;
    if (size < needed) {
        require(type == WS_INCOMPLETE_FRAME && headerLength == 2 && datasize == 0);
        return 0;
    }
    std::size_t header = 0;
    const uint64_t length = expected_length(frame, header);
    if (code == 127 && (frame[3] & 0x80) != 0) {
        require(type == WS_ERROR_FRAME && headerLength == 2 && datasize == 0);
    } else if (length > UINT32_MAX) {
        require(type == WS_ERROR_FRAME && headerLength == 10 && datasize == 0);
    } else {
        require(type == opcode && headerLength == header && datasize == length);
    }
    return 0;
}
