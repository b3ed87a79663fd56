// Copies in a shared folder. Every write of a sync goes to this computer's own folder, and the
// index is written last, so another computer reading meanwhile sees the old index or the new one,
// and only ever files that are whole: a copy appears under its final name by a move.
#include "MorvaneCore/SnapshotStore/ICloudBackup.h"

#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/Machine.h"
#include "MorvanePlatform/UserDefaults.h"
#include "MorvanePlatform/UserFolders.h"

#include <algorithm>
#include <map>
#include <set>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using Entry = CalendarArchive::Entry;

constexpr const char* macFileName = "mac.json";
constexpr const char* indexFileName = "index.json";
constexpr const char* fallbackName = "Mac";

bool existsAt(const fs::path& path) {
    std::error_code ignored;
    return fs::exists(fs::symlink_status(path, ignored));
}

// The first free one of `base`, "{base} 2", "{base} 3", ... in `folder`.
fs::path freeName(const fs::path& folder, const std::string& base) {
    auto candidate = folder / base;
    for (int number = 2; existsAt(candidate); ++number)
        candidate = folder / (base + " " + std::to_string(number));
    return candidate;
}

std::optional<ICloudBackup::MacInfo> readMacInfo(const fs::path& folder) {
    std::string stored;
    try {
        stored = files::read(folder / macFileName);
    } catch (const Error&) {
        return std::nullopt;
    }
    const auto parsed = json::Value::parse(stored, nullptr, /*allow_exceptions=*/false);
    if (!parsed.is_object()) return std::nullopt;
    const auto id = parsed.find("id");
    const auto name = parsed.find("name");
    if (id == parsed.end() || name == parsed.end() || !id->is_string() || !name->is_string()) return std::nullopt;
    return ICloudBackup::MacInfo{id->get<std::string>(), name->get<std::string>()};
}

void writeMacInfo(const fs::path& folder, const ICloudBackup::MacInfo& info) {
    const json::Ordered document = {{"id", info.id}, {"name", info.name}};
    files::writeAtomically(folder / macFileName, json::dumpKeepingOrder(document, /*pretty=*/false));
}

// The computer's name as a folder name: no "/" or ":", no points or blanks at either end.
std::string displayName() {
    auto name = Machine::current().name().value_or(fallbackName);
    std::replace(name.begin(), name.end(), '/', '-');
    std::replace(name.begin(), name.end(), ':', '-');
    const auto first = name.find_first_not_of(". ");
    if (first == std::string::npos) return fallbackName;
    return name.substr(first, name.find_last_not_of(". ") - first + 1);
}

// The children of a folder, by name; nothing when it can't be listed whole.
std::vector<fs::path> children(const fs::path& folder, bool withHidden) {
    std::vector<fs::path> found;
    std::error_code error;
    for (fs::directory_iterator listing(folder, error), end; !error && listing != end; listing.increment(error)) {
        if (withHidden || !listing->path().filename().string().starts_with('.')) found.push_back(listing->path());
    }
    if (error) return {};
    std::sort(found.begin(), found.end());
    return found;
}

bool isStoredFile(const fs::path& file) {
    const auto extension = file.extension().string();
    return std::any_of(std::begin(CalendarArchive::fileExtensions), std::end(CalendarArchive::fileExtensions),
                       [&](const char* stored) { return extension.size() > 1 && extension.substr(1) == stored; });
}

} // namespace

fs::path ICloudBackup::visibleFolder() {
    return UserFolders::current().home() / "Library" / "Mobile Documents" / "com~apple~CloudDocs" / "Morvane";
}

std::shared_ptr<ICloudBackup> ICloudBackup::shared() {
    static const auto instance = std::make_shared<ICloudBackup>();
    return instance;
}

ICloudBackup::ICloudBackup(std::optional<fs::path> fixedRoot) : fixedRoot_(std::move(fixedRoot)) {}

std::optional<fs::path> ICloudBackup::root() const {
    if (fixedRoot_) return fixedRoot_;
    auto named = namedFolder();
    std::error_code ignored;
    // A folder that is gone (a share not mounted, a sync tool removed) is not made again here:
    // the copies would land on the local disk and never reach the other computers.
    if (!named || !fs::is_directory(*named, ignored)) return std::nullopt;
    return named;
}

std::string ICloudBackup::unavailableReason() const {
    if (const auto named = namedFolder())
        return "The shared folder for copies isn't available: " + named->string() +
               " isn't there. Reconnect it, or name another with: morvane copies enable --folder PATH";
    return "The shared folder for copies isn't available: none is named. Name a folder that a sync tool keeps in "
           "step with: morvane copies enable --folder PATH";
}

bool ICloudBackup::isEnabled() const {
    return UserDefaults::current().boolForKey(std::string(enabledKey)).value_or(false);
}

void ICloudBackup::setEnabled(bool enabled) { UserDefaults::current().setBool(std::string(enabledKey), enabled); }

