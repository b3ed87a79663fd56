#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneCore/LiveCalendars/CurrentEvents.h"

#include <cstdint>
#include <memory>
#include <optional>

namespace morvane {

class EKEventStore;

// How many events were lost or changed since each backup, for showing beside it in a list: one
// comparison per backup against an index of the live calendars that is built once and kept until
// the caller says the calendars changed. Only what is cheap is summed up: a Time Machine backup or
// local snapshot counts only when the backup cache holds a copy of it, so no disk is woken and
// nothing is mounted for a summary.
//
// Threads: one operation at a time; the object has no lock.
class BackupSummaries {
public:
    struct Summary {
        // Events gone, plus deleted occurrences that no live event stands in for.
        std::int64_t deleted = 0;
        // Changed events, plus occurrences edited or put back since.
        std::int64_t changed = 0;

        friend bool operator==(const Summary&, const Summary&) = default;
    };

    BackupSummaries() = default;
    BackupSummaries(const BackupSummaries&) = delete;
    BackupSummaries& operator=(const BackupSummaries&) = delete;

    // The two numbers for `source`, or nothing when they can't be had cheaply or at all (no cached
    // copy, no live index, a backup that won't open or read). Never fails; whatever was opened is
    // closed again before this returns.
    std::optional<Summary> summary(const BackupSource& source);

    // Drops the live index, so that the next summary builds a new one.
    void calendarsChanged() { live_.reset(); }

private:
    std::optional<DatabaseSource> live_;
    // Made on first use, only where the live database can't be read and the store must be captured.
    std::shared_ptr<EKEventStore> eventStore_;
};

} // namespace morvane
