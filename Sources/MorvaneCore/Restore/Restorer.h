#pragma once

#include "MorvaneCore/Database/BackupStore.h"
#include "MorvaneCore/EventModel/EventSnapshot.h"
#include "MorvaneCore/Shared/Date.h"
#include "MorvanePlatform/EventKit.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// One picked event on its way back: where it goes, which occurrences of the re-created series
// must go again or be edited, what can't come back (`warnings`) and what forbids the restore
// (`problems`). Made by `Restorer::plan`, shown to the user, then carried out unchanged.
struct RestorePlan {
    // Always a top-level event of the backup, never a detached occurrence.
    BackupEvent event;
    // The series' edited occurrences as the backup holds them.
    std::vector<BackupEvent> detached;
    // Occurrences deleted from the series in the backup; replaced when `keptOccurrences` is known.
    std::vector<Date> exceptionDates;
    std::optional<KeptOccurrences> keptOccurrences;
    std::shared_ptr<const EKCalendar> target;
    std::vector<std::string> problems;
    std::vector<std::string> warnings;

    // "{title} ({source title or ?})" of the target; "—" without one.
    std::string targetName() const;
};

// A plan carried out: the plan as executed (its `exceptionDates` possibly recomputed), the new
// event's identifier, and what didn't come back as it was (empty when everything did).
struct RestoreResult {
    RestorePlan plan;
    std::string eventIdentifier;
    std::vector<std::string> verification;
};

// Plans restores and writes them into the event store, then reads them back. Borrows the store,
// which must outlive it; one thread at a time, as the store.
class Restorer {
public:
    explicit Restorer(EKEventStore& store) : store_(store) {}

    // Never fails: what stands in the way goes into the plan's `problems`, in a fixed order, and
    // what won't come back into its `warnings`, the new-UID warning always last. `into` overrides
    // the event's own calendar.
    RestorePlan plan(const BackupEvent& event, std::vector<BackupEvent> detached, std::vector<Date> exceptionDates,
                     std::shared_ptr<const EKCalendar> into) const;

    // A calendar named by the user: its identifier, its label "{title} ({source})", or a title
    // that exactly one calendar has. Nothing when none matches or a title is ambiguous.
    std::shared_ptr<const EKCalendar> calendar(std::string_view matching) const;

    // Writes the plan: a single event in one save; a series saved, then its deleted occurrences
    // removed and its edited ones edited in one transaction. Throws RestoreError with the plan's
    // problems (writing nothing), what making the rule or the first save throws (nothing left
    // behind), or, when a later step fails, that step's text followed by " — the partially
    // restored event was removed" after the series has been removed again.
    RestoreResult restore(RestorePlan plan);

    // A plain event made of `snapshot` without its rule. Returns the new event identifier and the
    // verification lines. Throws what saving throws, or RestoreError without an identifier.
    std::pair<std::string, std::vector<std::string>> restoreSingle(const EventSnapshot& snapshot,
                                                                   const std::shared_ptr<const EKCalendar>& into);

    // Copies every writable field but the recurrence from `snapshot` onto `event`, alarms replaced.
    static void apply(const EventSnapshot& snapshot, EKEvent& event);

    // The occurrence keys of the series within `within`'s window, ascending and each once, fetched
    // a year at a time. Detached occurrences are left out. Throws what the store throws.
    std::vector<std::int64_t> occurrences(const std::string& series, const std::shared_ptr<const EKCalendar>& in,
                                          bool floating, const KeptOccurrences& within);
    // The plain (not detached) occurrence of the series with the key `at`, or nothing.
    std::shared_ptr<EKEvent> occurrence(const std::string& series, const std::shared_ptr<const EKCalendar>& in,
                                        std::int64_t at, bool floating);
    // The detached occurrence of `series` whose original date has the key `originalKey`, looked for
    // sixty days either side of it; nothing when the master has no external identifier.
    std::shared_ptr<EKEvent> detachedOccurrence(const EKEvent& series, const std::shared_ptr<const EKCalendar>& in,
                                                std::int64_t originalKey);

    // Reads the series `masterID` back and lists what differs from the plan, one line each.
    std::vector<std::string> verify(const RestorePlan& plan, const std::string& masterID);

    // A floating time's moment in the machine's current zone, and back.
    static Date instantOfWallClock(Date wallClock);
    static Date wallClockOfInstant(Date instant);

private:
    // The occurrence key of a fetched occurrence, its wall clock when `floating`.
    static std::optional<std::int64_t> keyOf(const EKEvent& event, bool floating);
    std::vector<std::shared_ptr<EKEvent>> fetch(double start, double end, const std::shared_ptr<const EKCalendar>& in);
    void writeOccurrences(RestorePlan& plan, const std::string& masterID);

    EKEventStore& store_;
};

} // namespace morvane
