// In-process timings of an event store restore point over a local event store of generated
// events (`generateCalendar`, seed 42, the database opened by the store as found): the capture
// of the whole window, a year per fetch, then the document's file form both ways and its
// fingerprint. The current zone is pinned to Los Angeles so that floating events pay for their
// conversion as they would on a user's machine, and `now` to 1 June 2025.
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"
#include "Support/CalendarGenerator.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>

namespace {

namespace fs = std::filesystem;
using morvane::EKEventStore;
using morvane::EventKitSnapshot;

constexpr morvane::Date now{770472000}; // 2025-06-01T12:00:00Z in seconds since 2001

EKEventStore& generatedStore(std::int64_t events) {
    static std::map<std::int64_t, std::unique_ptr<EKEventStore>> made;
    auto& store = made[events];
    if (!store) {
        const auto folder = fs::temp_directory_path() / ("morvane-bench-calevents-" + std::to_string(events));
        fs::remove_all(folder);
        fs::create_directories(folder);
        const auto path = folder / "Calendar.sqlitedb";
        morvane::testing::generateCalendarFile(path, events, 42,
                                               morvane::testing::CalendarDatabaseBuilder::Journal::wal);
        store = std::make_unique<EKEventStore>(path);
    }
    return *store;
}

// Documents already captured, so that the benchmarks of the file form don't capture again.
std::map<std::int64_t, EventKitSnapshot>& captured() {
    static std::map<std::int64_t, EventKitSnapshot> made;
    return made;
}

const EventKitSnapshot& capturedSnapshot(std::int64_t events) {
    auto found = captured().find(events);
    if (found == captured().end()) {
        found = captured().emplace(events, EventKitSnapshot::capture(generatedStore(events), now)).first;
    }
    return found->second;
}

void setShape(benchmark::State& state, const EventKitSnapshot& snapshot) {
    size_t keys = 0;
    for (const auto& [uid, list] : snapshot.occurrences)
        keys += list.size();
    state.counters["events"] = static_cast<double>(snapshot.events.size());
    state.counters["series"] = static_cast<double>(snapshot.occurrences.size());
    state.counters["keys"] = static_cast<double>(keys);
}

void capture(benchmark::State& state) {
    auto& store = generatedStore(state.range(0));
    EventKitSnapshot snapshot;
    for (auto _ : state) {
        snapshot = EventKitSnapshot::capture(store, now);
        benchmark::DoNotOptimize(snapshot.events.data());
    }
    setShape(state, snapshot);
    captured().try_emplace(state.range(0), std::move(snapshot));
}
BENCHMARK(capture)->Arg(10000)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

// The store's own share of a capture: the same fetches of the window, a year each, kept nowhere.
void fetchWindow(benchmark::State& state) {
    auto& store = generatedStore(state.range(0));
    const auto& window = capturedSnapshot(state.range(0));
    size_t occurrences = 0;
    for (auto _ : state) {
        occurrences = 0;
        for (double start = window.windowStart.seconds; start < window.windowEnd.seconds;) {
            const auto predicate = store.predicateForEvents(start, window.windowEnd.seconds, std::nullopt);
            occurrences += store.eventsMatchingPredicate(predicate).size();
            start = predicate.endDate;
        }
    }
    state.counters["occurrences"] = static_cast<double>(occurrences);
}
BENCHMARK(fetchWindow)->Arg(10000)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

void encoded(benchmark::State& state) {
    const auto& snapshot = capturedSnapshot(state.range(0));
    size_t bytes = 0;
    for (auto _ : state) {
        const auto file = snapshot.encoded();
        bytes = file.size();
        benchmark::DoNotOptimize(file.data());
    }
    state.counters["file bytes"] = static_cast<double>(bytes);
    state.counters["JSON bytes"] = static_cast<double>(snapshot.jsonText().size());
    setShape(state, snapshot);
}
BENCHMARK(encoded)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void decode(benchmark::State& state) {
    const auto file = capturedSnapshot(state.range(0)).encoded();
    for (auto _ : state) {
        auto snapshot = EventKitSnapshot::decode(file);
        benchmark::DoNotOptimize(snapshot.events.data());
    }
    state.counters["file bytes"] = static_cast<double>(file.size());
}
BENCHMARK(decode)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void fingerprint(benchmark::State& state) {
    const auto& snapshot = capturedSnapshot(state.range(0));
    for (auto _ : state) {
        auto text = snapshot.fingerprint();
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(fingerprint)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    ::setenv("TZ", "America/Los_Angeles", 1);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
