// In-process timings of the calendar database reader on generated databases of 10,000 and
// 100,000 events (made once per run in the temporary folder).
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "Support/CalendarGenerator.h"

#include <benchmark/benchmark.h>
#include <filesystem>
#include <map>

namespace {

namespace fs = std::filesystem;

const fs::path& generated(std::int64_t events) {
    static std::map<std::int64_t, fs::path> made;
    auto& path = made[events];
    if (path.empty()) {
        path = fs::temp_directory_path() / ("morvane-bench-" + std::to_string(events) + ".sqlite");
        fs::remove(path);
        morvane::testing::generateCalendarFile(path, events, 42);
    }
    return path;
}

void contentFingerprint(benchmark::State& state) {
    const auto& path = generated(state.range(0));
    morvane::CalendarDatabase database(path);
    for (auto _ : state)
        benchmark::DoNotOptimize(database.contentFingerprint());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(fs::file_size(path)));
}
BENCHMARK(contentFingerprint)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void loadEvents(benchmark::State& state) {
    morvane::CalendarDatabase database(generated(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(database.loadEvents());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(loadEvents)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void occurrences(benchmark::State& state) {
    morvane::CalendarDatabase database(generated(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(database.occurrences());
}
BENCHMARK(occurrences)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
