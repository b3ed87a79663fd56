#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

// Removing what the product leaves on the machine, and measuring it first. Everything here blocks
// on the caller's thread; file removal isn't guarded against a restore point being taken at the
// same moment, and the stores' own locks aren't taken.
namespace morvane::Uninstaller {

// What the stores take on the disk, in allocated bytes.
struct Sizes {
    // Restore points of the store in Application Support, and its folder.
    std::int64_t snapshots = 0;
    std::int64_t snapshotBytes = 0;
    // Restore points brought in from Time Machine, and their folder.
    std::int64_t timeMachineImports = 0;
    std::int64_t timeMachineImportBytes = 0;
    // The backup cache: not part of localBytes, as it is taken back on its own.
    std::int64_t cacheBytes = 0;
    // This computer's folder of copies; absent when there is no such folder.
    std::optional<std::int64_t> iCloudBytes;

    std::int64_t localBytes() const { return snapshotBytes + timeMachineImportBytes; }

    friend bool operator==(const Sizes&, const Sizes&) = default;
};

// The space the regular files under `folder` take, hidden ones included, at any depth; symbolic
// links aren't followed. 0 for a missing folder or one that can't be listed; what can't be looked
// at adds nothing. Never fails.
std::int64_t size(const std::filesystem::path& folder);

// Counts and measures the stores, the cache and this computer's copies. Never fails: a missing or
// damaged index counts as no restore points.
Sizes sizes();

// Unmounts every snapshot and removes every staged copy of this process, then removes the backup
// cache and the CalDAV accounts file with its passwords (the local calendars are live again); with `snapshots`, the
// restore points and the Time Machine imports too, and the product's folder in Application Support when nothing but
// dot-files is left in it; with `iCloudCopies`, this computer's copies. Copying to the shared folder is turned off in
// every case. Goes on after each failure and gives one text per failure, "{label}: {description}", empty when all went
// well; a folder that doesn't exist is no failure. Never throws.
std::vector<std::string> removeData(bool snapshots, bool iCloudCopies);

// Forgets the running application's settings and deletes its preferences file
// (Library/Preferences/{bundle identifier}.plist). Does nothing for a program without a bundle
// identifier. Never fails.
void removeSettings();

} // namespace morvane::Uninstaller
