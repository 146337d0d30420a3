// Standard-mode codec throughput: masking into a separate output, unmasking
// in place, UTF-8 validation (ASCII and mixed text), and whole messages
// through the session. Each should show well above 1 GB/s in a Release build.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "utf8.h"
#include "ws_message.h"

namespace {

constexpr int64_t MIB = 1 << 20;
const uint8_t KEY[4] = {0x12, 0x34, 0x56, 0x78};

std::vector<uint8_t> bytes_of(std::size_t length) {
    std::vector<uint8_t> bytes(length);
    for (std::size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<uint8_t>(i * 131);
    return bytes;
}

void BM_Mask(benchmark::State& state) {
    const std::vector<uint8_t> payload = bytes_of(state.range(0));
    std::vector<uint8_t> out(payload.size());
    for (auto _ : state) {
        frame_mask(out.data(), payload.data(), payload.size(), KEY, 0);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Mask)->Arg(125)->Arg(16 << 10)->Arg(MIB);

// Unmasking is the same XOR; in place, from an odd offset (a payload cut by a read).
void BM_UnmaskInPlace(benchmark::State& state) {
    std::vector<uint8_t> payload = bytes_of(state.range(0) + 1);
    for (auto _ : state) {
        frame_mask(payload.data() + 1, payload.data() + 1, payload.size() - 1, KEY, 3);
        benchmark::DoNotOptimize(payload.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_UnmaskInPlace)->Arg(16 << 10)->Arg(MIB);

std::string text_of(std::size_t length, bool mixed) {
    const std::string piece = mixed ? "temp=21.5 \xc2\xb0" "C κόσμε \xe2\x82\xac \xf0\x9f\x98\x80 ok\n"
                                    : "{\"temp\":21.5,\"unit\":\"C\",\"id\":42}\n";
    std::string text;
    while (text.size() + piece.size() <= length)
        text += piece;
    return text + std::string(length - text.size(), 'x');
}

void utf8_bench(benchmark::State& state, bool mixed) {
    const std::string text = text_of(state.range(0), mixed);
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    for (auto _ : state) {
        utf8_state s = UTF8_START;
        const bool ok = utf8_feed(s, bytes, text.size()) && utf8_complete(s);
        benchmark::DoNotOptimize(ok);
        if (!ok)
            state.SkipWithError("invalid text");
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
void BM_Utf8Ascii(benchmark::State& state) { utf8_bench(state, false); }
void BM_Utf8Mixed(benchmark::State& state) { utf8_bench(state, true); }
BENCHMARK(BM_Utf8Ascii)->Arg(125)->Arg(16 << 10)->Arg(MIB);
BENCHMARK(BM_Utf8Mixed)->Arg(16 << 10)->Arg(MIB);

// A text message through the session: one frame whole (delivered from the
// input), or 16 fragments fed in 4 KiB reads (reassembled in the store).
void BM_SessionText(benchmark::State& state) {
    const std::size_t length = state.range(0);
    const bool fragmented = state.range(1) != 0;
    const std::string text = text_of(length, false);
    std::vector<uint8_t> wire;
    const std::size_t parts = fragmented ? 16 : 1;
    for (std::size_t p = 0; p < parts; ++p) {
        const std::size_t n = length / parts + (p + 1 == parts ? length % parts : 0);
        uint8_t head[WS_HEADER_MAX];
        const std::size_t h = frame_header_encode(head, p + 1 == parts, p == 0 ? ws_opcode::TEXT : 0, n, KEY);
        head[1] &= 0x7F;  // a server frame: no mask, no key
        wire.insert(wire.end(), head, head + h - 4);
        const auto* from = reinterpret_cast<const uint8_t*>(text.data()) + p * (length / parts);
        wire.insert(wire.end(), from, from + n);
    }
    const std::size_t read = fragmented ? 4096 : wire.size();
    ws_session s;
    ws_session_init(s, 16 * MIB);
    for (auto _ : state) {
        std::size_t delivered = 0;
        for (std::size_t at = 0; at < wire.size(); at += read) {
            std::span<const uint8_t> in(wire.data() + at, std::min(read, wire.size() - at));
            while (!in.empty()) {
                const ws_out e = ws_session_feed(s, in);
                in = in.subspan(e.used);
                delivered += e.what == ws_event::text ? e.bytes.size() : 0;
            }
        }
        if (delivered != length)
            state.SkipWithError("message lost");
    }
    ws_session_free(s);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SessionText)->Args({16 << 10, 0})->Args({MIB, 0})->Args({MIB, 1});

}  // namespace