std::optional<fs::path> ICloudBackup::namedFolder() {
    auto named = UserDefaults::current().stringForKey(std::string(folderKey));
    if (!named || named->empty()) return std::nullopt;
    return fs::path(*named);
}

void ICloudBackup::setNamedFolder(const fs::path& folder) {
    UserDefaults::current().setString(std::string(folderKey), folder.string());
}

std::optional<std::string> ICloudBackup::lastError() const {
    return UserDefaults::current().stringForKey(std::string(lastErrorKey));
}

std::optional<Date> ICloudBackup::lastSynced() const {
    const auto stored = UserDefaults::current().dateForKey(std::string(lastSyncedKey));
    if (!stored) return std::nullopt;
    return Date{*stored};
}

std::string ICloudBackup::machineID() {
    auto& machine = Machine::current();
    if (auto identifier = machine.identifier()) return *identifier;
    return machine.name().value_or(fallbackName);
}

std::vector<ICloudBackup::MacFolder> ICloudBackup::macFoldersIn(const fs::path& root) {
    std::vector<MacFolder> found;
    for (const auto& child : children(root, /*withHidden=*/false)) {
        // Also a folder whose mac.json the sync tool hasn't brought yet: it counts next time.
        if (auto info = readMacInfo(child)) found.push_back({child, std::move(*info)});
    }
    return found;
}

std::vector<ICloudBackup::MacFolder> ICloudBackup::macFolders() const {
    const auto base = root();
    if (!base) return {};
    return macFoldersIn(*base);
}

std::optional<fs::path> ICloudBackup::thisMacsFolder() const {
    const auto id = machineID();
    for (const auto& mac : macFolders()) {
        if (mac.info.id == id) return mac.folder;
    }
    return std::nullopt;
}

fs::path ICloudBackup::ownFolder(const fs::path& root) {
    const MacInfo own{machineID(), displayName()};
    for (const auto& mac : macFoldersIn(root)) {
        if (mac.info.id != own.id) continue;
        // Renamed computers show under their new name; the folder keeps the name it was made with.
        if (mac.info.name != own.name) writeMacInfo(mac.folder, own);
        return mac.folder;
    }
    files::createDirectories(root);
    const auto folder = freeName(root, own.name);
    files::createDirectories(folder);
    try {
        writeMacInfo(folder, own);
    } catch (const Error&) {
        // An empty folder would take the name from the next attempt for nothing.
        std::error_code ignored;
        fs::remove(folder, ignored);
        throw;
    }
    return folder;
}

void ICloudBackup::moveVisibleFolder(const fs::path& root) noexcept {
    try {
        const auto visible = visibleFolder();
        if (!existsAt(visible)) return;
        auto rootMacs = macFoldersIn(root);
        for (const auto& mac : macFoldersIn(visible)) {
            const auto match = std::find_if(rootMacs.begin(), rootMacs.end(),
                                            [&](const MacFolder& rootMac) { return rootMac.info.id == mac.info.id; });
            if (match == rootMacs.end()) {
                try {
                    const auto destination = freeName(root, mac.folder.filename().string());
                    files::moveItem(mac.folder, destination);
                    rootMacs.push_back({destination, mac.info});
                } catch (const Error&) {
                    // Tried again on the next sync.
                }
                continue;
            }
            auto listed = CalendarArchive::readIndex(match->folder / indexFileName);
            std::set<std::string> stamps;
            for (const auto& entry : listed)
                stamps.insert(entry.stamp);
            for (const auto& entry : CalendarArchive::readIndex(mac.folder / indexFileName)) {
                if (stamps.contains(entry.stamp)) continue;
                try {
                    files::moveItem(mac.folder / entry.fileName(), match->folder / entry.fileName());
                    listed.push_back(entry);
                    stamps.insert(entry.stamp);
                } catch (const Error&) {
                    // This one is lost with the visible folder.
                }
            }
            try {
                CalendarArchive::writeIndex(std::move(listed), match->folder / indexFileName);
                files::removeItem(mac.folder);
            } catch (const Error&) {
                // The visible folder stays until an index names what was moved.
            }
        }
        if (children(visible, /*withHidden=*/false).empty()) files::removeItem(visible);
    } catch (...) {
        // Moving these copies is a courtesy; the sync itself goes on.
    }
}

