#pragma once

// The local event store's private header: its rows, its state and the members that its files
// (LocalStore, EventReading, EventWriting, OccurrenceCache) share. Only the store's own files
// include it.
#include "MorvanePlatform/CalendarDates.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/EventStore/EventStoreImplementation.h"
#include "MorvanePlatform/EventStore/RecurrenceExpansion.h"
#include "MorvanePlatform/EventStore/SQLiteHandles.h"
#include "MorvanePlatform/EventStore/ZoneOffsets.h"
#include "MorvanePlatform/Files.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <variant>
#include <vector>

namespace morvane {
namespace localStore {

constexpr double secondsPerDay = 86400;
// Wider than any zone's offset, so that a range query on stored wall-clock dates misses nothing.
constexpr double storedDatePadding = 2 * secondsPerDay;
constexpr std::int64_t eventEntity = 2;
constexpr std::int64_t reminderEntity = 3;
constexpr std::int64_t remindersStoreType = 6;

// The columns `readItem` reads, to which callers add conditions with " AND ...".
constexpr std::string_view itemColumns =
    "SELECT ci.ROWID, ci.summary, ci.start_date, ci.end_date, ci.start_tz, ci.all_day, ci.calendar_id,\n"
    "       COALESCE(ci.orig_item_id, 0), ci.orig_date, ci.unique_identifier, ci.UUID, ci.description, ci.url,\n"
    "       ci.last_modified, ci.has_attendees, l.title, l.address, ci.entity_type\n"
    "FROM CalendarItem ci LEFT JOIN Location l ON l.ROWID = ci.location_id\n"
    "WHERE COALESCE(ci.hidden, 0) = 0";

// One row of CalendarItem as stored: floating dates are wall clocks read as UTC.
struct ItemRow {
    std::int64_t rowID = 0;
    std::optional<std::string> title;
    double start = 0;
    double end = 0;
    // Absent for a floating item.
    std::optional<std::string> zone;
    bool allDay = false;
    std::int64_t calendarRow = 0;
    std::int64_t masterRow = 0;
    std::optional<double> originalDate;
    std::optional<std::string> uid;
    std::optional<std::string> uuid;
    std::optional<std::string> notes;
    std::optional<std::string> url;
    std::optional<double> lastModified;
    bool hasAttendees = false;
    std::optional<std::string> location;
    std::int64_t entityType = eventEntity;
};

// The row of a statement that selects `itemColumns`.
ItemRow readItem(const sqlite::Statement& row);

struct AlarmRow {
    std::optional<std::int64_t> interval;
    std::optional<double> date;
    bool isDefault = false;
};

// What the store knows of each series, rebuilt whenever the database changed.
struct SeriesIndex {
    // Moved, never copied: its plans point into its own maps.
    SeriesIndex() = default;
    SeriesIndex(SeriesIndex&&) = default;
    SeriesIndex& operator=(SeriesIndex&&) = default;
    SeriesIndex(const SeriesIndex&) = delete;
    SeriesIndex& operator=(const SeriesIndex&) = delete;

    std::vector<ItemRow> masters;
    std::unordered_map<std::int64_t, size_t> masterByRow;
    std::unordered_map<std::int64_t, EKRecurrenceRule> rules;
    std::unordered_map<std::int64_t, std::vector<AlarmRow>> alarms;
    // Occurrence keys that don't show as plain occurrences: deleted ones and detached ones.
    std::unordered_map<std::int64_t, std::unordered_set<std::int64_t>> exceptions;
    std::unordered_map<std::int64_t, std::unordered_set<std::int64_t>> detached;

    // What expanding a master needs beyond its row, looked up once for the index instead of once
    // per fetch: a fetch of two minutes from a large store is mostly this, series by series.
    struct Plan {
        const EKRecurrenceRule* rule = nullptr;
        // Never null: an empty set when the series has none.
        const std::unordered_set<std::int64_t>* deleted = nullptr;
        const std::unordered_set<std::int64_t>* moved = nullptr;
        // Of a zoned series, as wall clocks of its zone: its start, and its rule's end date.
        std::optional<double> startWallClock;
        std::optional<double> untilWallClock;
    };
    // One per master, in the same order; made by `plan` once the maps above are complete.
    std::vector<Plan> plans;
    void plan();

    // The longest span from an item's stored start to its stored end, read at the first fetch:
    // it bounds the stored end dates a fetch has to look through from both sides. Renewed with
    // the rest of the index, so an item saved by another connection that is longer than all
    // before it shows once the index is, as a series saved there does.
    std::optional<double> longestItem;
};

using Zones = ZoneCache;

struct CacheWindow {
    double start = 0;
    double end = 0;
    std::string zone;

