#pragma once

#include "MorvaneCore/Database/BackupStore.h"
#include "MorvaneCore/EventModel/EventSnapshot.h"
#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/Shared/Date.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// The events of a backup that are gone from the calendars.
struct MissingReport {
    // Events that aren't detached occurrences, gone under every identity; by start, ties in
    // backup order.
    std::vector<BackupEvent> missing;
    // By a missing event's rowID: its detached occurrences, in backup order.
    std::map<std::int64_t, std::vector<BackupEvent>> detachedOccurrences;
    // Events whose identity is gone but whose title and start a live event has: copies that an
    // earlier restore made. In backup order.
    std::vector<BackupEvent> restoredCopies;
    // Every event of the backup, detached occurrences included.
    std::int64_t backupEventCount = 0;

    friend bool operator==(const MissingReport&, const MissingReport&) = default;
};

// An event that is still there, with other content.
struct ChangedEvent {
    BackupEvent backup;
    EventSnapshot current;
    // `old` is the backup's value, `new_` today's.
    std::vector<FieldChange> changes;

    std::int64_t id() const { return backup.rowID; }

    friend bool operator==(const ChangedEvent&, const ChangedEvent&) = default;
};

// One occurrence of a series that is still there, deleted, edited or put back since the backup.
struct OccurrenceChange {
    struct Kind {
        enum class Case : std::uint8_t { edited, deleted, editReverted };

        Case which = Case::deleted;
        // What an edit changed, from the backup's detached occurrence to today's; empty otherwise.
        std::vector<FieldChange> changes;

        static Kind edited(std::vector<FieldChange> changes) { return {Case::edited, std::move(changes)}; }
        static Kind deleted() { return {Case::deleted, {}}; }
        static Kind editReverted() { return {Case::editReverted, {}}; }

        friend bool operator==(const Kind&, const Kind&) = default;
    };

    BackupEvent master;
    // The occurrence key as a date: whole seconds since 2001, a floating series' wall clock.
    Date originalDate;
    // The backup's detached occurrence; absent when the occurrence was plain in the backup.
    std::optional<BackupEvent> backupDetached;
    Kind kind;

    // "{master's rowID}@{occurrence key}".
    std::string id() const;
    // "deleted", "edited" or "edit undone".
    std::string_view kindText() const;
    // The date as reports show it, floating and all-day as the master is.
    std::string dateText() const;
    // The moment: the original date, or for a floating master its wall clock in the current zone.
    Date displayDate() const;

    friend bool operator==(const OccurrenceChange&, const OccurrenceChange&) = default;
};

// What differs among the events of a backup that are still there.
struct ChangeReport {
    // By the backup's start, ties in backup order.
    std::vector<ChangedEvent> changed;
    // By original date; of one date, detached occurrences before plain ones.
    std::vector<OccurrenceChange> occurrenceChanges;
    // Where plain occurrences were really compared; absent when they weren't.
    std::optional<DateInterval> occurrenceWindow;
    // Repeating events whose start, all-day flag or rule changed, whose dates can't be matched.
    std::int64_t seriesSkipped = 0;

    friend bool operator==(const ChangeReport&, const ChangeReport&) = default;
};

// What is gone or different between a backup's events and the calendars as they are now. Pure:
// everything about now comes through the CurrentEventSource, which the caller owns for the call.
namespace Differ {

// Occurrences this close to the edge of a window can lie on either side of it, so they aren't
// trusted: the span asked for is widened by this, and the spans compared are shrunk by it.
inline constexpr double margin = 172800;

// Which events of `backup` are gone: asked by identity, then by title and start. Detached
// occurrences count only with their whole series. Never fails.
MissingReport missing(const std::vector<BackupEvent>& backup, CurrentEventSource& current);

// Which surviving events differ, and for repeating events which occurrences were deleted, edited
// or had their edit undone, asking `current.occurrences` once for all series. Without
// `backupOccurrences` only detached occurrences are compared. Throws what `current.occurrences`
// throws, with nothing reported.
ChangeReport changes(const std::vector<BackupEvent>& backup, const std::optional<OccurrenceSet>& backupOccurrences,
                     CurrentEventSource& current);

// The interval with `by` taken off both ends; nothing unless it is longer than twice `by`.
std::optional<DateInterval> inset(DateInterval interval, double by);

} // namespace Differ
} // namespace morvane
