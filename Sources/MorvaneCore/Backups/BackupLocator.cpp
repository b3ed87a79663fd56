#include "MorvaneCore/Backups/BackupLocator.h"

#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Paths.h"
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"
#include "MorvanePlatform/Accounts.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserFolders.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <mutex>
#include <set>
#include <utility>

namespace morvane::BackupLocator {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view stagedFolderPrefix = "morvane-";
constexpr int searchLevels = 4; // the root and three levels below it
constexpr std::array<std::string_view, 6> skippedFolders = {"Users",   "System",  "Applications",
                                                            "Library", "private", "usr"};

struct Registry {
    std::mutex lock;
    std::set<fs::path> staged; // guarded by lock
};

Registry& registry() {
    static Registry shared;
    return shared;
}

void forget(const fs::path& folder) {
    auto& shared = registry();
    std::lock_guard guard(shared.lock);
    shared.staged.erase(folder);
}

void remember(const fs::path& folder) {
    auto& shared = registry();
    std::lock_guard guard(shared.lock);
    shared.staged.insert(folder);
}

// A fresh private folder, owned from the start by the copy of `name` that it is to hold, so that
// a failure while filling it takes it away again. It is registered before it exists: a process
// ending on a signal meanwhile still finds it.
StagedCopy newStagedCopy(const fs::path& name) {
    const auto folder = UserFolders::current().temporary() / (std::string(stagedFolderPrefix) + files::randomUUID());
    remember(folder);
    StagedCopy staged(folder / name);
    files::createPrivateFolder(folder);
    return staged;
}

// The sub-folders of `folder` that the search enters, in name order. Links are not followed,
// and a folder that can't be listed counts as empty.
std::vector<fs::path> searchableChildren(const fs::path& folder) {
    std::vector<fs::path> children;
    std::error_code error;
    fs::directory_iterator entries(folder, error);
    for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
        std::error_code statusError;
        const auto status = entries->symlink_status(statusError);
        if (statusError || !fs::is_directory(status)) continue;
        const auto name = entries->path().filename().string();
        if (std::find(skippedFolders.begin(), skippedFolders.end(), name) != skippedFolders.end()) continue;
        children.push_back(entries->path());
    }
    std::sort(children.begin(), children.end());
    return children;
}

} // namespace

std::string liveDBPath() { return UserFolders::current().home().string() + "/" + std::string(relativeDBPath); }

bool canReadLiveDatabase() {
    std::error_code error;
    fs::directory_iterator listing(fs::path(liveDBPath()).parent_path(), error);
    return !error;
}

std::optional<fs::path> readableLiveDatabase() {
    if (!accounts::localStoreIsLive() || !canReadLiveDatabase()) return std::nullopt;
    return fs::path(liveDBPath());
}

fs::path findDatabase(std::string_view root, std::string_view user) {
    const fs::path expanded(paths::expandingTilde(root));
    std::error_code error;
    const auto status = fs::status(expanded, error);
    if (!fs::exists(status))
        throw BackupLocatorError::notFound(expanded.string(), errnoText(error ? error.value() : ENOENT));
    if (!fs::is_directory(status)) return expanded;

    // A whole volume has the home folder under Users; a home folder has the database directly.
    const std::array<fs::path, 2> candidates = {fs::path("Users") / user / relativeDBPath, fs::path(relativeDBPath)};

    std::vector<fs::path> level = {expanded};
    for (int depth = 0; depth < searchLevels && !level.empty(); ++depth) {
        std::vector<fs::path> next;
        for (const auto& folder : level) {
            for (const auto& candidate : candidates) {
                auto found = folder / candidate;
                if (fs::exists(found, error)) return found;
            }
            // Below the root a folder that can't be listed counts as empty; the root itself
            // unlisted would make a missing permission pass for a backup without a database.
            if (depth == 0) {
                std::error_code listing;
                fs::directory_iterator probe(folder, listing);
                if (listing) throw BackupLocatorError::notFound(expanded.string(), errnoText(listing.value()));
            }
            auto children = searchableChildren(folder);
            next.insert(next.end(), std::make_move_iterator(children.begin()), std::make_move_iterator(children.end()));
        }
        level = std::move(next);
    }
    throw BackupLocatorError::notFound(expanded.string());
}

StagedCopy stageCopy(const fs::path& database) {
    try {
        auto staged = newStagedCopy(database.filename());
        for (const char* suffix : {"", "-wal", "-shm"}) {
            auto source = database;
            source += suffix;
            std::error_code error;
            if (!fs::exists(source, error)) continue;
            // By content, not as a file-system copy, so the copy is ours, and private from its
            // first byte, whatever the source is.
            files::copyPrivately(source, staged.file().parent_path() / source.filename());
        }
        return staged;
    } catch (const Error& failure) {
        // The folder went with `staged` on the way out.
        throw BackupLocatorError::copyFailed(failure.description());
    }
}

StagedCopy stageData(std::string_view data, const std::string& name) {
    auto staged = newStagedCopy(name);
    files::writePrivately(staged.file(), data);
    return staged;
}

std::optional<DatabaseSource> liveIndex(const std::function<std::shared_ptr<EKEventStore>()>& eventStore) {
    if (const auto live = readableLiveDatabase()) {
        try {
            const auto staged = stageCopy(*live);
            // The database closes before its copy goes.
            CalendarDatabase database(staged.file());
            return DatabaseSource(database);
        } catch (const Error&) {
            // The database is the quick way, not the only one.
        }
    }
    if (!CalendarAccess::isGranted()) return std::nullopt;
    try {
        auto store = eventStore();
        if (!store) return std::nullopt;
        return DatabaseSource(EventKitSnapshot::capture(*store, Date::now()), EventKitSource(store));
    } catch (const Error&) {
        return std::nullopt;
    }
}

void removeStagedCopy(const fs::path& file) {
    const auto folder = file.parent_path();
    if (!folder.filename().string().starts_with(stagedFolderPrefix)) return;
    std::error_code ignored;
    fs::remove_all(folder, ignored);
    forget(folder);
}

void removeAllStagedCopies() {
    std::vector<fs::path> folders = stagedFolders();
    for (const auto& folder : folders) {
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }
    auto& shared = registry();
    std::lock_guard guard(shared.lock);
    shared.staged.clear();
}

std::vector<fs::path> stagedFolders() {
    auto& shared = registry();
    std::lock_guard guard(shared.lock);
    return {shared.staged.begin(), shared.staged.end()};
}

} // namespace morvane::BackupLocator

namespace morvane {

StagedCopy& StagedCopy::operator=(StagedCopy&& other) noexcept {
    if (this != &other) {
        remove();
        file_ = std::exchange(other.file_, {});
    }
    return *this;
}

void StagedCopy::remove() noexcept {
    if (file_.empty()) return;
    BackupLocator::removeStagedCopy(std::exchange(file_, {}));
}

} // namespace morvane
