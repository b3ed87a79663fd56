// In-process timings of a search across restore points and of their summaries: 100 restore points
// of a generated calendar of 10,000 events (`generateCalendar`, seed 42, compressed once and
// linked under 100 names, so each is opened, decompressed and read on its own), and live
// calendars of 100,000 events (seed 42, so the restore points' events exist among them) in a home
// folder of their own. The current zone is Los Angeles, the generator's.
//
// `firstSearch` builds every index (each backup opened once); `secondSearch` runs on the same
// object and touches no file: what it costs is the scan of a million entries in memory and the
// live lookup of each event found. `summaries` gives the per-backup cost of BackupSummaries after
// its live index is built.
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Search/BackupSearch.h"
#include "MorvaneCore/Search/BackupSummaries.h"
#include "MorvaneCore/Shared/Compression.h"
#include "MorvanePlatform/Files.h"
#include "Support/CalendarGenerator.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <unicode/timezone.h>

namespace {

namespace fs = std::filesystem;
using namespace morvane;

constexpr int restorePoints = 100;

fs::path folder() { return fs::temp_directory_path() / "morvane-bench-search"; }

// The restore points, made once; HOME points at the folder's home with its live calendars.
const std::vector<BackupSource>& sources() {
    static const std::vector<BackupSource> made = [] {
        icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone("America/Los_Angeles"));
        const auto home = folder() / "home";
        setenv("HOME", home.c_str(), 1);
        fs::remove_all(folder());
        const fs::path live = BackupLocator::liveDBPath();
        fs::create_directories(live.parent_path());
        testing::generateCalendarFile(live, 100000, 42);

        const auto backup = folder() / "backup.sqlitedb";
        testing::generateCalendarFile(backup, 10000, 42);
        const auto first = folder() / "points" / "2024-01-01-000000.calsnap";
        fs::create_directories(first.parent_path());
        files::write(first, compression::compress(files::read(backup)));
        std::vector<BackupSource> list;
        for (int i = 0; i < restorePoints; ++i) {
            const auto name = folder() / "points" / ("2024-01-01-" + std::to_string(100000 + i) + ".calsnap");
            if (i > 0) fs::create_hard_link(first, name);
            list.emplace_back(BackupSource::Kind::appSnapshot(i == 0 ? first.string() : name.string()), std::nullopt);
        }
        return list;
    }();
    return made;
}

// A word of every twelfth title, or one title of the generator's (about 8 events).
const char* query(std::int64_t which) { return which == 0 ? "dentist" : "Dentist 42"; }

std::int64_t run(BackupSearch& search, const char* words) {
    std::int64_t results = 0;
    search.search(words, sources(), [&results](const BackupSearch::Update& update) {
        results = static_cast<std::int64_t>(update.results.size());
        return true;
    });
    return results;
}

void firstSearch(benchmark::State& state) {
    sources();
    std::int64_t results = 0;
    for (auto _ : state) {
        BackupSearch search;
        results = run(search, query(state.range(0)));
    }
    state.counters["results"] = static_cast<double>(results);
}
BENCHMARK(firstSearch)->Arg(0)->Unit(benchmark::kMillisecond)->Iterations(1);

void secondSearch(benchmark::State& state) {
    sources();
    BackupSearch search;
    run(search, "");
    std::int64_t results = 0;
    for (auto _ : state)
        results = run(search, query(state.range(0)));
    state.counters["results"] = static_cast<double>(results);
    state.counters["backups"] = static_cast<double>(search.indexedCount());
}
BENCHMARK(secondSearch)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void summaries(benchmark::State& state) {
    const auto& all = sources();
    BackupSummaries summing;
    summing.summary(all.front()); // builds the live index
    std::size_t next = 0;
    std::optional<BackupSummaries::Summary> last;
    for (auto _ : state)
        last = summing.summary(all[next++ % all.size()]);
    if (!last) state.SkipWithError("a restore point didn't read");
}
BENCHMARK(summaries)->Unit(benchmark::kMillisecond)->Iterations(10);

} // namespace

BENCHMARK_MAIN();