    friend bool operator==(const CacheWindow&, const CacheWindow&) = default;
};

struct CacheRow {
    std::int64_t event = 0;
    std::int64_t calendar = 0;
    std::int64_t store = 0;
    double occurrence = 0;
    double start = 0;
    double end = 0;
};

// What a saved event has become, for the object that was saved.
struct Saved {
    std::int64_t row = 0;
    std::int64_t masterRow = 0;
    std::string uid;
    bool detached = false;
    std::optional<double> originalStored;
    std::optional<double> occurrenceDate;
    bool isOccurrence = false;
};

// The window of the occurrence cache for the machine's clock and zone now.
CacheWindow desiredWindow();
void writeWindow(sqlite3* handle, const CacheWindow& window);

inline std::int64_t keyOf(double stored) { return std::llround(stored); }

} // namespace localStore

// The live calendars in a database of the operating system's schema.
//
// Reading leaves the files as they are, the database, its "-wal" and its "-shm" byte for byte,
// until the store's first write: each read opens a read-only connection that takes SQLite's
// index of the log as it finds it (`readonly_shm`) and never checkpoints, and closes it again,
// so that no read-only index is still shared in the process when a write begins. Where SQLite
// would have to change the files to read them at all (a log without its index, a journal of an
// unfinished write), reading uses a private copy instead. The first write opens the live files
// for writing and keeps that connection; from then on the log and its index are kept on close
// (SQLITE_FCNTL_PERSIST_WAL), so that the next reader finds them and changes nothing either.
class EKEventStore::LocalStore final : public EKEventStore::Implementation {
public:
    // Opens the database at `databasePath`, creating it when there is none. Throws EventStoreError
    // "{path} isn't a calendar database: {reason}" for an empty or damaged file or one that holds
    // something else, PlatformError for a path that isn't a regular file.
    explicit LocalStore(std::filesystem::path databasePath);
    ~LocalStore() override;
    LocalStore(const LocalStore&) = delete;
    LocalStore& operator=(const LocalStore&) = delete;

    const std::filesystem::path& databasePath() const override { return path; }
    std::vector<std::shared_ptr<const EKCalendar>> calendarsForEntityType(EKEntityType type) override;
    std::shared_ptr<const EKCalendar> calendarWithIdentifier(const std::string& identifier) override;
    std::vector<std::shared_ptr<const EKSource>> sources() override;
    std::vector<std::shared_ptr<EKEvent>> eventsMatchingPredicate(const EKEventPredicate& predicate) override;
    std::shared_ptr<EKCalendarItem> calendarItemWithIdentifier(const std::string& identifier) override;
    std::vector<std::shared_ptr<EKCalendarItem>>
    calendarItemsWithExternalIdentifier(const std::string& identifier) override;
    void saveEvent(EKEvent& event, EKSpan span, bool commitNow) override;
    void removeEvent(EKEvent& event, EKSpan span, bool commitNow) override;
    void commit() override;
    void reset() override;
    void refreshSourcesIfNecessary() override { dropCaches(); }

private:
    using ItemRow = localStore::ItemRow;
    using AlarmRow = localStore::AlarmRow;
    using SeriesIndex = localStore::SeriesIndex;
    using Zones = localStore::Zones;
    using CacheWindow = localStore::CacheWindow;
    using CacheRow = localStore::CacheRow;
    using Saved = localStore::Saved;

    // ---- Creation, connections and calendars (LocalStore.cpp) ----

    enum class Access {
        reading, // a read-only connection on the live files, open only while a read runs
        copied,  // a lasting connection on a private copy of them
        writing, // a lasting read-write connection on the live files
    };

    // Holds a connection for the read that runs in its scope, opening one when there is none;
    // one it opened on the live files it closes again.
    class Reading {
    public:
        explicit Reading(LocalStore& store);
        ~Reading();
        Reading(const Reading&) = delete;
        Reading& operator=(const Reading&) = delete;

    private:
        LocalStore& store_;
        bool opened_ = false;
    };

    void create();
    void openForReading();
    void openPrivateCopy();
    void openForWriting();
    void validate();
    void dropCaches();
    void noticeOtherWriters();
    void loadCalendars();
    bool isEventCalendar(const EKCalendar& calendar) const;
    std::shared_ptr<const EKCalendar> calendarNamed(const std::string& identifier);

    // ---- Reading (EventReading.cpp) ----

    std::unordered_map<std::int64_t, EKRecurrenceRule> readRules(std::string_view filter,
                                                                 std::optional<std::int64_t> owner);
    std::vector<AlarmRow> readAlarms(std::int64_t owner);
    SeriesIndex& seriesIndex();
    SeriesIndex seriesOf(std::int64_t row);
    std::vector<EKAlarm> alarmsOf(const ItemRow& row, const std::vector<AlarmRow>& stored);
    std::shared_ptr<EKEvent> makeEvent(const ItemRow& row, Zones& zones, const std::vector<AlarmRow>& alarms,
                                       const EKRecurrenceRule* rule);
    std::shared_ptr<EKEvent> makeDetached(const ItemRow& row, const ItemRow& master, Zones& zones,
                                          const std::vector<AlarmRow>& alarms, const EKRecurrenceRule* rule);
    static const std::vector<AlarmRow>& storedAlarms(const SeriesIndex& series, std::int64_t row);
    template <typename Visit>
    void expandSeries(const SeriesIndex& series, size_t masterIndex, Zones& zones, double spanStart, double spanEnd,
                      Visit&& visit);
    std::shared_ptr<EKCalendarItem> itemOf(const ItemRow& row, Zones& zones);
    std::vector<ItemRow> itemsWhere(std::string_view condition,
                                    const std::vector<std::variant<std::int64_t, std::string>>& values);
    std::optional<ItemRow> itemAt(std::int64_t row);