ICloudBackup::SyncResult ICloudBackup::sync(const CalendarArchive& from, Date now) {
    const auto base = root();
    if (!base) throw RestoreError(unavailableReason());
    std::lock_guard guard(lock_);
    const files::FolderLock betweenProcesses(*base);
    if (!fixedRoot_) moveVisibleFolder(*base);
    const auto own = ownFolder(*base);

    const auto local = from.entries();
    std::set<std::string> localStamps;
    for (const auto& entry : local)
        localStamps.insert(entry.stamp);
    // The store's entry wins over the copies' index of the same stamp.
    const auto stored = CalendarArchive::readIndex(own / indexFileName);
    std::map<std::string, Entry> merged;
    for (const auto& entry : stored)
        merged.insert_or_assign(entry.stamp, entry);
    for (const auto& entry : local)
        merged.insert_or_assign(entry.stamp, entry);
    std::vector<Entry> candidates;
    for (auto& [stamp, entry] : merged)
        candidates.push_back(std::move(entry));
    const auto kept = CalendarArchive::retained(std::move(candidates), now);
    std::set<std::string> keptStamps;
    for (const auto& entry : kept)
        keptStamps.insert(entry.stamp);

    SyncResult result;
    std::vector<Entry> listed;
    for (const auto& entry : kept) {
        const auto destination = own / entry.fileName();
        // A stamp names its file for good: one that is there is never compared or rewritten.
        if (existsAt(destination)) {
            listed.push_back(entry);
            continue;
        }
        // Listed only in the copies' index, and its file is gone: the index heals by dropping it.
        if (!localStamps.contains(entry.stamp)) continue;
        const auto partial = own / ("." + entry.fileName() + ".partial");
        try {
            files::removeItem(partial);
        } catch (const Error&) {
            // The copy below replaces it, or fails with a reason of its own.
        }
        files::copyFile(from.fileURL(entry), partial);
        files::moveItem(partial, destination);
        listed.push_back(entry);
        ++result.copied;
    }

    for (const auto& child : children(own, /*withHidden=*/true)) {
        if (!isStoredFile(child) || keptStamps.contains(child.stem().string())) continue;
        files::removeItem(child);
        ++result.removed;
    }
    result.total = static_cast<std::int64_t>(listed.size());
    // An index that would come out the same isn't written: a sync tool would carry the same
    // file to every computer after each sync.
    auto oldestFirst = listed;
    std::stable_sort(oldestFirst.begin(), oldestFirst.end(),
                     [](const Entry& a, const Entry& b) { return a.date < b.date; });
    if (oldestFirst != stored || !existsAt(own / indexFileName))
        CalendarArchive::writeIndex(std::move(listed), own / indexFileName);
    return result;
}

std::optional<ICloudBackup::SyncOutcome> ICloudBackup::syncIfEnabled(const CalendarArchive& from, Date now) {
    if (!isEnabled()) return std::nullopt;
    auto& defaults = UserDefaults::current();
    std::string failure;
    try {
        const auto result = sync(from, now);
        defaults.removeObjectForKey(std::string(lastErrorKey));
        defaults.setDate(std::string(lastSyncedKey), now.seconds);
        return SyncOutcome{result, {}};
    } catch (const Error& error) {
        failure = error.description();
    } catch (const std::exception& error) {
        failure = error.what();
    }
    defaults.setString(std::string(lastErrorKey), failure);
    return SyncOutcome{std::nullopt, failure};
}

void ICloudBackup::remove(const std::string& stamp) noexcept {
    try {
        std::lock_guard guard(lock_);
        const auto base = root();
        if (!base) return;
        const files::FolderLock betweenProcesses(*base);
        const auto folder = thisMacsFolder();
        if (!folder) return;
        for (const char* extension : CalendarArchive::fileExtensions) {
            try {
                files::removeItem(*folder / (stamp + "." + extension));
            } catch (const Error&) {
            }
        }
        auto listed = CalendarArchive::readIndex(*folder / indexFileName);
        std::erase_if(listed, [&stamp](const Entry& entry) { return entry.stamp == stamp; });
        CalendarArchive::writeIndex(std::move(listed), *folder / indexFileName);
    } catch (...) {
        // A copy that stays is listed as before; the next sync thins it by the same rule.
    }
}

void ICloudBackup::removeThisMacsCopies() {
    std::lock_guard guard(lock_);
    const auto base = root();
    if (!base) return;
    const files::FolderLock betweenProcesses(*base);
    if (const auto folder = thisMacsFolder()) files::removeItem(*folder);
}

std::vector<ICloudBackup::Snapshot> ICloudBackup::snapshots() const {
    const auto id = machineID();
    std::vector<Snapshot> found;
    for (const auto& mac : macFolders()) {
        for (auto& entry : CalendarArchive::readIndex(mac.folder / indexFileName)) {
            auto file = mac.folder / entry.fileName();
            found.push_back({std::move(entry), std::move(file), mac.info.name, mac.info.id == id});
        }
    }
    std::stable_sort(found.begin(), found.end(),
                     [](const Snapshot& a, const Snapshot& b) { return a.entry.date > b.entry.date; });
    return found;
}

ICloudBackup::Usage ICloudBackup::ownUsage() const {
    Usage usage;
    for (const auto& snapshot : snapshots()) {
        if (!snapshot.isThisMac) continue;
        ++usage.count;
        usage.bytes += snapshot.entry.bytes;
    }
    return usage;
}

} // namespace morvane
