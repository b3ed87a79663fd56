// In-process timings of a comparison: a generated backup (`generateCalendar`, seed 42) against
// live calendars of the same size derived from it with 1% of the events deleted, 1% renamed and
// 1% of the cached occurrences deleted (`deriveDirectly`, written straight into the file, since
// the event store would take hours at 100,000 events). The live database lies in a home folder
// of its own, so `liveIndex` stages and reads it as it would a user's; the current zone is Los
// Angeles, the generator's.
#include "LaterCalendar.h"
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Comparison/Differ.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "Support/CalendarGenerator.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <set>

namespace {

namespace fs = std::filesystem;
using namespace morvane;

struct Compared {
    std::vector<BackupEvent> backup;
    std::optional<OccurrenceSet> backupOccurrences;
    std::optional<DatabaseSource> live;
};

fs::path folderFor(std::int64_t events) {
    return fs::temp_directory_path() / ("morvane-bench-compare-" + std::to_string(events));
}

// Makes the backup and the live database of one size, once, and points HOME at its live side.
Compared& compared(std::int64_t events) {
    static std::map<std::int64_t, Compared> made;
    const auto home = folderFor(events) / "home";
    setenv("HOME", home.c_str(), 1);
    auto [entry, isNew] = made.try_emplace(events);
    if (!isNew) return entry->second;

    fs::remove_all(folderFor(events));
    const auto backupFile = folderFor(events) / "backup.sqlitedb";
    const fs::path live = BackupLocator::liveDBPath();
    fs::create_directories(live.parent_path());
    testing::generateCalendarFile(backupFile, events, 42);
    fs::copy_file(backupFile, live);
    testing::deriveDirectly(live, 0.01, 7);

    CalendarDatabase backup(backupFile);
    entry->second.backup = backup.loadEvents();
    entry->second.backupOccurrences = backup.occurrences();
    entry->second.live = BackupLocator::liveIndex([] { return nullptr; });
    return entry->second;
}

void liveIndex(benchmark::State& state) {
    compared(state.range(0));
    for (auto _ : state) {
        auto index = BackupLocator::liveIndex([] { return nullptr; });
        if (!index) state.SkipWithError("the live database didn't read");
        benchmark::DoNotOptimize(index);
    }
}
BENCHMARK(liveIndex)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(3);

void missing(benchmark::State& state) {
    auto& sides = compared(state.range(0));
    MissingReport report;
    for (auto _ : state) {
        report = Differ::missing(sides.backup, *sides.live);
        benchmark::DoNotOptimize(report.missing.data());
    }
    state.counters["backupEvents"] = static_cast<double>(sides.backup.size());
    state.counters["missing"] = static_cast<double>(report.missing.size());
}
BENCHMARK(missing)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void changes(benchmark::State& state) {
    auto& sides = compared(state.range(0));
    ChangeReport report;
    for (auto _ : state) {
        report = Differ::changes(sides.backup, sides.backupOccurrences, *sides.live);
        benchmark::DoNotOptimize(report.changed.data());
    }
    std::size_t keys = 0;
    for (const auto& [uid, dates] : sides.backupOccurrences->dates)
        keys += dates.size();
    state.counters["backupOccurrences"] = static_cast<double>(keys);
    state.counters["changed"] = static_cast<double>(report.changed.size());
    state.counters["occurrenceChanges"] = static_cast<double>(report.occurrenceChanges.size());
    state.counters["seriesSkipped"] = static_cast<double>(report.seriesSkipped);
}
BENCHMARK(changes)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// The parts of `changes`: every event's content against today's, and the one call for the
// occurrences of every repeating event.
void eventContent(benchmark::State& state) {
    auto& sides = compared(state.range(0));
    std::size_t changed = 0;
    for (auto _ : state) {
        changed = 0;
        for (const auto& event : sides.backup) {
            if (event.isDetachedOccurrence()) continue;
            if (const auto now = sides.live->snapshot(event)) changed += event.snapshot.changes(*now).empty() ? 0 : 1;
        }
    }
    state.counters["changed"] = static_cast<double>(changed);
}
BENCHMARK(eventContent)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void occurrencesOfAllSeries(benchmark::State& state) {
    auto& sides = compared(state.range(0));
    std::set<std::string> uids;
    for (const auto& [uid, dates] : sides.backupOccurrences->dates)
        uids.insert(uid);
    for (auto _ : state) {
        auto now = sides.live->occurrences(uids, sides.backupOccurrences->window);
        benchmark::DoNotOptimize(now.dates.size());
    }
}
BENCHMARK(occurrencesOfAllSeries)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    setenv("TZ", "America/Los_Angeles", 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    for (const std::int64_t events : {10000, 100000}) {
        std::error_code ignored;
        fs::remove_all(folderFor(events), ignored);
    }
    return 0;
}
