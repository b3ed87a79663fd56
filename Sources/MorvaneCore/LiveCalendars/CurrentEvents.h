#pragma once

#include "MorvaneCore/Database/BackupStore.h"
#include "MorvaneCore/EventModel/EventSnapshot.h"
#include "MorvaneCore/Shared/Date.h"
#include "MorvanePlatform/EventKit.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace morvane {

class CalendarDatabase;
struct EventKitSnapshot;

// What the live calendars hold of some series within a span.
struct CurrentOccurrences {
    DateInterval window;
    // Series key to the occurrence keys found in `window`, ascending, each once: a set kept as a
    // sorted list, which a comparison of a million occurrences copies and walks far faster.
    std::map<std::string, std::vector<std::int64_t>> dates;
    // Series key to the content of each detached occurrence, by occurrence key.
    std::map<std::string, std::map<std::int64_t, EventSnapshot>> detached;

    friend bool operator==(const CurrentOccurrences&, const CurrentOccurrences&) = default;
};

// How the comparison asks what the calendars hold now. `contains` asks whether the very item
// still exists, `hasEquivalent` whether a writable event with the same title at the same time
// exists under any identity, `snapshot` what the item holds now. Only `occurrences` can fail.
class CurrentEventSource {
public:
    virtual ~CurrentEventSource() = default;

    virtual bool contains(const BackupEvent& event) = 0;
    virtual bool hasEquivalent(const BackupEvent& event) = 0;
    virtual std::optional<EventSnapshot> snapshot(const BackupEvent& event) = 0;
    virtual CurrentOccurrences occurrences(const std::set<std::string>& uids, DateInterval in) = 0;
};

// The current events as the platform's event store tells them. Holds no state but the store,
// which it shares with its creator; every operation blocks while the store answers, so none
// belongs on the thread of a window.
class EventKitSource final : public CurrentEventSource {
public:
    explicit EventKitSource(std::shared_ptr<EKEventStore> store);

    const std::shared_ptr<EKEventStore>& store() const { return store_; }

    // Succeeds when calendar access is granted, asking the user first when nobody has yet.
    // Throws SQLiteError, with the platform's own text when the prompt itself failed. Blocks
    // until the prompt is answered.
    void requestAccess();

    bool contains(const BackupEvent& event) override;
    bool hasEquivalent(const BackupEvent& event) override;
    std::optional<EventSnapshot> snapshot(const BackupEvent& event) override;
    // One fetch per calendar year of the span (fetchYearByYear). Throws what the store throws.
    CurrentOccurrences occurrences(const std::set<std::string>& uids, DateInterval in) override;

    // The comparable form of a platform event; no lookup. A floating event's dates become its
    // wall clock read as UTC. An event without dates is a programming error.
    static EventSnapshot snapshot(const EKEvent& event);

private:
    std::shared_ptr<EKEventStore> store_;
};

// The current events as an index in memory, built once from a list of events and an occurrence
// set: a copy of the live database, or a capture of the event store when the database can't be
// read (`BackupLocator::liveIndex`). Every lookup is a hash lookup or a filter of a map; only
// `lookup`, when present, goes to the store, for what the index doesn't know. Immutable after
// construction, so any number of threads may read it, as long as none of them reaches `lookup`.
class DatabaseSource final : public CurrentEventSource {
public:
    // All stores' events and the occurrence cache of an open database. Throws what reading them
    // throws.
    explicit DatabaseSource(CalendarDatabase& database);
    // Every event and the occurrences of an event store capture, with the store to ask as a last
    // resort. Throws what reading the document throws.
    DatabaseSource(EventKitSnapshot eventKit, std::optional<EventKitSource> lookup);
    DatabaseSource(std::vector<BackupEvent> events, OccurrenceSet occurrences);

    // By identity: the series key, a detached occurrence's series key, the item identifier, then
    // `lookup`.
    bool contains(const BackupEvent& event) override;
    // Whether an event of a local, Exchange or CalDAV calendar has the event's title-start key.
    // `lookup` isn't asked.
    bool hasEquivalent(const BackupEvent& event) override;
    bool hasEquivalent(std::string_view title, Date start) const;
    // The master of the series in the backup event's calendar, else the first master, else what
    // `lookup` says.
    std::optional<EventSnapshot> snapshot(const BackupEvent& event) override;
    // From the index alone: the part of its window that meets `in` (zero length at `in`'s start
    // when they don't meet), and every key of the wanted series, also those outside `in`.
    CurrentOccurrences occurrences(const std::set<std::string>& uids, DateInterval in) override;

    // The trimmed title, "|", and the start as stored (a floating event's wall clock) in rounded
    // whole seconds since 2001: what recognises one event under two identities.
    static std::string titleStartKey(std::string_view title, Date start);

private:
    // Item identifiers of every event that has one.
    std::unordered_set<std::string> uuids_;
    // Events that aren't detached occurrences, by series key, in list order.
    std::unordered_map<std::string, std::vector<BackupEvent>> byUID_;
    // Series key, then occurrence key: the content of detached occurrences.
    std::unordered_map<std::string, std::map<std::int64_t, EventSnapshot>> detached_;
    // The occurrence set as it came, its keys in the form `occurrences` gives them.
    DateInterval occurrenceWindow_;
    std::unordered_map<std::string, std::vector<std::int64_t>> occurrenceDates_;
    // Title-start keys of the events that aren't detached, of writable kinds of store only.
    std::unordered_set<std::string> titleStarts_;
    std::optional<EventKitSource> lookup_;
};

// The occurrence key of a live event: the number after "/RID=" in its external identifier when
// it reads as one, else its occurrence date (its wall clock read as UTC when floating), rounded.
// Nothing for an event without an occurrence date.
std::optional<std::int64_t> liveOccurrenceKey(const EKEvent& event);

// Whether the process may use the calendars. Status 0 ("not determined") counts as granted once
// a prompt in this process said yes, which the process flag records.
namespace CalendarAccess {

bool isGranted();
// The platform's status, except that 0 with the flag set reads as 3 (full access).
EKAuthorizationStatus status();
// Sets the process flag; it never goes back.
void recordGrant();
// For tests only: clears the process flag.
void forgetGrantForTesting();

} // namespace CalendarAccess

} // namespace morvane