    // ---- Writing (EventWriting.cpp) ----

    template <typename Body> void write(bool commitNow, Body&& body);
    std::shared_ptr<const EKCalendar> writableCalendar(const EKEvent& event);
    void writeFields(std::int64_t row, const EKEvent& event, const EKCalendar& calendar, double now);
    std::int64_t insertItem(const std::string& uuid, const std::string& uid, std::int64_t masterRow,
                            std::optional<double> originalDate, double now);
    void writeLocation(std::int64_t row, const std::optional<std::string>& location);
    void writeAlarms(std::int64_t row, const std::vector<EKAlarm>& alarms);
    void writeRule(std::int64_t row, const std::optional<EKRecurrenceRule>& rule);
    void addException(std::int64_t master, double stored);
    void deleteItems(std::string_view condition, std::int64_t value);
    void endSeriesBefore(const ItemRow& master, const EKRecurrenceRule& rule, double stored);
    Saved insertNew(const EKEvent& event, const std::string& identifier, const EKCalendar& calendar, double now);

    // ---- The occurrence cache (OccurrenceCache.cpp) ----

    std::optional<CacheWindow> recordedWindow();
    std::vector<CacheRow> cacheRowsOf(const SeriesIndex& series, const ItemRow& item, const CacheWindow& window,
                                      Zones& zones);
    void insertCacheRows(const std::vector<CacheRow>& rows, Zones& zones);
    void removeCacheRows(std::string_view eventCondition, std::int64_t value);
    void refreshCache(std::int64_t row);
    void rebuildCache(const CacheWindow& window);

    const std::filesystem::path path;
    Access access = Access::reading;
    // Absent between reads while `access` is `reading`.
    sqlite::Connection db;
    // The folder of the private copy, while `access` is `copied`.
    std::optional<files::TemporaryItem> privateCopy;
    // Whether this store holds a transaction open: its writes that aren't committed yet.
    bool inTransaction = false;

    bool calendarsLoaded = false;
    std::vector<std::shared_ptr<const EKCalendar>> calendars;
    std::map<std::int64_t, std::shared_ptr<const EKCalendar>> calendarByRow;
    std::map<std::int64_t, std::pair<std::optional<std::int64_t>, std::optional<std::int64_t>>> storeAlarmOffsets;
    std::map<std::int64_t, std::int64_t> storeTypeByRow;

    std::optional<SeriesIndex> index;
    std::int64_t dataVersion = -1;
};

// Calls `visit` with each plain occurrence of a series whose span meets [spanStart, spanEnd):
// its stored original date and its moments.
template <typename Visit>
void EKEventStore::LocalStore::expandSeries(const SeriesIndex& series, size_t masterIndex, Zones& zones,
                                            double spanStart, double spanEnd, Visit&& visit) {
    using localStore::storedDatePadding;
    const auto& master = series.masters[masterIndex];
    const auto& plan = series.plans[masterIndex];
    // A series that begins where no date can be told has no occurrence that can: expanding it
    // from there would walk up to the span a step at a time.
    if (!(master.start >= earliestRepresentable && master.start < latestRepresentable)) return;
    const auto& rule = *plan.rule;
    const double duration = std::max(0.0, master.end - master.start);
    std::optional<double> untilWallClock;
    if (rule.recurrenceEnd && rule.recurrenceEnd->occurrenceCount <= 0 && rule.recurrenceEnd->endDate) {
        if (*rule.recurrenceEnd->endDate < spanStart - duration - storedDatePadding) return;
        // A floating series ends by the zone the machine is in now.
        untilWallClock = master.zone ? plan.untilWallClock : zones.current.wallClock(*rule.recurrenceEnd->endDate);
    }
    const auto& deleted = *plan.deleted;
    const auto& moved = *plan.moved;
    ZoneOffsets* zone = nullptr;

    const auto each = [&](double wallClock) {
        if (!zone) zone = &zones.of(master.zone);
        const double stored = master.zone ? zone->moment(wallClock) : wallClock;
        const auto key = localStore::keyOf(stored);
        if (deleted.count(key) > 0 || moved.count(key) > 0) return true;
        const double start = zones.moment(master.zone, stored);
        const double end = master.zone ? stored + duration : zones.current.moment(wallClock + duration);
        if (overlaps(start, end, spanStart, spanEnd)) visit(stored, start, end);
        return true;
    };
    // A wall clock is less than a day from its moment in any zone (14 hours at most, and an hour
    // of daylight saving), so a day either side of the span finds every occurrence that meets
    // it. The visitor is passed by reference: a fetch expands every series, and a std::function
    // holding the closure itself would allocate for each.
    constexpr double wallClockMargin = localStore::secondsPerDay;
    recurrence::expand(rule, plan.startWallClock.value_or(master.start), untilWallClock,
                       spanStart - duration - wallClockMargin, spanEnd + wallClockMargin, std::cref(each));
}

} // namespace morvane
