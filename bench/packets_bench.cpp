// Frame codec: building and parsing frames, and masking against memcpy.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "packets.h"

namespace {

constexpr uint32_t MIB = 1u << 20;

std::vector<uint8_t> payload_of(std::size_t length) {
    std::vector<uint8_t> payload(length);
    for (std::size_t i = 0; i < length; ++i)
        payload[i] = static_cast<uint8_t>('a' + i % 26);
    return payload;
}

void BM_MakeFrame(benchmark::State& state) {
    const auto length = static_cast<uint32_t>(state.range(0));
    const std::vector<uint8_t> payload = payload_of(length);
    std::vector<uint8_t> frame(length + WS_MAX_FRAME_HEADER);
    uint32_t frameLength = 0;
    for (auto _ : state) {
        frame[1] = 0;  // all a caller clears
        wsMakeFrame(payload.data(), length, frame.data(), &frameLength, WS_TEXT_FRAME);
        benchmark::DoNotOptimize(frame.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * length);
}
BENCHMARK(BM_MakeFrame)->Arg(32)->Arg(16 << 10)->Arg(MIB);

// A server frame as this client reads it (127 class little-endian).
std::vector<uint8_t> server_frame(uint32_t length) {
    std::vector<uint8_t> frame(length + 10, 'x');
    frame[0] = 0x81;
    if (length < 126) {
        frame[1] = static_cast<uint8_t>(length);
    } else if (length <= 0xFFFF) {
        frame[1] = 126;
        frame[2] = static_cast<uint8_t>(length >> 8);
        frame[3] = static_cast<uint8_t>(length);
    } else {
        frame[1] = 127;
        for (int i = 0; i < 8; ++i)
            frame[2 + i] = i < 4 ? static_cast<uint8_t>(length >> (8 * i)) : 0;
    }
    return frame;
}

void BM_ParseFrame(benchmark::State& state) {
    const auto length = static_cast<uint32_t>(state.range(0));
    std::vector<uint8_t> frame = server_frame(length);
    uint8_t* data = nullptr;
    uint32_t datasize = 0;
    uint32_t headerLength = 0;
    for (auto _ : state) {
        FrameType type = wsParseInputFrame(frame.data(), static_cast<uint32_t>(frame.size()), &data, &datasize,
                                           &headerLength);
        benchmark::DoNotOptimize(type);
        benchmark::DoNotOptimize(datasize);
    }
    if (datasize != length)
        state.SkipWithError("frame did not parse");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_ParseFrame)->Arg(32)->Arg(16 << 10)->Arg(MIB);

void BM_Mask1MiB(benchmark::State& state) {
    const std::vector<uint8_t> source = payload_of(MIB);
    std::vector<uint8_t> out(MIB);
    const uint8_t key[4] = {0x37, 0xFA, 0x21, 0x3D};
    for (auto _ : state) {
        wsMaskPayload(out.data(), source.data(), MIB, key);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * MIB);
}
BENCHMARK(BM_Mask1MiB);

// The loop the word-wise masking replaces, for comparison.
void BM_MaskBytewise1MiB(benchmark::State& state) {
    const std::vector<uint8_t> source = payload_of(MIB);
    std::vector<uint8_t> out(MIB);
    const uint8_t key[4] = {0x37, 0xFA, 0x21, 0x3D};
    for (auto _ : state) {
        uint8_t* dst = out.data();
        const uint8_t* src = source.data();
        for (uint32_t i = 0; i < MIB; ++i)
            dst[i] = src[i] ^ key[i % 4];
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * MIB);
}
BENCHMARK(BM_MaskBytewise1MiB);

void BM_Memcpy1MiB(benchmark::State& state) {
    const std::vector<uint8_t> source = payload_of(MIB);
    std::vector<uint8_t> out(MIB);
    for (auto _ : state) {
        std::memcpy(out.data(), source.data(), MIB);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * MIB);
}
BENCHMARK(BM_Memcpy1MiB);

}  // namespace
