#include "MorvaneCore/Backups/BackupCache.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/Shared/Compression.h"
#include "MorvaneCore/Shared/SharedInstances.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/SHA256.h"
#include "MorvanePlatform/UserFolders.h"

#include <iostream>

namespace morvane {

BackupCache& BackupCache::shared() {
    return *sharedInstance<BackupCache>(UserFolders::current().caches() / "Morvane" / "Backups");
}

BackupCache::BackupCache(std::filesystem::path directory) : directory_(std::move(directory)) {}

bool BackupCache::isCacheable(const BackupSource& source) {
    using Case = BackupSource::Kind::Case;
    return source.kind.which == Case::localSnapshot || source.kind.which == Case::timeMachine;
}

bool BackupCache::isCached(const BackupSource& source) const {
    if (!isCacheable(source)) return true;
    std::error_code error;
    return std::filesystem::exists(url(source), error);
}

std::filesystem::path BackupCache::url(const BackupSource& source) const {
    const auto digest = SHA256::of(source.id());
    return directory_ / (SHA256::hex(digest.data(), 16) + ".calsnap");
}

StagedCopy BackupCache::stage(const BackupSource& source) const {
    const auto file = url(source);
    std::error_code error;
    if (!std::filesystem::exists(file, error)) return {};
    try {
        return CalendarArchive::stageFile(file);
    } catch (const Error&) {
        // A damaged entry costs only speed: the next opening reads the backup and saves it anew.
        std::filesystem::remove(file, error);
        return {};
    }
}

void BackupCache::save(CalendarDatabase& database, const std::filesystem::path& file,
                       const BackupSource& source) const {
    try {
        database.verifyIntegrity();
        database.checkpoint();
        const auto compressed = compression::compress(files::read(file));
        files::createDirectories(directory_);
        files::writeAtomically(url(source), compressed);
    } catch (const std::exception& error) {
        std::cerr << "backup cache: couldn't save " << source.title() << ": " << error.what() << '\n';
    }
}

std::int64_t BackupCache::totalBytes() const {
    std::int64_t total = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator entries(directory_, error), end; !error && entries != end;
         entries.increment(error)) {
        std::error_code sizeError;
        const auto size = entries->file_size(sizeError);
        if (!sizeError) total += static_cast<std::int64_t>(size);
    }
    return total;
}

void BackupCache::clear() const {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::optional<BackupCache::Opening> BackupCache::beginOpening(const std::string& id) {
    std::lock_guard guard(lock_);
    if (!inFlight_.insert(id).second) return std::nullopt;
    return Opening(*this, id);
}

void BackupCache::awaitOpening(const std::string& id) const {
    std::unique_lock guard(lock_);
    openingEnded_.wait(guard, [&] { return inFlight_.count(id) == 0; });
}

void BackupCache::endOpening(const std::string& id) {
    std::lock_guard guard(lock_);
    inFlight_.erase(id);
    // Waiters of every id share the one condition; each checks its own id again.
    openingEnded_.notify_all();
}

BackupCache::Opening::~Opening() {
    if (cache_ != nullptr) cache_->endOpening(id_);
}

} // namespace morvane
