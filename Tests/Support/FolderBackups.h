#pragma once

#include "Support/CalendarDatabaseBuilder.h"
#include "Support/Fakes.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace morvane::testing {

// A dated backup folder as Time Machine writes it: its database holds `events` events (below
// zero, bytes that are no database); `live` leaves the write-ahead log beside it.
struct FolderBackup {
    std::string stamp;
    int events = 1;
    bool live = false;
};

// Writes `backup` as `folder`/STAMP/`database` unless it is there; returns the dated folder.
inline std::filesystem::path writeFolderBackup(const std::filesystem::path& folder,
                                               const std::filesystem::path& database, const FolderBackup& backup) {
    const auto file = folder / backup.stamp / database;
    if (std::filesystem::exists(file)) return folder / backup.stamp;
    if (backup.events < 0) {
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << std::string(4096, 'x');
    } else {
        CalendarDatabaseBuilder db(file, backup.live ? CalendarDatabaseBuilder::Journal::wal
                                                     : CalendarDatabaseBuilder::Journal::rollback);
        const auto calendar = db.addCalendar({.store = db.addStore({})});
        for (int i = 0; i < backup.events; ++i)
            db.addItem({.calendar = calendar, .summary = "E" + std::to_string(i)});
        db.close(/*keepLog=*/backup.live);
    }
    return folder / backup.stamp;
}

// Writes each backup and has the recorded tmutil list them all in the order given.
inline void folderBackups(RecordingToolLauncher& tools, const std::filesystem::path& folder,
                          const std::filesystem::path& database, const std::vector<FolderBackup>& backups) {
    std::string listing;
    for (const auto& backup : backups)
        listing += writeFolderBackup(folder, database, backup).string() + "\n";
    tools.answer("/usr/bin/tmutil listbackups", {0, listing});
}

} // namespace morvane::testing
