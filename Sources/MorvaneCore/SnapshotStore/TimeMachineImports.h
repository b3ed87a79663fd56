#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// The bridge between Time Machine and the snapshot store of the App Store edition: which
// backups are still worth copying, the copy of one, and the record of what has been tried
// (`checked.json` beside the store's index). Blocking; keep it off the interface's thread.
namespace TimeMachineImports {

inline constexpr std::string_view appBundleID = "com.quillfen.morvane";

// The App Store edition's sandbox container in the user's home; it exists once that edition ran.
std::filesystem::path appStoreContainer();

// The imports store as the helper, outside the sandbox, reaches it. A new object on each call.
std::shared_ptr<CalendarArchive> forAppStoreEdition();

// The imports store as the App Store edition reaches it, from its Application Support folder;
// the same folder as forAppStoreEdition's.
std::shared_ptr<CalendarArchive> forThisApp();

struct Pending {
    std::vector<BackupSource> sources; // oldest first
    std::vector<std::string> notes;
};

// The latest dated backup of each local calendar day whose stamp isn't checked yet, oldest
// first, with the notes of the listing. Never fails.
Pending pending(const CalendarArchive& archive);

// Copies one backup into the store and marks its stamp as checked, last. Whatever happens, the
// staged copy and the mount are gone afterwards. Throws RestoreError "This backup has no date."
// or "This backup has no calendar database.", or what opening or importing throws.
CalendarArchive::SnapshotResult importBackup(const BackupSource& source, CalendarArchive& archive);

// Adds a stamp to `checked.json`, sorted and unique, written atomically.
void markChecked(const std::string& stamp, const CalendarArchive& archive);

// The stamps in `checked.json`; empty when it is missing or damaged.
std::vector<std::string> checkedStamps(const CalendarArchive& archive);

} // namespace TimeMachineImports
} // namespace morvane
