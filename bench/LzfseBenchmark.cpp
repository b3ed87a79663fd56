// In-process LZFSE throughput and ratio on calendar databases: the 2.4 MB vector of the shared
// test data and the generated 50 MB database. Throughput counts uncompressed bytes, in both
// directions. Run from build/bench: bin/LzfseBenchmark --benchmark_repetitions=11
#include "Lzfse/Lzfse.h"

#include <benchmark/benchmark.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

namespace {

using Bytes = std::vector<std::uint8_t>;

const Bytes& input(const std::string& path) {
    static std::map<std::string, Bytes> cache;
    auto [it, inserted] = cache.try_emplace(path);
    if (inserted) {
        std::ifstream file(path, std::ios::binary);
        it->second.assign(std::istreambuf_iterator<char>(file), {});
    }
    return it->second;
}

void encode(benchmark::State& state, const std::string& path) {
    const Bytes& raw = input(path);
    if (raw.empty()) return state.SkipWithError(("missing " + path).c_str());
    std::size_t compressed = 0;
    for (auto _ : state) {
        const Bytes stream = morvane::lzfse::compress(raw);
        compressed = stream.size();
        benchmark::DoNotOptimize(stream.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * raw.size()));
    state.counters["ratio"] = double(raw.size()) / double(compressed);
    state.counters["compressed"] = double(compressed);
}

void decode(benchmark::State& state, const std::string& path) {
    const Bytes& raw = input(path);
    if (raw.empty()) return state.SkipWithError(("missing " + path).c_str());
    const Bytes stream = morvane::lzfse::compress(raw);
    // Into a reused buffer, as a caller decompressing many streams does.
    Bytes back;
    for (auto _ : state) {
        morvane::lzfse::decompress(stream, back);
        benchmark::DoNotOptimize(back.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * raw.size()));
}

constexpr const char* small = MORVANE_SHARED_TEST_DATA_DIR "/lzfse/calendar_20k.sqlite";
constexpr const char* large = MORVANE_BENCH_DATA_DIR "/calendar_50mb.sqlite";

BENCHMARK_CAPTURE(encode, calendar_20k, small)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode, calendar_20k, small)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(encode, calendar_50mb, large)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decode, calendar_50mb, large)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
