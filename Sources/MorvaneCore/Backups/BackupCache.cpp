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

std::optional<std::filesystem::path> BackupCache::stage(const BackupSource& source) const {
    const auto file = url(source);
    std::error_code error;
    if (!std::filesystem::exists(file, error)) return std::nullopt;
    try {
        return CalendarArchive::stageFile(file);
    } catch (const Error&) {
        std::filesystem::remove(file, error);
        return std::nullopt;
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

bool BackupCache::beginOpening(const std::string& id) {
    std::lock_guard guard(lock_);
    return inFlight_.insert(id).second;
}

void BackupCache::endOpening(const std::string& id) {
    std::lock_guard guard(lock_);
    inFlight_.erase(id);
}

bool BackupCache::isOpening(const std::string& id) const {
    std::lock_guard guard(lock_);
    return inFlight_.count(id) > 0;
}

} // namespace morvane
