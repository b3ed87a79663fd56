// Times a restore of many picked events: restore-steps [EVENTS] [PICKED].
//
// The backup is a generated calendar of EVENTS events (100,000, seed 42); the live calendars, in a
// home folder of their own, are the same database from which PICKED events (1,000) were removed
// through the event store: a fifth of them series with deleted or edited occurrences, the rest
// single events, spread over the whole backup. Then, as `morvane restore` runs them: loading and
// comparing the backup, planning, and restoring each plan (writing, then reading back); the
// reading back is timed once more on its own, so that writing is the difference.
//
// The folder is kept between runs (data of the first run is reused); each run starts from the
// same live state. Prints the figures and writes the picked ids to `ids.txt` in the folder, for
// timing the whole process: see bench/restore-process.sh.
#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/Restore/RestoreEngine.h"
#include "MorvaneCore/Restore/Restorer.h"
#include "MorvanePlatform/EventKit.h"
#include "Support/CalendarGenerator.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>

namespace {

namespace fs = std::filesystem;
using namespace morvane;

// Wall time and the process's CPU time of a step: on a shared machine the CPU time is the figure
// to compare, the wall time what a user waits.
struct Taken {
    double wall = 0;
    double cpu = 0;

    Taken& operator+=(const Taken& other) {
        wall += other.wall;
        cpu += other.cpu;
        return *this;
    }
    Taken operator-(const Taken& other) const { return {wall - other.wall, cpu - other.cpu}; }
    Taken operator+(const Taken& other) const { return {wall + other.wall, cpu + other.cpu}; }
};

double cpuNow() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

Taken seconds(const std::function<void()>& step) {
    const auto start = std::chrono::steady_clock::now();
    const double cpu = cpuNow();
    step();
    return {std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), cpuNow() - cpu};
}

void line(const std::string& name, Taken taken, const std::string& note = {}) {
    std::cout << std::left << std::setw(28) << name << std::right << std::fixed << std::setprecision(2) << std::setw(9)
              << taken.wall << " s wall" << std::setw(9) << taken.cpu << " s CPU" << (note.empty() ? "" : "  " + note)
              << '\n';
}

void copyDatabase(const fs::path& from, const fs::path& to) {
    for (const auto* suffix : {"-wal", "-shm", "-journal"})
        fs::remove(to.string() + suffix);
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

// Picks the events and removes them from the live calendars through the store.
std::vector<std::int64_t> pickAndRemove(const fs::path& backup, const fs::path& live, std::int64_t picked) {
    const auto copy = fs::path(backup.string() + ".reading");
    fs::copy_file(backup, copy, fs::copy_options::overwrite_existing);
    std::vector<BackupEvent> singles;
    std::vector<BackupEvent> series;
    {
        CalendarDatabase database(copy);
        std::set<std::int64_t> edited;
        const auto events = database.loadEvents();
        for (const auto& event : events) {
            if (event.masterRowID) edited.insert(*event.masterRowID);
        }
        for (const auto& event : events) {
            if (event.masterRowID) continue;
            if (!event.snapshot.recurrence) {
                singles.push_back(event);
            } else if (edited.count(event.rowID) > 0 || !database.exceptionDates(event.rowID).empty()) {
                series.push_back(event);
            }
        }
    }
    fs::remove(copy);

    std::vector<BackupEvent> chosen;
    const auto spread = [&](const std::vector<BackupEvent>& from, std::int64_t count) {
        const auto step = std::max<std::size_t>(1, from.size() / static_cast<std::size_t>(count));
        for (std::size_t index = 0; index < from.size() && count > 0; index += step, --count)
            chosen.push_back(from[index]);
    };
    spread(series, picked / 5);
    spread(singles, picked - static_cast<std::int64_t>(chosen.size()));

    EKEventStore store(live);
    std::vector<std::int64_t> ids;
    for (const auto& event : chosen) {
        for (const auto& item : store.calendarItemsWithExternalIdentifier(event.uniqueIdentifier)) {
            auto master = std::dynamic_pointer_cast<EKEvent>(item);
            if (!master || master->isDetached()) continue;
            store.removeEvent(*master, master->hasRecurrenceRules() ? EKSpan::futureEvents : EKSpan::thisEvent, true);
            ids.push_back(event.rowID);
            break;
        }
    }
    return ids;
}

} // namespace

