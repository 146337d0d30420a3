// Builds a frame from fuzz input, parses it back, unmasks it and compares.
// Input: byte 0 = frame type (low nibble) and payload misalignment (bits 4-6);
// if bit 7 is set, bytes 1-3 give a length below 66,000 and the rest of the
// input is repeated to fill it, so every length class is reached; otherwise
// the rest of the input is the payload.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "packets.h"

namespace {

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

constexpr uint32_t STRETCH_LIMIT = 66000;  // just past the 127 class boundary

std::vector<uint8_t> payload_from(const uint8_t* bytes, std::size_t size) {
    if (!(bytes[0] & 0x80) || size < 4)
        return {bytes + 1, bytes + size};
    const uint32_t length = (bytes[1] | bytes[2] << 8 | bytes[3] << 16) % STRETCH_LIMIT;
    std::vector<uint8_t> payload(length, 0x5A);
    const std::size_t pattern = size - 4;
    if (pattern == 0 || length == 0)
        return payload;
    // the pattern once, then doubled until full
    std::size_t filled = std::min<std::size_t>(pattern, length);
    std::memcpy(payload.data(), bytes + 4, filled);
    while (filled < length) {
        const std::size_t step = std::min<std::size_t>(filled, length - filled);
        std::memcpy(payload.data() + filled, payload.data(), step);
        filled += step;
    }
    return payload;
}

// Uninstrumented for coverage: a per-byte comparison callback would cost
// more than everything else here, and this loop has no branches worth finding.
#if defined(__clang__)
#define NO_COVERAGE __attribute__((no_sanitize("coverage")))
#else
#define NO_COVERAGE
#endif
NO_COVERAGE std::vector<uint8_t> unmask_bytewise(const uint8_t* masked,
                                                                              uint32_t length, const uint8_t* key) {
    std::vector<uint8_t> unmasked(length);
    for (uint32_t i = 0; i < length; ++i)
        unmasked[i] = masked[i] ^ key[i % 4];
    return unmasked;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, std::size_t size) {
    if (size == 0)
        return 0;
    const auto type = static_cast<FrameType>(bytes[0] & 0x0F);
    const std::size_t misalign = (bytes[0] >> 4) & 0x07;
    const std::vector<uint8_t> payload = payload_from(bytes, size);
    const auto length = static_cast<uint32_t>(payload.size());

    // misaligned copy of the payload, ending at its allocation's end
    const std::unique_ptr<uint8_t[]> source(new uint8_t[misalign + length]);
    if (length != 0)
        std::memcpy(source.get() + misalign, payload.data(), length);
    const uint8_t* data = source.get() + misalign;

    const std::size_t capacity = length + WS_MAX_FRAME_HEADER;
    const std::unique_ptr<uint8_t[]> frame(new uint8_t[capacity]);
    std::memset(frame.get(), 0xA5, capacity);
    frame[1] = 0;
    uint32_t frameLength = 0;
    const std::time_t before = std::time(nullptr);
    wsMakeFrame(length ? data : nullptr, length, frame.get(), &frameLength, type);

    const uint32_t extended = length < 126 ? 0 : length <= 0xFFFF ? 2 : 8;
    const uint32_t header = 2 + extended;
    require(frameLength == header + WS_MASK_KEY_SIZE + length);
    require(frame[0] == (0x80 | type));
    require(frame[1] == (0x80 | (length < 126 ? length : length <= 0xFFFF ? 126 : 127)));

    // the header helper plus masking gives the same bytes within one second
    const std::unique_ptr<uint8_t[]> again(new uint8_t[capacity]);
    const uint32_t againHeader = wsMakeFrameHeader(data, length, again.get(), type);
    wsMaskPayload(again.get() + againHeader, data, length, again.get() + againHeader - WS_MASK_KEY_SIZE);
    if (std::time(nullptr) == before)
        require(againHeader + length == frameLength && std::memcmp(again.get(), frame.get(), frameLength) == 0);

    uint8_t* parsedData = nullptr;
    uint32_t datasize = 0;
    uint32_t parsedHeader = 0;
    const FrameType parsed = wsParseInputFrame(frame.get(), frameLength, &parsedData, &datasize, &parsedHeader);
    const bool accepted = type == 1 || type == 2 || type == 8 || type == 9 || type == 10;
    const bool address_bytes_zero = (frame[6] | frame[7] | frame[8] | frame[9]) == 0;
    if (!accepted) {
        require(parsed == WS_ERROR_FRAME);
    } else if (length > 0xFFFF && !(address_bytes_zero && !(frame[3] & 0x80))) {
        // the address bytes read as high length bytes: this client's own
        // long frames do not read back
        require(parsed == WS_ERROR_FRAME);
    } else {
        require(parsed == type && datasize == length && parsedHeader == header);
        require(parsedData == frame.get() + header);
    }

    // unmask byte by byte (not with the codec's own routine, which would undo
    // its own mistakes) and compare
    const uint8_t* key = frame.get() + header;
    const uint8_t* masked = key + WS_MASK_KEY_SIZE;
    require(unmask_bytewise(masked, length, key) == payload);
    return 0;
}
