// The chunked decoder on a 1 MiB body sent in 4 KiB chunks, next to memcpy
// of the same body bytes in the same run.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "chunked.h"

namespace {

constexpr std::size_t kBody = 1 << 20;
constexpr std::size_t kChunk = 4096;

std::string encoded_response() {
    std::string text = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string chunk(kChunk, 'a');
    for (std::size_t sent = 0; sent < kBody; sent += kChunk)
        text += "1000\r\n" + chunk + "\r\n";
    return text + "0\r\n\r\n";
}

void DecodeChunked(benchmark::State& state) {
    const std::string text = encoded_response();
    std::vector<char> body(kBody);
    for (auto _ : state) {
        std::size_t header = 0, length = 0;
        get_head(text, &header);
        const int complete = de_chunked(text, body, &length);
        benchmark::DoNotOptimize(complete);
        benchmark::DoNotOptimize(body.data());
        if (length != kBody)
            state.SkipWithError("short decode");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBody));
}
BENCHMARK(DecodeChunked);

void MemcpyBody(benchmark::State& state) {
    const std::string source(kBody, 'a');
    std::vector<char> body(kBody);
    for (auto _ : state) {
        std::memcpy(body.data(), source.data(), kBody);
        benchmark::DoNotOptimize(body.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBody));
}
BENCHMARK(MemcpyBody);

}  // namespace
