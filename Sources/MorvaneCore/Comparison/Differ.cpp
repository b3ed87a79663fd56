// The comparison of a backup with the calendars as they are now. `missing` asks identity first
// and title-and-start second, so that moved, retitled and restored events don't count as lost.
// `changes` compares each surviving event's content, then, for the repeating events whose dates
// still line up, their occurrences: first the backup's detached ones, then its plain ones, the
// latter only where both sides' occurrence windows, each shrunk by the margin, overlap.
#include "MorvaneCore/Comparison/Differ.h"

#include "MorvaneCore/Shared/EventKeys.h"
#include "MorvaneCore/Shared/TimeZones.h"

#include <algorithm>
#include <limits>
#include <unordered_map>
#include <unordered_set>

namespace morvane {
namespace {

bool shiftsEveryOccurrence(const std::vector<FieldChange>& changes) {
    return std::any_of(changes.begin(), changes.end(), [](const FieldChange& change) {
        return change.field == "start" || change.field == "all-day" || change.field == "recurrence";
    });
}

bool holds(DateInterval interval, Date date) { return interval.start <= date && date <= interval.end; }

bool holdsKey(const std::map<std::string, std::vector<std::int64_t>>& dates, const std::string& uid, std::int64_t key) {
    const auto found = dates.find(uid);
    return found != dates.end() && std::binary_search(found->second.begin(), found->second.end(), key);
}

Date dateOfKey(std::int64_t key) { return Date{static_cast<double>(key)}; }

} // namespace

std::string OccurrenceChange::id() const {
    return std::to_string(master.rowID) + "@" + std::to_string(originalDate.occurrenceKey());
}

std::string_view OccurrenceChange::kindText() const {
    switch (kind.which) {
    case Kind::Case::edited: return "edited";
    case Kind::Case::deleted: return "deleted";
    case Kind::Case::editReverted: return "edit undone";
    }
    return {};
}

std::string OccurrenceChange::dateText() const {
    return EventSnapshot::format(originalDate, master.snapshot.isFloating(), master.snapshot.isAllDay);
}

Date OccurrenceChange::displayDate() const {
    return master.snapshot.isFloating() ? zones::instantOfWallClock(originalDate) : originalDate;
}

namespace Differ {

std::optional<DateInterval> inset(DateInterval interval, double by) {
    if (!(2 * by < interval.end.seconds - interval.start.seconds)) return std::nullopt;
    return DateInterval{{interval.start.seconds + by}, {interval.end.seconds - by}};
}

MissingReport missing(const std::vector<BackupEvent>& backup, CurrentEventSource& current) {
    MissingReport report;
    report.backupEventCount = static_cast<std::int64_t>(backup.size());
    std::unordered_set<std::int64_t> gone;
    for (const auto& event : backup) {
        if (event.isDetachedOccurrence() || current.contains(event)) continue;
        if (current.hasEquivalent(event)) {
            report.restoredCopies.push_back(event);
        } else {
            report.missing.push_back(event);
            gone.insert(event.rowID);
        }
    }
    for (const auto& event : backup) {
        if (event.masterRowID && gone.count(*event.masterRowID) != 0)
            report.detachedOccurrences[*event.masterRowID].push_back(event);
    }
    std::stable_sort(report.missing.begin(), report.missing.end(),
                     [](const BackupEvent& a, const BackupEvent& b) { return a.snapshot.start < b.snapshot.start; });
    return report;
}

ChangeReport changes(const std::vector<BackupEvent>& backup, const std::optional<OccurrenceSet>& backupOccurrences,
                     CurrentEventSource& current) {
    ChangeReport report;

    // Series whose occurrences are compared, by series key; the order of first appearance keeps
    // the report the same from run to run.
    std::unordered_map<std::string, const BackupEvent*> compared;
    std::vector<std::string> comparedOrder;
    for (const auto& event : backup) {
        if (event.isDetachedOccurrence()) continue;
        auto now = current.snapshot(event);
        if (!now) continue;
        auto differences = event.snapshot.changes(*now);
        const bool shifted = shiftsEveryOccurrence(differences);
        if (!differences.empty()) report.changed.push_back({event, std::move(*now), std::move(differences)});
        if (!event.hasRecurrences) continue;
        if (shifted) {
            ++report.seriesSkipped;
            continue;
        }
        auto [entry, added] = compared.insert_or_assign(std::string(seriesKey(event.uniqueIdentifier)), &event);
        if (added) comparedOrder.push_back(entry->first);
    }
    std::stable_sort(report.changed.begin(), report.changed.end(), [](const ChangedEvent& a, const ChangedEvent& b) {
        return a.backup.snapshot.start < b.backup.snapshot.start;
    });

    std::map<std::string, std::map<std::int64_t, const BackupEvent*>> storedDetached;
    for (const auto& event : backup) {
        if (!event.isDetachedOccurrence() || !event.originalDate) continue;
        std::string uid(seriesKey(event.uniqueIdentifier));
        if (compared.count(uid) == 0) continue;
        storedDetached[std::move(uid)][event.originalDate->occurrenceKey()] = &event;
    }
    if (compared.empty()) return report;

    Date lower{std::numeric_limits<double>::infinity()};
    Date upper{-std::numeric_limits<double>::infinity()};
    if (backupOccurrences) {
        lower = backupOccurrences->window.start;
        upper = backupOccurrences->window.end;
    }
    for (const auto& [uid, byKey] : storedDetached) {
        for (const auto& [key, event] : byKey) {
            lower = std::min(lower, *event->originalDate);
            upper = std::max(upper, *event->originalDate);
        }
    }
    if (!(lower < upper)) return report;

    const std::set<std::string> uids(comparedOrder.begin(), comparedOrder.end());
    const auto now = current.occurrences(uids, {{lower.seconds - margin}, {upper.seconds + margin}});
    const auto currentInset = inset(now.window, margin);

    for (const auto& [uid, byKey] : storedDetached) {
        const auto liveDetached = now.detached.find(uid);
        for (const auto& [key, event] : byKey) {
            const auto& master = *compared.at(uid);
            if (liveDetached != now.detached.end()) {
                if (const auto found = liveDetached->second.find(key); found != liveDetached->second.end()) {
                    auto differences = event->snapshot.changes(found->second, {.recurrence = false});
                    if (!differences.empty()) {
                        report.occurrenceChanges.push_back(
                            {master, dateOfKey(key), *event, OccurrenceChange::Kind::edited(std::move(differences))});
                    }
                    continue;
                }
            }
            if (!currentInset || !holds(*currentInset, dateOfKey(key))) continue;
            report.occurrenceChanges.push_back({master, dateOfKey(key), *event,
                                                holdsKey(now.dates, uid, key) ? OccurrenceChange::Kind::editReverted()
                                                                              : OccurrenceChange::Kind::deleted()});
        }
    }

    const auto backupInset = backupOccurrences ? inset(backupOccurrences->window, margin) : std::nullopt;
    if (currentInset && backupInset) {
        const DateInterval window{std::max(currentInset->start, backupInset->start),
                                  std::min(currentInset->end, backupInset->end)};
        if (window.start < window.end) {
            report.occurrenceWindow = window;
            for (const auto& uid : comparedOrder) {
                const auto dates = backupOccurrences->dates.find(uid);
                if (dates == backupOccurrences->dates.end()) continue;
                const auto detached = storedDetached.find(uid);
                // Both lists ascend: one walk along the two of them.
                static const std::vector<std::int64_t> none;
                const auto found = now.dates.find(uid);
                const auto& live = found != now.dates.end() ? found->second : none;
                auto cursor = live.begin();
                for (const auto key : dates->second) {
                    if (detached != storedDetached.end() && detached->second.count(key) != 0) continue;
                    if (!holds(window, dateOfKey(key))) continue;
                    while (cursor != live.end() && *cursor < key)
                        ++cursor;
                    if (cursor != live.end() && *cursor == key) continue;
                    report.occurrenceChanges.push_back(
                        {*compared.at(uid), dateOfKey(key), std::nullopt, OccurrenceChange::Kind::deleted()});
                }
            }
        }
    }

    std::stable_sort(
        report.occurrenceChanges.begin(), report.occurrenceChanges.end(),
        [](const OccurrenceChange& a, const OccurrenceChange& b) { return a.originalDate < b.originalDate; });
    return report;
}

} // namespace Differ
} // namespace morvane
