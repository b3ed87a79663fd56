// Times each step of importing a calendar database as a restore point, on a generated database
// of about 50 MB: import-steps [EVENTS]. The steps are those of CalendarArchive::importDatabase,
// run one by one here so that each can be timed.
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/Shared/Compression.h"
#include "MorvanePlatform/Files.h"
#include "Support/CalendarGenerator.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>

namespace {

namespace fs = std::filesystem;

double seconds(const std::function<void()>& step) {
    const auto start = std::chrono::steady_clock::now();
    step();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv) {
    using namespace morvane;
    const std::int64_t events = argc > 1 ? std::atoll(argv[1]) : 35000;
    const auto folder = fs::temp_directory_path() / "morvane-import-steps";
    fs::remove_all(folder);
    const auto source = folder / "Calendar.sqlitedb";
    testing::generateCalendarFile(source, events, 42, testing::CalendarDatabaseBuilder::Journal::wal,
                                  /*keepLog=*/true);
    const auto size = fs::file_size(source) + fs::file_size(source.string() + "-wal");

    StagedCopy staged;
    std::string fingerprint;
    std::string compressed;
    std::size_t eventCount = 0;
    std::unique_ptr<CalendarDatabase> database;
    const std::vector<std::pair<const char*, std::function<void()>>> steps = {
        {"stage", [&] { staged = BackupLocator::stageCopy(source); }},
        {"open", [&] { database = std::make_unique<CalendarDatabase>(staged.file()); }},
        {"integrity", [&] { database->verifyIntegrity(); }},
        {"fingerprint", [&] { fingerprint = database->contentFingerprint(); }},
        {"events", [&] { eventCount = database->loadEvents().size(); }},
        {"checkpoint", [&] { database->checkpoint(); }},
        {"compress", [&] { compressed = compression::compress(files::read(staged.file())); }},
        {"write", [&] { files::writeAtomically(folder / "restore-point.calsnap", compressed); }},
    };

    std::cout << events << " generated events, database and log " << size / 1e6 << " MB\n";
    double total = 0;
    for (const auto& [name, step] : steps) {
        const double taken = seconds(step);
        total += taken;
        std::cout << std::left << std::setw(12) << name << std::right << std::fixed << std::setprecision(3)
                  << std::setw(8) << taken << " s\n";
    }
    std::cout << std::left << std::setw(12) << "total" << std::right << std::setw(8) << total << " s; compressed to "
              << compressed.size() / 1e6 << " MB; " << eventCount << " events read\n";
    database.reset();
    staged.remove();
    fs::remove_all(folder);
    return 0;
}
