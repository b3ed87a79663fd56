#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/Shared/SharedInstances.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserFolders.h"

#include <algorithm>
#include <map>
#include <set>

namespace morvane::TimeMachineImports {
namespace {

std::filesystem::path checkedURL(const CalendarArchive& archive) { return archive.directory() / "checked.json"; }

std::set<std::string> readChecked(const CalendarArchive& archive) {
    std::string stored;
    try {
        stored = files::read(checkedURL(archive));
    } catch (const Error&) {
        return {};
    }
    const auto parsed = json::Value::parse(stored, nullptr, /*allow_exceptions=*/false);
    if (!parsed.is_array()) return {};
    std::set<std::string> stamps;
    for (const auto& element : parsed) {
        if (!element.is_string()) return {};
        stamps.insert(element.get<std::string>());
    }
    return stamps;
}

} // namespace

std::filesystem::path appStoreContainer() {
    return UserFolders::current().home() / "Library" / "Containers" / std::string(appBundleID);
}

std::shared_ptr<CalendarArchive> forAppStoreEdition() {
    return std::make_shared<CalendarArchive>(appStoreContainer() / "Data" / "Library" / "Application Support" /
                                             "Morvane" / "Time Machine");
}

std::shared_ptr<CalendarArchive> forThisApp() {
    // On a Mac the sandbox turns this into the container's folder; here the App Store edition
    // and the helper are one user's programs, so the two must name the same folder outright.
    return sharedInstance<CalendarArchive>(forAppStoreEdition()->directory());
}

Pending pending(const CalendarArchive& archive) {
    Pending result;
    std::vector<BackupSource> listed;
    BackupCatalog::listTimeMachine(listed, result.notes);
    const auto checked = readChecked(archive);

    // The latest backup of each local day; of two with the same moment, the first listed.
    std::map<std::string, const BackupSource*> latestOfDay;
    for (const auto& source : listed) {
        if (!source.date) continue;
        auto& survivor = latestOfDay[dates::format(*source.date, "yyyy-MM-dd", "en_US_POSIX")];
        if (survivor == nullptr || *survivor->date < *source.date) survivor = &source;
    }
    for (const auto& [day, source] : latestOfDay) {
        if (checked.count(CalendarArchive::stamp(*source->date)) == 0) result.sources.push_back(*source);
    }
    std::stable_sort(result.sources.begin(), result.sources.end(),
                     [](const BackupSource& a, const BackupSource& b) { return *a.date < *b.date; });
    return result;
}

CalendarArchive::SnapshotResult importBackup(const BackupSource& source, CalendarArchive& archive) {
    if (!source.date) throw RestoreError("This backup has no date.");
    // The staged copy and the mount go with `opened`, whatever happens.
    const auto opened = BackupCatalog::openUncached(source);
    const auto database = std::dynamic_pointer_cast<CalendarDatabase>(opened.store);
    if (!database || !opened.stagedCopy) throw RestoreError("This backup has no calendar database.");
    auto result = archive.importDatabase(*database, opened.stagedCopy.file(), *source.date);
    markChecked(CalendarArchive::stamp(*source.date), archive);
    return result;
}

void markChecked(const std::string& stamp, const CalendarArchive& archive) {
    auto stamps = readChecked(archive);
    stamps.insert(stamp);
    // A set iterates in ascending order: the file lists its stamps sorted.
    files::writeAtomically(checkedURL(archive), json::dump(json::Value(stamps), /*pretty=*/false));
}

std::vector<std::string> checkedStamps(const CalendarArchive& archive) {
    const auto stamps = readChecked(archive);
    return {stamps.begin(), stamps.end()};
}

} // namespace morvane::TimeMachineImports
