#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneCore/Backups/OpenedBackup.h"
#include "MorvaneCore/Comparison/Comparison.h"
#include "MorvaneCore/Database/BackupStore.h"
#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/Restore/Restorer.h"
#include "MorvaneCore/Restore/Timeline.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvanePlatform/EventKit.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace morvane {

// The service a front end talks to for a restore: it holds one loaded backup at a time, compares
// it with the live calendars, plans the restore of picked events and carries the plans out.
// Comparisons read an index of the live database when one can be built; every decision just
// before a write asks the event store itself.
//
// One operation at a time: the engine has no lock. Every operation blocks (an access prompt,
// opening a backup, the store's reads and writes), so none belongs on the thread of a window.
// Whoever loads a backup calls `close` when done; destruction releases the fields but doesn't
// unmount.
class RestoreEngine {
public:
    struct CalendarInfo {
        std::string id;
        std::string title;
        std::optional<std::string> colorHex;
        std::string group;
        bool writable = false;

        // The fields under their own names, an absent colour as null.
        json::Ordered json() const;

        friend bool operator==(const CalendarInfo&, const CalendarInfo&) = default;
    };

    // The display form of a RestorePlan.
    struct PlanSummary {
        std::int64_t id = 0;
        std::string title;
        std::string startText;
        std::string targetName;
        std::optional<std::string> recurrence;
        std::int64_t deletedOccurrences = 0;
        std::int64_t editedOccurrences = 0;
        std::vector<std::string> warnings;
        std::vector<std::string> problems;

        // The fields under their own names, an absent rule as null.
        json::Ordered json() const;
    };

    // The display form of a RestoreResult, or of a restore that failed.
    struct RestoreOutcome {
        std::int64_t id = 0;
        std::string title;
        bool succeeded = false;
        std::optional<std::string> message;
        std::vector<std::string> differences;

        json::Ordered json() const;
    };

    // Over the live calendars (a new EKEventStore), or over `store`.
    RestoreEngine();
    explicit RestoreEngine(std::shared_ptr<EKEventStore> store);
    RestoreEngine(const RestoreEngine&) = delete;
    RestoreEngine& operator=(const RestoreEngine&) = delete;

    // Throws SQLiteError when access is refused (EventKitSource::requestAccess).
    void requestCalendarAccess();
    // (identifier, "{title} ({source title or ?})") of every calendar that can be written, in the
    // store's order.
    std::vector<std::pair<std::string, std::string>> writableCalendars();
    std::optional<std::string> defaultCalendarID();
    // Every event calendar, by group ("Other" last), then by title, in natural order.
    std::vector<CalendarInfo> calendarList();

    // Drops the loaded backup, asks for access, opens `source` and reads its events, then
    // compares it with the live index. Throws what asking, opening or reading throws; after a
    // failure the engine holds no loaded source (but may hold the opened backup, which `close`
    // releases).
    Comparison load(const BackupSource& source);
    // As `load`, without the comparison, whose live index costs far more than reading the backup:
    // for a front end that only browses (the timeline).
    void loadWithoutComparing(const BackupSource& source);
    // The comparison again after the store has been told to forget what it cached; against the
    // store itself when `afterRestore`, since the live file may lag behind it.
    Comparison recompare(bool afterRestore);
    // Drops the cached live index; for the front end to call when the platform's calendars change.
    void calendarsChanged();
    // Throws RestoreError "No backup loaded." without a loaded backup, else what comparing throws.
    Comparison compare(bool useEventKit);
    // The live index when one can be built (cached), else the event store.
    CurrentEventSource& currentSource();

    // The plans for the picked events, in the order given; unknown ids and detached occurrences
    // give none. `into` is a calendar identifier; one the store doesn't know means none. Throws
    // RestoreError "No backup loaded." or what reading a series' exception dates throws.
    std::vector<RestorePlan> buildPlans(const std::vector<std::int64_t>& ids, const std::optional<std::string>& into);
    std::vector<PlanSummary> plans(const std::vector<std::int64_t>& ids, const std::optional<std::string>& into);
    // Restores every plan without problems, in order, one outcome each; a failed event doesn't
    // stop the others. Throws only what `buildPlans` throws, before anything is written.
    std::vector<RestoreOutcome> restore(const std::vector<std::int64_t>& ids, const std::optional<std::string>& into);

