// In-process timings of the local event store: fetching two minutes, a month and a year from a store of
// 100,000 generated events (the test generator's database, opened by the store as found), and
// expanding ten years of 1,000 repeating events saved through the store.
#include "MorvanePlatform/EventKit.h"
#include "Support/CalendarGenerator.h"

#include <benchmark/benchmark.h>
#include <filesystem>
#include <map>

namespace {

namespace fs = std::filesystem;
using morvane::EKEventStore;

constexpr double january2025 = 757382400; // 2025-01-01T00:00:00Z in seconds since 2001
constexpr double march2025 = january2025 + 59 * 86400.0;
constexpr double april2025 = march2025 + 31 * 86400.0;
constexpr double january2026 = january2025 + 365 * 86400.0;

fs::path freshPath(const std::string& name) {
    const auto folder = fs::temp_directory_path() / ("morvane-bench-store-" + name);
    fs::remove_all(folder);
    fs::create_directories(folder);
    return folder / "Calendar.sqlitedb";
}

EKEventStore& generatedStore(std::int64_t events) {
    static std::map<std::int64_t, std::unique_ptr<EKEventStore>> made;
    auto& store = made[events];
    if (!store) {
        const auto path = freshPath(std::to_string(events));
        morvane::testing::generateCalendarFile(path, events, 42,
                                               morvane::testing::CalendarDatabaseBuilder::Journal::wal);
        store = std::make_unique<EKEventStore>(path);
    }
    return *store;
}

void fetch(benchmark::State& state, double start, double end) {
    auto& store = generatedStore(state.range(0));
    const auto predicate = store.predicateForEvents(start, end, std::nullopt);
    size_t occurrences = 0;
    for (auto _ : state) {
        const auto events = store.eventsMatchingPredicate(predicate);
        occurrences = events.size();
        benchmark::DoNotOptimize(events.data());
    }
    state.counters["occurrences"] = static_cast<double>(occurrences);
}

void fetchMonth(benchmark::State& state) { fetch(state, march2025, april2025); }
BENCHMARK(fetchMonth)->Arg(100000)->Unit(benchmark::kMillisecond);

void fetchYear(benchmark::State& state) { fetch(state, january2025, january2026); }
BENCHMARK(fetchYear)->Arg(100000)->Unit(benchmark::kMillisecond);

// Two minutes, as a look for an equal event at one moment fetches.
void fetchTwoMinutes(benchmark::State& state) { fetch(state, march2025 + 36000 - 60, march2025 + 36000 + 60); }
BENCHMARK(fetchTwoMinutes)->Arg(100000)->Unit(benchmark::kMillisecond);

// 1,000 series in the shapes people use: daily, weekly on two days, monthly on the last Friday,
// yearly; a quarter of them floating.
EKEventStore& repeatingStore() {
    static std::unique_ptr<EKEventStore> store;
    if (!store) {
        store = std::make_unique<EKEventStore>(freshPath("repeating"));
        const auto calendar = store->defaultCalendarForNewEvents();
        for (int index = 0; index < 1000; ++index) {
            auto event = morvane::EKEvent::eventWithEventStore(*store);
            event->title = "Series " + std::to_string(index);
            event->startDate = january2025 + (index % 365) * 86400.0 + 9 * 3600;
            event->endDate = *event->startDate + 3600;
            if (index % 4 != 0) event->timeZone = index % 2 ? "America/Los_Angeles" : "Europe/Berlin";
            event->calendar = calendar;
            morvane::EKRecurrenceRule rule;
            rule.frequency = static_cast<morvane::EKRecurrenceFrequency>(index % 4);
            if (rule.frequency == morvane::EKRecurrenceFrequency::weekly) {
                rule.daysOfTheWeek = std::vector{morvane::EKRecurrenceDayOfWeek::dayOfWeek(2),
                                                 morvane::EKRecurrenceDayOfWeek::dayOfWeek(5)};
            } else if (rule.frequency == morvane::EKRecurrenceFrequency::monthly) {
                rule.daysOfTheWeek = std::vector{morvane::EKRecurrenceDayOfWeek::dayOfWeek(6, -1)};
            }
            event->recurrenceRules = {rule};
            store->saveEvent(*event, morvane::EKSpan::futureEvents, false);
        }
        store->commit();
    }
    return *store;
}

void expandTenYears(benchmark::State& state) {
    auto& store = repeatingStore();
    size_t occurrences = 0;
    for (auto _ : state) {
        occurrences = 0;
        for (double start = january2025; start < january2025 + 3652.5 * 86400;) {
            const auto predicate = store.predicateForEvents(start, january2025 + 3652.5 * 86400, std::nullopt);
            occurrences += store.eventsMatchingPredicate(predicate).size();
            start = predicate.endDate;
        }
    }
    state.counters["occurrences"] = static_cast<double>(occurrences);
}
BENCHMARK(expandTenYears)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
