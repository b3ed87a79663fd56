// Times taking a restore point of a live calendar database of 100,000 generated events, in a
// home folder of its own: snapshot-steps [EVENTS] [RUNS].
//
//   1. each step of a saved snapshot, run one by one as takeDatabaseSnapshot runs them;
//   2. takeSnapshot as a whole, saved (a fresh store) and unchanged (the median of RUNS);
//   3. a sync of the copies of a store of 200 restore points that are all copied already
//      (the median of RUNS).
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/Shared/Compression.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvaneCore/SnapshotStore/ICloudBackup.h"
#include "MorvanePlatform/Clock.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "Support/CalendarGenerator.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>

namespace {

namespace fs = std::filesystem;
using namespace morvane;

double seconds(const std::function<void()>& step) {
    const auto start = std::chrono::steady_clock::now();
    step();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(int runs, const std::function<void()>& step) {
    std::vector<double> taken;
    for (int run = 0; run < runs; ++run)
        taken.push_back(seconds(step));
    std::sort(taken.begin(), taken.end());
    return taken[taken.size() / 2];
}

void line(const std::string& name, double taken, const std::string& note = {}) {
    std::cout << std::left << std::setw(26) << name << std::right << std::fixed << std::setprecision(3) << std::setw(8)
              << taken << " s" << (note.empty() ? "" : "  " + note) << '\n';
}

std::shared_ptr<EKEventStore> noEventStore() {
    std::cerr << "the live database couldn't be read\n";
    std::exit(1);
}

} // namespace

int main(int argc, char** argv) {
    const std::int64_t events = argc > 1 ? std::atoll(argv[1]) : 100000;
    const int runs = argc > 2 ? std::atoi(argv[2]) : 5;
    const auto folder = fs::temp_directory_path() / "morvane-snapshot-steps";
    fs::remove_all(folder);
    // The program's own folders follow HOME and TMPDIR.
    setenv("HOME", (folder / "home").c_str(), 1);
    setenv("TMPDIR", (folder / "tmp").c_str(), 1);
    files::createDirectories(folder / "tmp");

    const fs::path live = BackupLocator::liveDBPath();
    testing::generateCalendarFile(live, events, 42, testing::CalendarDatabaseBuilder::Journal::wal,
                                  /*keepLog=*/true);
    std::cout << events << " generated events, live database and log "
              << (fs::file_size(live) + fs::file_size(live.string() + "-wal")) / 1e6 << " MB\n\n";

    // 1. The steps of a saved snapshot, one by one.
    CalendarArchive steps(folder / "steps");
    files::createDirectories(steps.directory());
    StagedCopy staged;
    std::unique_ptr<CalendarDatabase> database;
    std::string fingerprint;
    std::string compressed;
    std::int64_t count = 0;
    const auto now = Date{Clock::current().now()};
    CalendarArchive::Entry entry;
    const std::vector<std::pair<const char*, std::function<void()>>> parts = {
        {"stage", [&] { staged = BackupLocator::stageCopy(live); }},
        {"open", [&] { database = std::make_unique<CalendarDatabase>(staged.file()); }},
        {"fingerprint", [&] { fingerprint = database->contentFingerprint(); }},
        {"integrity", [&] { database->verifyIntegrity(); }},
        {"events",
         [&] {
             for (const auto& event : database->loadEvents())
                 count += event.isDetachedOccurrence() ? 0 : 1;
         }},
        {"checkpoint", [&] { database->checkpoint(); }},
        {"compress", [&] { compressed = compression::compress(files::read(staged.file())); }},
        {"write",
         [&] {
             entry = {CalendarArchive::stamp(now),
                      now,
                      fingerprint,
                      count,
                      static_cast<std::int64_t>(compressed.size()),
                      std::nullopt};
             files::writeAtomically(steps.fileURL(entry), compressed);
             CalendarArchive::writeIndex({entry}, steps.directory() / "index.json");
         }},
    };
    double total = 0;
    for (const auto& [name, step] : parts) {
        const double taken = seconds(step);
        total += taken;
        line(name, taken);
    }
    line("sum of the steps", total,
         "compressed to " + std::to_string(compressed.size() / 1000000.0).substr(0, 5) + " MB, " +
             std::to_string(count) + " events");
    database.reset();
    staged.remove();

    // 2. The whole operation, saved and unchanged.
    CalendarArchive archive(folder / "store");
    std::cout << '\n';
    line("takeSnapshot, saved", seconds([&] { archive.takeSnapshot(Date{Clock::current().now()}, noEventStore); }));
    line("takeSnapshot, unchanged",
         median(runs, [&] { archive.takeSnapshot(Date{Clock::current().now()}, noEventStore); }),
         "median of " + std::to_string(runs));

    // 3. Syncing 200 restore points that are all copied already.
    CalendarArchive many(folder / "many");
    files::createDirectories(many.directory());
    std::vector<CalendarArchive::Entry> listed;
    for (int i = 0; i < 200; ++i) {
        // One every three hours: all within 30 days, so all kept.
        const Date date{now.seconds - i * 3 * 3600.0};
        listed.push_back({CalendarArchive::stamp(date), date, "f" + std::to_string(i), 1, 64, std::nullopt});
        files::write(many.fileURL(listed.back()), std::string(64, 'x'));
    }
    CalendarArchive::writeIndex(listed, many.directory() / "index.json");
    ICloudBackup copies(folder / "shared");
    copies.sync(many, now);
    std::cout << '\n';
    line("copies sync, 200 copied", median(runs, [&] { copies.sync(many, now); }), "median of " + std::to_string(runs));

    fs::remove_all(folder);
    return 0;
}
