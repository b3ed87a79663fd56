#include "MorvaneCore/Backups/BackupCatalog.h"

#include "MorvaneCore/Backups/BackupCache.h"
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Backups/SnapshotMount.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/IcsArchives/IcsArchive.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Paths.h"
#include "MorvaneCore/Shared/Text.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"
#include "MorvaneCore/SnapshotStore/ICloudBackup.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvanePlatform/ToolLauncher.h"
#include "MorvanePlatform/UserFolders.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <limits>
#include <plist/plist.h>
#include <set>

namespace morvane::BackupCatalog {
namespace {

constexpr const char* tmutil = "/usr/bin/tmutil";
constexpr const char* diskutil = "/usr/sbin/diskutil";

using PropertyList = std::unique_ptr<std::remove_pointer_t<plist_t>, decltype(&plist_free)>;

// The text at `key` of a property list whose root is a dictionary; empty for anything else.
std::string dictionaryText(std::string_view data, const char* key) {
    if (data.empty() || data.size() > std::numeric_limits<uint32_t>::max()) return {};
    plist_t parsed = nullptr;
    plist_from_memory(data.data(), static_cast<uint32_t>(data.size()), &parsed);
    const PropertyList root(parsed, &plist_free);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return {};
    plist_t value = plist_dict_get_item(root.get(), key);
    if (value == nullptr || plist_get_node_type(value) != PLIST_STRING) return {};
    uint64_t length = 0;
    const char* characters = plist_get_string_ptr(value, &length);
    return characters != nullptr ? std::string(characters, length) : std::string();
}

void appendLocalSnapshots(std::vector<BackupSource>& into) {
    const auto listing = run(tmutil, {"listlocalsnapshotdates", "/"});
    // The status is not consulted: headings and error texts simply don't parse as dates.
    for (const auto line : text::nonEmptyLines(listing.output)) {
        const auto stamp = text::trimming(line, " \t");
        const auto date = parseStamp(stamp);
        if (!date) continue;
        std::string name(snapshotNamePrefix);
        name.append(stamp).append(localSnapshotSuffix);
        into.emplace_back(BackupSource::Kind::localSnapshot(std::move(name)), date);
    }
}

void appendBackups(std::vector<BackupSource>& into, std::vector<std::string>& notes) {
    const auto listing = run(tmutil, {"listbackups"});
    size_t count = 0;
    for (const auto line : text::nonEmptyLines(listing.output)) {
        if (!line.starts_with('/')) continue;
        std::string path(line);
        const auto date = parseStamp(text::replacingAll(paths::lastComponent(path), backupSnapshotSuffix, ""));
        into.emplace_back(BackupSource::Kind::timeMachine(std::move(path)), date);
        ++count;
    }
    if (count > 0) return;

    // Nothing listed: the tool's words, not its status, tell why.
    if (listing.output.find("Operation not permitted") != std::string::npos) {
        notes.emplace_back("Time Machine backups can't be listed without Full Disk Access.");
    } else if (listing.output.find("No machine directory") != std::string::npos ||
               listing.output.find("Failed to mount") != std::string::npos) {
        notes.emplace_back("The Time Machine backup disk isn't connected; only local snapshots are listed.");
    }
}

} // namespace

ToolResult run(const std::string& path, const std::vector<std::string>& arguments) {
    auto launched = ToolLauncher::current().launch(path, arguments);
    return {launched.status, text::repairedUTF8(launched.output)};
}

void listTimeMachine(std::vector<BackupSource>& into, std::vector<std::string>& notes) {
    appendLocalSnapshots(into);
    appendBackups(into, notes);
}

void sortNewestFirst(std::vector<BackupSource>& sources) {
    std::stable_sort(sources.begin(), sources.end(), [](const BackupSource& a, const BackupSource& b) {
        return a.date && (!b.date || *a.date > *b.date);
    });
}

std::optional<Date> parseStamp(std::string_view text) { return dates::parseStamp(text); }

void appendAppSnapshots(std::vector<BackupSource>& into) {
    using Kind = BackupSource::Kind;
    const auto archive = CalendarArchive::shared();
    std::set<std::string> stamps;
    for (const auto& entry : archive->entries()) {
        into.emplace_back(Kind::appSnapshot(archive->fileURL(entry).string()), entry.date);
        stamps.insert(entry.stamp);
    }
    for (const auto& copy : ICloudBackup::shared()->snapshots()) {
        if (copy.isThisMac && stamps.contains(copy.entry.stamp)) continue;
        into.emplace_back(Kind::iCloudSnapshot(copy.file.string(), copy.macName), copy.entry.date);
    }
    const auto imports = TimeMachineImports::forThisApp();
    for (const auto& entry : imports->entries())
        into.emplace_back(Kind::timeMachineImport(imports->fileURL(entry).string()), entry.date);
}

Listing list(bool timeMachine) {
    Listing listing;
    if (timeMachine) listTimeMachine(listing.sources, listing.notes);
    appendAppSnapshots(listing.sources);
    sortNewestFirst(listing.sources);
    return listing;
}

BackupSource source(std::string_view forPath) {
    using Kind = BackupSource::Kind;
    const auto path = paths::expandingTilde(forPath);
    if (path.find(std::string("/") + std::string(timeMachineFolder) + "/") != std::string::npos)
        return {Kind::timeMachine(path), std::nullopt};
    if (path.starts_with(snapshotNamePrefix) && path.ends_with(localSnapshotSuffix))
        return {Kind::localSnapshot(path), std::nullopt};

    const std::filesystem::path file(path);
    const auto extension = file.extension().string();
    for (const std::string_view stored : CalendarArchive::fileExtensions) {
        if (!extension.empty() && extension.substr(1) == stored)
            return {Kind::appSnapshot(path), parseStamp(file.stem().string())};
    }

    // A folder holding a calendar database is read as that database, whatever else it holds.
    bool holdsDatabase = true;
    try {
        BackupLocator::findDatabase(path, UserFolders::current().userName());
    } catch (const BackupLocatorError&) {
        holdsDatabase = false;
    }
    if (!holdsDatabase && IcsArchive::looksLikeArchive(path))
        return {Kind::icsArchive(path), parseStamp(paths::lastComponent(path))};
    return {Kind::file(path), std::nullopt};
}

BackupSource resolve(std::string_view backup) {
    static constexpr std::array<std::string_view, 7> idPrefixes = {
        "snap:", "tm:", "file:", "ics:", "app:", "icloud:", "tmi:"};
    const bool looksLikeID = std::any_of(idPrefixes.begin(), idPrefixes.end(),
                                         [backup](std::string_view prefix) { return backup.starts_with(prefix); });
    std::error_code error;
    if (!looksLikeID || std::filesystem::exists(paths::expandingTilde(backup), error)) return source(backup);

    // The sources an id may name: the whole list `morvane backups` shows. Only Time Machine's
    // ids need its tools run.
    const bool timeMachine = backup.starts_with("tm:") || backup.starts_with("snap:");
    for (auto& candidate : list(timeMachine).sources) {
        if (candidate.id() == backup) return std::move(candidate);
    }
    throw RestoreError("No backup has the id " + std::string(backup) + ". Run 'morvane backups' for the list.");
}

PreparedSource prepare(const BackupSource& source) {
    using Case = BackupSource::Kind::Case;
    switch (source.kind.which) {
    case Case::localSnapshot: {
        auto mount = SnapshotMount::create(source.kind.name(), std::string(dataVolume));
        auto root = mount->mountPoint().string();
        return {std::move(root), std::move(mount)};
    }
    case Case::timeMachine: {
        const auto& path = source.kind.path();
        try {
            // A folder-based backup, or a snapshot the system has mounted at that path already.
            BackupLocator::findDatabase(path, UserFolders::current().userName());
            return {path, nullptr};
        } catch (const BackupLocatorError&) {
        }
        const auto snapshot = timeMachineSnapshot(path);
        if (!snapshot)
            throw RestoreError("Can't tell which Time Machine disk " + path + " is on. Is the backup disk connected?");
        auto mount = SnapshotMount::create(snapshot->name, snapshot->volume);
        auto root = mount->mountPoint().string();
        return {std::move(root), std::move(mount)};
    }
    case Case::file:
    case Case::icsArchive:
    case Case::appSnapshot:
    case Case::iCloudSnapshot:
    case Case::timeMachineImport: return {source.kind.path(), nullptr};
    }
    return {source.kind.path(), nullptr};
}

std::optional<SnapshotLocation> timeMachineSnapshot(const std::string& path) {
    const auto parts = paths::components(path);
    const auto marker = std::find(parts.begin(), parts.end(), timeMachineFolder);
    if (marker == parts.end() || parts.end() - marker < 3) return std::nullopt;

    const auto& volumeUUID = *(marker + 1);
    const auto stamp = text::replacingAll(*(marker + 2), backupSnapshotSuffix, "");
    if (!parseStamp(stamp)) return std::nullopt;

    const auto info = run(diskutil, {"info", "-plist", volumeUUID});
    if (info.status != 0) return std::nullopt;
    auto mountPoint = dictionaryText(info.output, "MountPoint");
    if (mountPoint.empty()) return std::nullopt;

    std::string name(snapshotNamePrefix);
    name.append(stamp).append(backupSnapshotSuffix);
    return SnapshotLocation{std::move(name), std::move(mountPoint)};
}

} // namespace morvane::BackupCatalog