    // Releases the loaded backup's staged copy and mount and forgets it; the live index stays.
    void close();

    const std::optional<BackupSource>& loadedSource() const { return loadedSource_; }
    EventKitSource& eventKit() { return ek_; }

    static PlanSummary summary(const RestorePlan& plan);

    // The timeline (Timeline.cpp).

    // One occurrence of a backup event within a range: its occurrence key (none for a single
    // event) and its content.
    using BackupOccurrence = std::pair<std::optional<std::int64_t>, EventSnapshot>;
    // One live occurrence and its content.
    using LiveOccurrence = std::pair<std::shared_ptr<EKEvent>, EventSnapshot>;

    // The series key alone, or "{series key}|{occurrence key}" for an occurrence.
    static std::string matchKey(std::string_view series, std::optional<std::int64_t> occurrence);
    // "{trimmed title}|{start in rounded seconds}", the start as stored: one event under any
    // identity.
    static std::string titleStart(const EventSnapshot& snapshot);
    // The snapshot's dates as instants: a floating event's wall clock placed in today's zone.
    static DateInterval displayRange(const EventSnapshot& snapshot);

    // The occurrences of a top-level backup event that meet `in`, in the order of the backup's
    // occurrence set; a repeating event of a backup without one has none.
    std::vector<BackupOccurrence> backupOccurrences(const BackupEvent& event, DateInterval in);
    // The live form of a backup event, or of its occurrence at `key`, wherever it now lies.
    std::optional<LiveOccurrence> movedElsewhere(const BackupEvent& event, std::optional<std::int64_t> key,
                                                 DateInterval outside);
    // An item showing the live event.
    TimelineItem item(std::string id, const EventSnapshot& snapshot, const EKEvent& event, TimelineItem::State state,
                      std::optional<DateInterval> previous, std::vector<FieldChange> changes,
                      std::optional<std::int64_t> restoreID) const;
    // Every occurrence of the loaded backup and of the live calendars that meets `in` (or whose
    // former place did), labelled, by start then title. Without a loaded backup every live event
    // shows as added. Throws only what the store throws when it can't be read.
    std::vector<TimelineItem> timeline(DateInterval in);
    // Brings back the one occurrence (or single event) `itemID` names as a plain event, into
    // `into` when that names a writable calendar, else its own calendar, else the default one.
    // Failures are in the outcome, never thrown.
    RestoreOutcome restoreAsSingleEvent(const std::string& itemID, const std::optional<std::string>& into);

private:
    // The loaded backup's whole occurrence cache, read on first need; none when its store has none.
    const std::optional<OccurrenceSet>& wholeOccurrences();
    // The cache rows a timeline of `in` can show; none without a loaded backup or a cache.
    std::optional<OccurrenceSet> occurrencesAround(DateInterval in);
    std::vector<BackupOccurrence> occurrencesIn(const std::optional<OccurrenceSet>& set, const BackupEvent& event,
                                                DateInterval in) const;
    // The keys of the same occurrences of a repeating event, without making their snapshots.
    std::vector<std::int64_t> occurrenceKeysIn(const OccurrenceSet& set, const BackupEvent& event,
                                               DateInterval in) const;
    // Calls `visit(key, edited)` for each cached occurrence of a repeating `event` whose display
    // range overlaps `in`, in the order of the set; `edited` is its detached snapshot, or null
    // where the master's stands at the key.
    void eachCachedOccurrence(const OccurrenceSet& set, const BackupEvent& event, DateInterval in,
                              const std::function<void(std::int64_t, const EventSnapshot*)>& visit) const;

    EventKitSource ek_;
    std::optional<OpenedBackup> opened_;
    // Into `allEvents_`, which doesn't change while a backup is loaded.
    std::map<std::int64_t, const BackupEvent*> events_;
    std::vector<BackupEvent> allEvents_;
    std::optional<OccurrenceSet> backupOccurrences_;
    bool occurrencesRead_ = false;
    std::optional<BackupSource> loadedSource_;
    std::map<std::int64_t, std::vector<BackupEvent>> detachedByMaster_;
    std::optional<DatabaseSource> liveSource_;
};

} // namespace morvane
