#include "MorvaneCore/Search/BackupSummaries.h"

#include "MorvaneCore/Backups/BackupCache.h"
#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Comparison/Differ.h"
#include "MorvanePlatform/EventKit.h"

#include <exception>
#include <filesystem>
#include <new>

namespace morvane {

std::optional<BackupSummaries::Summary> BackupSummaries::summary(const BackupSource& source) {
    if (BackupCache::isCacheable(source)) {
        std::error_code error;
        if (!std::filesystem::exists(BackupCache::shared().url(source), error)) return std::nullopt;
    }
    if (!live_) {
        live_ = BackupLocator::liveIndex([this] {
            if (!eventStore_) eventStore_ = std::make_shared<EKEventStore>();
            return eventStore_;
        });
        if (!live_) return std::nullopt;
    }

    try {
        // The staged copy goes with `opened` on the way out, whatever happens.
        const auto opened = BackupCatalog::open(source);
        const auto events = opened.store->loadEvents();
        std::optional<OccurrenceSet> occurrences;
        try {
            occurrences = opened.store->occurrences();
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception&) {
            // Without its occurrence cache a backup still tells what is gone and what changed.
        }

        const auto missing = Differ::missing(events, *live_);
        const auto changes = Differ::changes(events, occurrences, *live_);
        std::int64_t deletedOccurrences = 0;
        std::int64_t standingAlone = 0;
        for (const auto& change : changes.occurrenceChanges) {
            if (change.kind.which != OccurrenceChange::Kind::Case::deleted) continue;
            ++deletedOccurrences;
            // An occurrence whose title and start a live event has was moved into an event of its
            // own (or restored as one): nothing is lost.
            const auto& content = change.backupDetached ? change.backupDetached->snapshot : change.master.snapshot;
            const auto date = change.backupDetached ? change.backupDetached->snapshot.start : change.originalDate;
            if (!live_->hasEquivalent(content.title, date)) ++standingAlone;
        }
        return Summary{
            static_cast<std::int64_t>(missing.missing.size()) + standingAlone,
            static_cast<std::int64_t>(changes.changed.size() + changes.occurrenceChanges.size()) - deletedOccurrences,
        };
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

} // namespace morvane
