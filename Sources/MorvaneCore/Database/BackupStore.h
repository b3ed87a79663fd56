#pragma once

#include "MorvaneCore/EventModel/EventSnapshot.h"
#include "MorvaneCore/Shared/Date.h"
#include "MorvaneCore/Shared/Json.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// The kinds of account that own calendars, with the value the database's Store.type holds.
enum class StoreType : std::int64_t {
    local = 0,
    exchange = 1,
    calDAV = 2,
    subscribed = 4,
    birthdays = 5,
    reminders = 6,
};

// The StoreType of a stored value; nothing for 3 and every other unknown value.
std::optional<StoreType> storeType(std::int64_t value);

// The stores whose events a restore may want: local, Exchange and CalDAV, in that order.
inline constexpr std::array<StoreType, 3> restorableStoreTypes = {StoreType::local, StoreType::exchange,
                                                                  StoreType::calDAV};

// One calendar as it stood in a backup.
struct BackupCalendar {
    std::int64_t rowID = 0;
    std::optional<std::string> uuid;
    std::string title = "?";
    std::optional<std::string> externalID;
    std::string storeName = "?";
    // As stored, -1 where NULL; a plain integer so that unknown kinds survive.
    std::int64_t storeType = -1;
    // As stored, verbatim.
    std::optional<std::string> colorHex;

    // "{name} ({store})", with the system's placeholder names and the local store spelt out.
    std::string displayName() const;

    // The JSON form: rowID, uuid, title, externalID, storeName, storeType, colorHex, absent
    // optional fields left out. Decoding fails with json::DecodingError.
    json::Ordered json() const;
    static BackupCalendar fromJson(const json::Ordered& value, const std::string& path = {});

    friend bool operator==(const BackupCalendar&, const BackupCalendar&) = default;
};

// One event, or one detached occurrence of a series, as it stood in a backup.
struct BackupEvent {
    std::int64_t rowID = 0;
    // A detached occurrence's ends in "/RID={occurrence key}".
    std::string uniqueIdentifier;
    std::optional<std::string> uuid;
    bool hasRecurrences = false;
    // The series this item detaches from, with the occurrence's original date.
    std::optional<std::int64_t> masterRowID;
    std::optional<Date> originalDate;
    std::optional<Date> lastModified;
    BackupCalendar calendar;
    EventSnapshot snapshot;
    bool hasAttendees = false;
    bool hasAttachment = false;

    bool isDetachedOccurrence() const { return masterRowID.has_value(); }
    const std::string& title() const { return snapshot.title; }
    Date start() const { return snapshot.start; }
    // The identifier a series and its detached occurrences share: cut before "/RID=".
    std::string_view externalIdentifier() const;

    friend bool operator==(const BackupEvent&, const BackupEvent&) = default;
};

// Every occurrence moment a store knows of, per series, within the span where it is complete.
struct OccurrenceSet {
    DateInterval window;
    // By series key (a series' external identifier): occurrence keys, ascending, each once.
    std::map<std::string, std::vector<std::int64_t>> dates;

    friend bool operator==(const OccurrenceSet&, const OccurrenceSet&) = default;
};

// Which occurrences a series still had when a restore point was taken, within its window.
struct KeptOccurrences {
    DateInterval window;
    std::set<std::int64_t> keys;

    friend bool operator==(const KeptOccurrences&, const KeptOccurrences&) = default;
};

// What the rest of the system sees of a backup, whatever holds it: a calendar database, a folder
// of .ics files or an event store document. One thread at a time.
class BackupStore {
public:
    virtual ~BackupStore() = default;

    // Every event and detached occurrence a restore could want.
    virtual std::vector<BackupEvent> loadEvents() = 0;
    // The deleted occurrences of the series whose row is `master`.
    virtual std::vector<Date> exceptionDates(std::int64_t master) = 0;
    // The store's occurrence cache; a store without one fails.
    virtual OccurrenceSet occurrences() = 0;
    // At least the moments of `occurrences` whose occurrence begins within `starts` (a moved one
    // where it begins now, though counted at its original date), and perhaps more: for a look at
    // a few weeks of a cache of years. By default the whole set.
    virtual OccurrenceSet occurrencesWithin(DateInterval starts);
    // The occurrences an event store document kept of a series; nothing for other stores.
    virtual std::optional<KeptOccurrences> keptOccurrences(std::int64_t master);
};

} // namespace morvane
