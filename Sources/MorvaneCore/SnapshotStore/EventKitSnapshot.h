#pragma once

#include "MorvaneCore/Database/BackupStore.h"
#include "MorvaneCore/EventModel/EventSnapshot.h"
#include "MorvaneCore/Shared/Date.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvanePlatform/EventKit.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// A restore point taken through the event store rather than from its database: every calendar,
// every event within a long window around the day it was taken, and the occurrence keys each
// repeating series had. Its file form (".calevents") is one LZFSE stream of compact JSON, dates
// as seconds since 1970; key names, key order and the optional-key rules are a persisted format.
struct EventKitSnapshot {
    static constexpr std::int64_t formatVersion = 1;
    // Whole Gregorian years before and after the start of the day of the capture.
    static constexpr int yearsBack = 30;
    static constexpr int yearsAhead = 3;

    // One single event, series or detached occurrence. Detached occurrences follow their series.
    struct Event {
        // Numbered from 1 in document order, unique within the document.
        std::int64_t rowID = 0;
        // The UID; a detached occurrence's is "{UID}/RID={occurrence key}".
        std::string uniqueIdentifier;
        // The item identifier; absent on detached occurrences.
        std::optional<std::string> uuid;
        bool hasRecurrences = false;
        // A detached occurrence's series, and its occurrence key as a date.
        std::optional<std::int64_t> masterRowID;
        std::optional<Date> originalDate;
        std::optional<Date> lastModified;
        std::int64_t calendarRowID = 0;
        // Named after its calendar's displayName, as a database backup names it.
        EventSnapshot snapshot;
        bool hasAttendees = false;

        json::Ordered json() const;
        static Event fromJson(const json::Ordered& value, const std::string& path);

        friend bool operator==(const Event&, const Event&) = default;
    };

    std::int64_t version = formatVersion;
    Date taken;
    Date windowStart;
    Date windowEnd;
    // Sorted by rowID.
    std::vector<BackupCalendar> calendars;
    // Singles first, then each series followed by its detached occurrences.
    std::vector<Event> events;
    // Series key to its occurrence keys within the window, ascending.
    std::map<std::string, std::vector<std::int64_t>> occurrences;

    // Reads the whole store, one Gregorian year of the window per fetch. Blocks while the store
    // answers, on the calling thread.
    //
    // All or nothing: when the store fails to list its calendars, to fetch a year or to look up
    // a series, capture throws RestoreError "Couldn't read all of the calendars: {the store's
    // words}". A document that left out what couldn't be read would look complete and restore
    // as if those events had been deleted; a failed capture only means no restore point this
    // time. Items the store gives without what a document needs (an identifier, a calendar, an
    // occurrence date, a listed calendar, a master) are data, not failures, and are left out.
    static EventKitSnapshot capture(EKEventStore& store, Date now);

    // "#RRGGBB" of the first three colour components, each times 255 cut toward zero; nothing
    // for a calendar without a colour or with fewer than three components (a grey).
    static std::optional<std::string> colorHex(const EKCalendar& calendar);

    // The storeType a calendar of this type is listed with: local 0, CalDAV 2, Exchange 1,
    // subscription 4, birthday 5, anything else 4.
    static std::int64_t storeType(EKCalendarType type);

    // SHA-256 in lower-case hex over the JSON (sorted keys) of events, occurrences and
    // calendars, in that order. Leaves out version, taken and the window, so that two captures of
    // the same content agree on any day. A persisted value: restore points are compared by it.
    std::string fingerprint() const;

    // The file form. `decode` throws lzfse::LzfseError for a damaged stream, json::DecodingError
    // for a document that doesn't decode, and RestoreError "This snapshot was made by a newer
    // version of Morvane." for version 2 or later.
    std::string encoded() const;
    static EventKitSnapshot decode(std::string_view bytes);

    // The document as JSON in field order, dates as seconds since 1970, absent optional event
    // keys left out; decoding is strict and fails with json::DecodingError. `jsonText` is its
    // compact text, written without the whole tree.
    json::Ordered json() const;
    std::string jsonText() const;
    static EventKitSnapshot fromJson(const json::Ordered& value);

    friend bool operator==(const EventKitSnapshot&, const EventKitSnapshot&) = default;
};

// A backup store over an event store document. Immutable after construction; like every store,
// one thread at a time. Its occurrences are the document's, and it has no exception dates: a
// deleted occurrence shows only by its absence.
class EventKitStore final : public BackupStore {
public:
    // Events whose calendar the document doesn't list are left out.
    explicit EventKitStore(EventKitSnapshot snapshot);
    // Reads and decodes a ".calevents" file: throws RestoreError "Couldn't read {path}." and the
    // errors of `EventKitSnapshot::decode`.
    explicit EventKitStore(const std::filesystem::path& file);

    const EventKitSnapshot& snapshot() const { return snapshot_; }

    // Every event of a listed calendar, in document order, subscribed and birthday calendars
    // included; `hasAttachment` is always false, which a document can't know.
    const std::vector<BackupEvent>& allEvents() const& { return all_; }
    // The same, taken from a store about to go.
    std::vector<BackupEvent> allEvents() && { return std::move(all_); }

    // The events of local, Exchange and CalDAV calendars, in document order.
    std::vector<BackupEvent> loadEvents() override;
    // Always empty.
    std::vector<Date> exceptionDates(std::int64_t master) override;
    // The document's window and occurrence keys.
    OccurrenceSet occurrences() override;
    // The window and the keys the series of the event `master` had; nothing for a row the
    // document doesn't hold.
    std::optional<KeptOccurrences> keptOccurrences(std::int64_t master) override;

private:
    EventKitSnapshot snapshot_;
    std::vector<BackupEvent> all_;
    // Row to series key.
    std::map<std::int64_t, std::string> uidByRowID_;
};

} // namespace morvane