namespace morvane {

OpenedBackup::OpenedBackup(std::shared_ptr<BackupStore> opened, std::string from, StagedCopy staged,
                           std::shared_ptr<SnapshotMount> mounted)
    : store(std::move(opened)), location(std::move(from)), stagedCopy(std::move(staged)), mount(std::move(mounted)) {}

OpenedBackup::~OpenedBackup() {
    // Ours may be the last hold on the database: it closes before its files go.
    store.reset();
    close();
}

OpenedBackup& OpenedBackup::operator=(OpenedBackup&& other) noexcept {
    if (this != &other) {
        store.reset();
        close();
        store = std::move(other.store);
        location = std::move(other.location);
        stagedCopy = std::move(other.stagedCopy);
        mount = std::move(other.mount);
    }
    return *this;
}

void OpenedBackup::close() noexcept {
    stagedCopy.remove();
    if (mount) mount->unmount();
}

namespace BackupCatalog {

PreparedSource::PreparedSource(std::string readable, std::shared_ptr<SnapshotMount> mounted)
    : root(std::move(readable)), mount(std::move(mounted)) {}

PreparedSource::~PreparedSource() {
    if (mount) mount->unmount();
}

namespace {

// A calendar database on its staged copy; the copy goes if it doesn't open.
OpenedBackup openDatabase(StagedCopy staged, std::string location) {
    auto database = std::make_shared<CalendarDatabase>(staged.file(), location);
    return {std::move(database), std::move(location), std::move(staged)};
}

OpenedBackup openPrepared(const BackupSource& source, PreparedSource& prepared) {
    using Case = BackupSource::Kind::Case;
    const auto& path = source.kind.path();
    switch (source.kind.which) {
    case Case::localSnapshot:
    case Case::timeMachine:
    case Case::file: {
        const auto found = BackupLocator::findDatabase(prepared.root, UserFolders::current().userName());
        auto opened = openDatabase(BackupLocator::stageCopy(found), found.string());
        // Only now, with nothing left to fail, does the mount pass to the opened backup.
        opened.mount = std::move(prepared.mount);
        return opened;
    }
    case Case::icsArchive: return {std::make_shared<IcsArchive>(path, liveCalendarResolver()), path};
    case Case::appSnapshot:
    case Case::iCloudSnapshot:
    case Case::timeMachineImport: {
        if (path.ends_with(".calevents")) return {std::make_shared<EventKitStore>(path), path};
        return openDatabase(CalendarArchive::stageFile(path), path);
    }
    }
    throw RestoreError("Unknown kind of backup: " + source.id());
}

} // namespace

OpenedBackup openUncached(const BackupSource& source) {
    // Whatever fails below, the staged copy and the mount go with their owners on the way out.
    auto prepared = prepare(source);
    return openPrepared(source, prepared);
}

OpenedBackup open(const BackupSource& source) {
    if (!BackupCache::isCacheable(source)) return openUncached(source);
    auto& cache = BackupCache::shared();
    const auto id = source.id();

    for (;;) {
        // Someone else is reading this source for the first time: wait, then use the cache.
        cache.awaitOpening(id);
        if (auto staged = cache.stage(source)) {
            try {
                return openDatabase(std::move(staged), source.subtitle() + " (cached)");
            } catch (const Error&) {
                // A cached file that decompresses but doesn't open is replaced by the save below.
            }
        }
        if (const auto claim = cache.beginOpening(id)) {
            // The claim is let go on the way out, also by an exception, which wakes the waiters.
            auto opened = openUncached(source);
            if (auto database = std::dynamic_pointer_cast<CalendarDatabase>(opened.store);
                database && opened.stagedCopy)
                cache.save(*database, opened.stagedCopy.file(), source);
            return opened;
        }
        // Another thread began in the gap: back to waiting for it.
    }
}

void prepareCache(const BackupSource& source) {
    if (!BackupCache::isCacheable(source) || BackupCache::shared().isCached(source)) return;
    open(source).close();
}

CalendarResolver liveCalendarResolver() {
    // Without the live calendars an archive still opens, with its own names for them. A live
    // account's calendars are none of the local database's, so its names would be wrong ones.
    const CalendarResolver ownNames = [](const std::string&, const std::optional<std::string>&) {
        return std::optional<ArchiveCalendarInfo>();
    };
    const auto live = BackupLocator::readableLiveDatabase();
    if (!live) return ownNames;
    try {
        const auto staged = BackupLocator::stageCopy(*live);
        return CalendarDatabase(staged.file()).calendarDirectory();
    } catch (const Error&) {
        return ownNames;
    }
}

} // namespace BackupCatalog
} // namespace morvane