int main(int argc, char** argv) {
    const std::int64_t events = argc > 1 ? std::atoll(argv[1]) : 100000;
    const std::int64_t picked = argc > 2 ? std::atoll(argv[2]) : 1000;
    const auto folder =
        fs::temp_directory_path() / ("morvane-restore-steps-" + std::to_string(events) + "-" + std::to_string(picked));
    const auto home = folder / "home";
    setenv("HOME", home.c_str(), 1);
    const auto backup = folder / "backup.sqlitedb";
    const auto live = EKEventStore::defaultDatabasePath();
    const auto start = folder / "live-start.sqlitedb";
    const auto idsFile = folder / "ids.txt";

    try {
        std::vector<std::int64_t> ids;
        if (!fs::exists(idsFile)) {
            fs::remove_all(folder);
            fs::create_directories(live.parent_path());
            testing::generateCalendarFile(backup, events, 42);
            fs::copy_file(backup, live);
            ids = pickAndRemove(backup, live, picked);
            { EKEventStore(live).reset(); }
            fs::copy_file(live, start);
            std::ofstream out(idsFile);
            for (const auto id : ids)
                out << id << '\n';
        } else {
            std::ifstream in(idsFile);
            for (std::int64_t id = 0; in >> id;)
                ids.push_back(id);
        }
        copyDatabase(start, live);

        RestoreEngine engine;
        std::vector<RestorePlan> plans;
        const Taken load = seconds([&] { engine.load(BackupCatalog::resolve(backup.string())); });
        const Taken planning = seconds([&] { plans = engine.buildPlans(ids, std::nullopt); });

        auto& store = *engine.eventKit().store();
        Restorer restorer(store);
        std::int64_t restored = 0;
        std::int64_t failed = 0;
        std::int64_t withProblems = 0;
        std::int64_t series = 0;
        std::int64_t lines = 0;
        Taken restoring;
        Taken verifying;
        for (const auto& plan : plans) {
            if (!plan.problems.empty()) {
                ++withProblems;
                continue;
            }
            std::optional<RestoreResult> result;
            restoring += seconds([&] {
                try {
                    result = restorer.restore(plan);
                } catch (const std::exception& error) {
                    if (failed++ < 3) std::cerr << plan.event.title() << ": " << error.what() << '\n';
                }
            });
            if (!result) continue;
            ++restored;
            if (plan.event.snapshot.recurrence) ++series;
            lines += static_cast<std::int64_t>(result->verification.size());
            // The master's item identifier, for reading back once more on its own.
            const auto& identifier = result->eventIdentifier;
            const auto external = identifier.substr(identifier.find(':') + 1);
            for (const auto& item : store.calendarItemsWithExternalIdentifier(external)) {
                const auto masterID = item->calendarItemIdentifier();
                verifying += seconds([&] { restorer.verify(result->plan, masterID); });
                break;
            }
        }
        engine.close();

        std::cout << events << " events in the backup, " << ids.size() << " picked; " << plans.size() << " plans, "
                  << withProblems << " with problems; " << restored << " restored (" << series << " series), " << failed
                  << " failed, " << lines << " verification lines\n";
        line("load and compare", load);
        line("plans", planning);
        line("restore (write + read back)", restoring);
        line("  of which reading back", verifying, "(timed again on its own)");
        line("  so writing", restoring - verifying);
        line("total", load + planning + restoring);
    } catch (const std::exception& error) {
        std::cerr << "restore-steps: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
