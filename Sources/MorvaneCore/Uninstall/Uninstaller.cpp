#include "MorvaneCore/Uninstall/Uninstaller.h"

#include "MorvaneCore/Backups/BackupCache.h"
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Backups/SnapshotMount.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvaneCore/SnapshotStore/ICloudBackup.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvanePlatform/Accounts.h"
#include "MorvanePlatform/Bundle.h"
#include "MorvanePlatform/DiskUsage.h"
#include "MorvanePlatform/Error.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserDefaults.h"
#include "MorvanePlatform/UserFolders.h"

#include <exception>
#include <filesystem>
#include <new>

namespace morvane::Uninstaller {
namespace {

namespace fs = std::filesystem;

std::string describe(const std::exception& error) {
    if (const auto* ours = dynamic_cast<const Error*>(&error)) return ours->description();
    return error.what();
}

// Removes `folder` when it is there, adding "{label}: {description}" to `failures` when that fails.
void remove(const fs::path& folder, const std::string& label, std::vector<std::string>& failures) {
    std::error_code error;
    if (!fs::exists(fs::symlink_status(folder, error))) return;
    try {
        files::removeItem(folder);
    } catch (const std::bad_alloc&) {
        failures.push_back(label + ": out of memory");
    } catch (const std::exception& failure) {
        failures.push_back(label + ": " + describe(failure));
    }
}

// Whether a folder can be listed and holds nothing but names beginning with ".".
bool holdsOnlyDotFiles(const fs::path& folder) {
    std::error_code error;
    fs::directory_iterator entries(folder, error);
    if (error) return false;
    for (const fs::directory_iterator end; entries != end; entries.increment(error)) {
        if (error) return false;
        if (!entries->path().filename().string().starts_with('.')) return false;
    }
    return !error;
}

} // namespace

std::int64_t size(const fs::path& folder) {
    std::int64_t total = 0;
    std::error_code error;
    fs::recursive_directory_iterator entries(folder, error);
    if (error) return 0;
    for (const fs::recursive_directory_iterator end; entries != end; entries.increment(error)) {
        // A folder that can't be entered ends the walk; what was counted stays counted.
        if (error) break;
        total += files::allocatedBytes(entries->path()).value_or(0);
    }
    return total;
}

Sizes sizes() {
    Sizes result;
    const auto snapshots = CalendarArchive::shared();
    result.snapshots = static_cast<std::int64_t>(snapshots->entries().size());
    result.snapshotBytes = size(snapshots->directory());
    const auto imports = TimeMachineImports::forThisApp();
    result.timeMachineImports = static_cast<std::int64_t>(imports->entries().size());
    result.timeMachineImportBytes = size(imports->directory());
    result.cacheBytes = size(BackupCache::shared().directory());
    if (const auto folder = ICloudBackup::shared()->thisMacsFolder()) result.iCloudBytes = size(*folder);
    return result;
}

std::vector<std::string> removeData(bool snapshots, bool iCloudCopies) {
    std::vector<std::string> failures;
    SnapshotMount::unmountAll();
    BackupLocator::removeAllStagedCopies();
    remove(BackupCache::shared().directory(), "Backup cache", failures);
    // The accounts file holds passwords: it never outlives the program, whatever else stays.
    remove(accounts::file(), "CalDAV accounts", failures);

    if (snapshots) {
        const auto store = CalendarArchive::shared()->directory();
        remove(store, "Snapshots", failures);
        remove(TimeMachineImports::forThisApp()->directory(), "Time Machine restore points", failures);
        // The product's folder goes only when nothing of anyone else's is left in it; the
        // system's dot-files don't count.
        const auto product = store.parent_path();
        if (holdsOnlyDotFiles(product)) {
            try {
                files::removeItem(product);
            } catch (const std::exception&) {
                // Deliberately dropped: an empty folder left behind harms nobody.
            }
        }
    }

    if (iCloudCopies) {
        try {
            ICloudBackup::shared()->removeThisMacsCopies();
        } catch (const std::bad_alloc&) {
            failures.emplace_back("iCloud: out of memory");
        } catch (const std::exception& failure) {
            failures.push_back("iCloud: " + describe(failure));
        }
    }

    // After any removal, copying stays off until the user turns it on again.
    UserDefaults::current().setBool(std::string(ICloudBackup::enabledKey), false);
    return failures;
}

void removeSettings() {
    const auto identifier = Bundle::current().identifier();
    if (!identifier) return;
    auto& defaults = UserDefaults::current();
    defaults.removePersistentDomain(*identifier);
    defaults.synchronize();
    // The defaults may keep their file elsewhere; this is the one the user would find.
    std::error_code ignored;
    std::filesystem::remove(UserFolders::current().home() / "Library/Preferences" / (*identifier + ".plist"), ignored);
}

} // namespace morvane::Uninstaller
