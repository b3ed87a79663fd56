// The local event store: the live calendars in a database of the operating system's schema.
//
// Reading. Single events and detached occurrences are found by a range query on their stored
// dates, widened by two days because a floating event's stored dates are its wall clock read as
// UTC. Repeating events come from an index of every series (rule, alarms, exception dates, the
// original dates of detached occurrences), built once and rebuilt after any write of this store
// or any commit of another connection (PRAGMA data_version). Each series is expanded on the wall
// clock of its own zone (the machine's current zone when floating) and each occurrence turned
// into a moment in that zone.
//
// Writing. Every save or removal runs inside a savepoint of one open transaction: a failure rolls
// the savepoint back, `commit` commits the transaction and `reset` rolls it back. Each write also
// brings the occurrence cache of the series it touched up to date, and rebuilds the whole cache
// when its window or zone no longer fits the clock.
#include "MorvanePlatform/EventKit.h"

#include "MorvanePlatform/CalendarColumns.h"
#include "MorvanePlatform/CalendarDates.h"
#include "MorvanePlatform/CalendarSchema.h"
#include "MorvanePlatform/Clock.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/RecurrenceExpansion.h"
#include "MorvanePlatform/SQLiteHandles.h"
#include "MorvanePlatform/TextPieces.h"
#include "MorvanePlatform/UserFolders.h"
#include "MorvanePlatform/ZoneOffsets.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <map>
#include <set>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>
#include <variant>

namespace morvane {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view relativeDatabasePath = "Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb";
constexpr double secondsPerDay = 86400;
// Wider than any zone's offset, so that a range query on stored wall-clock dates misses nothing.
constexpr double storedDatePadding = 2 * secondsPerDay;
constexpr std::int64_t eventEntity = 2;
constexpr std::int64_t reminderEntity = 3;
constexpr std::int64_t remindersStoreType = 6;

// The tables and columns the store reads or writes.
const std::vector<std::pair<std::string_view, std::vector<std::string_view>>>& requiredColumns() {
    static const std::vector<std::pair<std::string_view, std::vector<std::string_view>>> columns = {
        {"Alarm", {"calendaritem_owner_id", "trigger_interval", "trigger_date", "default_alarm", "disabled", "UUID"}},
        {"Calendar", {"store_id", "title", "UUID", "color"}},
        {"CalendarItem", {"summary",     "start_date",      "start_tz",     "end_date",      "end_tz",
                          "all_day",     "calendar_id",     "orig_item_id", "orig_date",     "unique_identifier",
                          "UUID",        "has_recurrences", "hidden",       "entity_type",   "last_modified",
                          "location_id", "description",     "url",          "has_attendees", "creation_date"}},
        {"ExceptionDate", {"owner_id", "date"}},
        {"Location", {"title", "address", "item_owner_id"}},
        {"OccurrenceCache",
         {"day", "event_id", "calendar_id", "store_id", "occurrence_date", "occurrence_start_date",
          "occurrence_end_date"}},
        {"OccurrenceCacheDays", {"calendar_id", "store_id", "day", "count"}},
        {"Recurrence", {"owner_id", "frequency", "interval", "count", "end_date", "specifier", "cached_end_date"}},
        {"Store", {"name", "type", "persistent_id", "default_alarm_offset", "default_all_day_alarm_offset"}},
        {"_SqliteDatabaseProperties", {"key", "value"}},
    };
    return columns;
}

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

struct AlarmRow {
    std::optional<std::int64_t> interval;
    std::optional<double> date;
    bool isDefault = false;
};

// What the store knows of each series, rebuilt whenever the database changed.
struct SeriesIndex {
    std::vector<ItemRow> masters;
    std::unordered_map<std::int64_t, size_t> masterByRow;
    std::unordered_map<std::int64_t, EKRecurrenceRule> rules;
    std::unordered_map<std::int64_t, std::vector<AlarmRow>> alarms;
    // Occurrence keys that don't show as plain occurrences: deleted ones and detached ones.
    std::unordered_map<std::int64_t, std::unordered_set<std::int64_t>> exceptions;
    std::unordered_map<std::int64_t, std::unordered_set<std::int64_t>> detached;
};

std::int64_t keyOf(double stored) { return std::llround(stored); }

bool overlaps(double start, double end, double spanStart, double spanEnd) {
    // An event of no length counts at its start.
    return start < spanEnd && (end > spanStart || start >= spanStart);
}

EKCalendarType calendarType(std::int64_t storeType) {
    switch (storeType) {
    case 1: return EKCalendarType::exchange;
    case 2: return EKCalendarType::calDAV;
    case 4: return EKCalendarType::subscription;
    case 5: return EKCalendarType::birthday;
    default: return EKCalendarType::local;
    }
}

// The wall clock of 1 January of `year`, 00:00, read as UTC, in seconds since 2001.
double yearStartWallClock(int year) {
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mday = 1;
    return static_cast<double>(timegm(&parts)) - secondsFrom1970To2001;
}

// Whole seconds since 1970, held to years 1 to 9999 so that a hostile date can't overflow.
time_t unixSeconds(double wallClock) {
    const double seconds = std::floor(wallClock + secondsFrom1970To2001);
    if (!(seconds > -62135596800.0)) return -62135596800;
    if (!(seconds < 253402300799.0)) return 253402300799;
    return static_cast<time_t>(seconds);
}

int yearOfWallClock(double wallClock) {
    const auto seconds = unixSeconds(wallClock);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    return parts.tm_year + 1900;
}

std::string numberText(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.17g", value);
    return buffer;
}

struct CacheWindow {
    double start = 0;
    double end = 0;
    std::string zone;

    friend bool operator==(const CacheWindow&, const CacheWindow&) = default;
};

} // namespace

struct EKEventStore::Impl {
    const fs::path path;
    sqlite::Connection db;
    bool inTransaction = false;

    bool calendarsLoaded = false;
    std::vector<std::shared_ptr<const EKCalendar>> calendars;
    std::map<std::int64_t, std::shared_ptr<const EKCalendar>> calendarByRow;
    std::map<std::int64_t, std::pair<std::optional<std::int64_t>, std::optional<std::int64_t>>> storeAlarmOffsets;
    std::map<std::int64_t, std::int64_t> storeTypeByRow;

    std::optional<SeriesIndex> index;
    std::int64_t dataVersion = -1;

    explicit Impl(fs::path databasePath) : path(std::move(databasePath)) {
        std::error_code missing;
        if (!fs::exists(path, missing)) create();
        sqlite3* opened = nullptr;
        const int result = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
        db.reset(opened);
        if (result != SQLITE_OK) sqlite::fail(opened, "Couldn't open the event store " + path.string());
        sqlite3_busy_timeout(db.get(), 5000);
        validate();
    }

    ~Impl() {
        if (inTransaction) sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    }

    // ---- Creation and checks ----

    // Builds the database under a temporary name beside its place and links it into place, so
    // that nobody ever opens a half-made store; a store made meanwhile by someone else wins.
    void create() {
        std::error_code ignored;
        files::createDirectories(path.parent_path());
        const fs::path building = path.parent_path() / (path.filename().string() + ".new-" + files::randomUUID());
        {
            sqlite3* opened = nullptr;
            const int result =
                sqlite3_open_v2(building.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
            sqlite::Connection fresh(opened);
            if (result != SQLITE_OK) sqlite::fail(opened, "Couldn't create the event store " + path.string());
            try {
                // The user's calendars are the user's alone.
                files::setPermissions(building, 0600);
                sqlite::execute(fresh.get(), "PRAGMA journal_mode=WAL");
                sqlite::execute(fresh.get(), "BEGIN");
                sqlite::execute(fresh.get(), calendarSchemaSQL());
                sqlite::Statement store(fresh.get(), "INSERT INTO Store (name, type, persistent_id, display_order) "
                                                     "VALUES ('Default', 0, ?, 0)");
                store.bind(1, files::randomUUID()).run();
                const auto storeRow = sqlite3_last_insert_rowid(fresh.get());
                // The system's placeholder title, which it shows as "Calendar".
                sqlite::Statement calendar(fresh.get(),
                                           "INSERT INTO Calendar (store_id, title, color, UUID, display_order, flags) "
                                           "VALUES (?, 'DEFAULT_CALENDAR_NAME', '#1BADF8FF', ?, 0, 0)");
                calendar.bind(1, storeRow).bind(2, files::randomUUID()).run();
                writeWindow(fresh.get(), desiredWindow());
                sqlite::execute(fresh.get(), "COMMIT");
            } catch (...) {
                fresh.reset();
                fs::remove(building, ignored);
                throw;
            }
        }
        if (::link(building.c_str(), path.c_str()) != 0 && errno != EEXIST) {
            const int code = errno;
            fs::remove(building, ignored);
            throw EventStoreError(
                PlatformError::fromErrno(code, "Couldn't create the event store", path.string()).description());
        }
        fs::remove(building, ignored);
    }

    void validate() {
        std::string gaps;
        for (const auto& [table, required] : requiredColumns()) {
            std::set<std::string> present;
            sqlite::Statement columns(db.get(), "SELECT name FROM pragma_table_info(?)");
            columns.bind(1, table);
            while (columns.step())
                present.insert(columns.text(0));
            std::string missing;
            for (const auto column : required) {
                if (present.count(std::string(column)) == 0)
                    missing += (missing.empty() ? "" : ", ") + std::string(column);
            }
            if (!missing.empty()) gaps += (gaps.empty() ? "" : "; ") + std::string(table) + " lacks " + missing;
        }
        if (!gaps.empty()) throw EventStoreError("Unsupported Calendar.sqlitedb schema: " + gaps);
    }

    // ---- Calendars ----

    void dropCaches() {
        calendarsLoaded = false;
        index.reset();
    }

    // Forgets what another connection's commit made stale.
    void noticeOtherWriters() {
        sqlite::Statement version(db.get(), "PRAGMA data_version");
        const auto now = version.step() ? version.integer(0) : -1;
        if (now != dataVersion) {
            dataVersion = now;
            dropCaches();
        }
    }

    void loadCalendars() {
        if (calendarsLoaded) return;
        calendars.clear();
        calendarByRow.clear();
        storeAlarmOffsets.clear();
        storeTypeByRow.clear();
        std::map<std::int64_t, std::shared_ptr<const EKSource>> sourcesByRow;
        sqlite::Statement rows(db.get(),
                               "SELECT c.ROWID, c.UUID, c.title, c.color, s.ROWID, s.name, s.type,\n"
                               "       s.persistent_id, s.default_alarm_offset, s.default_all_day_alarm_offset\n"
                               "FROM Calendar c LEFT JOIN Store s ON s.ROWID = c.store_id ORDER BY c.ROWID");
        while (rows.step()) {
            auto calendar = std::make_shared<EKCalendar>();
            calendar->rowID_ = rows.integer(0);
            calendar->calendarIdentifier = rows.optionalText(1).value_or("calendar-" + std::to_string(rows.integer(0)));
            calendar->title = rows.optionalText(2).value_or("?");
            if (calendar->title == "DEFAULT_CALENDAR_NAME") calendar->title = "Calendar";
            if (calendar->title == "DEFAULT_TASK_CALENDAR_NAME") calendar->title = "Reminders";
            calendar->colorComponents = calendarColumns::colorComponents(rows.optionalText(3));
            if (!rows.isNull(4)) {
                const auto storeRow = rows.integer(4);
                const auto type = rows.optionalInteger(6).value_or(-1);
                calendar->storeRowID_ = storeRow;
                calendar->type = calendarType(type);
                storeTypeByRow[storeRow] = type;
                storeAlarmOffsets[storeRow] = {rows.optionalInteger(8), rows.optionalInteger(9)};
                auto& source = sourcesByRow[storeRow];
                if (!source) {
                    auto made = std::make_shared<EKSource>();
                    made->sourceIdentifier = rows.optionalText(7).value_or("store-" + std::to_string(storeRow));
                    made->title = rows.optionalText(5).value_or("?");
                    // The local account is stored as "Default" and shown under this name.
                    if (type == 0 && made->title == "Default") made->title = "On My Mac";
                    source = std::move(made);
                }
                calendar->source = source;
            }
            calendar->allowsContentModifications =
                calendar->type != EKCalendarType::subscription && calendar->type != EKCalendarType::birthday;
            calendarByRow[calendar->rowID_] = calendar;
            calendars.push_back(std::move(calendar));
        }
        calendarsLoaded = true;
    }

    bool isEventCalendar(const EKCalendar& calendar) const {
        const auto type = storeTypeByRow.find(calendar.storeRowID_);
        return type == storeTypeByRow.end() || type->second != remindersStoreType;
    }

    std::shared_ptr<const EKCalendar> calendarNamed(const std::string& identifier) {
        loadCalendars();
        for (const auto& calendar : calendars) {
            if (calendar->calendarIdentifier == identifier) return calendar;
        }
        return nullptr;
    }

    // ---- Reading items ----

    static ItemRow readItem(const sqlite::Statement& row) {
        ItemRow item;
        item.rowID = row.integer(0);
        item.title = row.optionalText(1);
        item.start = row.optionalReal(2).value_or(0);
        item.end = row.optionalReal(3).value_or(item.start);
        item.zone = calendarColumns::zoneOf(row.optionalText(4));
        item.allDay = row.optionalInteger(5).value_or(0) != 0;
        item.calendarRow = row.optionalInteger(6).value_or(0);
        item.masterRow = row.integer(7);
        item.originalDate = row.optionalReal(8);
        item.uid = row.optionalText(9);
        item.uuid = row.optionalText(10);
        item.notes = row.optionalText(11);
        item.url = row.optionalText(12);
        item.lastModified = row.optionalReal(13);
        item.hasAttendees = row.optionalInteger(14).value_or(0) != 0;
        item.location = calendarColumns::locationText(row.optionalText(15), row.optionalText(16));
        item.entityType = row.optionalInteger(17).value_or(0);
        return item;
    }

    std::unordered_map<std::int64_t, EKRecurrenceRule> readRules(std::string_view filter,
                                                                 std::optional<std::int64_t> owner) {
        std::unordered_map<std::int64_t, EKRecurrenceRule> rules;
        sqlite::Statement rows(db.get(),
                               "SELECT owner_id, frequency, interval, count, end_date, specifier FROM Recurrence " +
                                   std::string(filter) + " ORDER BY ROWID");
        if (owner) rows.bind(1, *owner);
        while (rows.step()) {
            if (rows.isNull(0)) continue;
            const auto ownerRow = rows.integer(0);
            // The first usable row of an owner wins, as the database reader has it.
            if (rules.count(ownerRow) > 0) continue;
            const auto specifier = rows.optionalText(5);
            // What the rule can't hold is left out: the store expands what it understands.
            if (auto reading = calendarColumns::readRecurrence(
                    rows.optionalInteger(1).value_or(0), rows.optionalInteger(2).value_or(1),
                    rows.optionalInteger(3).value_or(0), rows.optionalReal(4),
                    specifier ? std::optional<std::string_view>(*specifier) : std::nullopt)) {
                rules.emplace(ownerRow, std::move(reading->rule));
            }
        }
        return rules;
    }

    std::vector<AlarmRow> readAlarms(std::int64_t owner) {
        std::vector<AlarmRow> alarms;
        sqlite::Statement rows(db.get(),
                               "SELECT trigger_interval, trigger_date, COALESCE(default_alarm, 0) FROM Alarm\n"
                               "WHERE calendaritem_owner_id = ? AND COALESCE(disabled, 0) = 0 ORDER BY ROWID");
        rows.bind(1, owner);
        while (rows.step())
            alarms.push_back({rows.optionalInteger(0), rows.optionalReal(1), rows.integer(2) == 1});
        return alarms;
    }

    SeriesIndex& seriesIndex() {
        loadCalendars();
        if (index) return *index;
        SeriesIndex built;
        built.rules = readRules("", std::nullopt);
        sqlite::Statement masters(db.get(), std::string(itemColumns) +
                                                " AND ci.entity_type = 2 AND COALESCE(ci.orig_item_id, 0) = 0\n"
                                                "  AND ci.ROWID IN (SELECT owner_id FROM Recurrence)");
        while (masters.step()) {
            auto row = readItem(masters);
            if (built.rules.count(row.rowID) == 0) continue;
            built.masterByRow[row.rowID] = built.masters.size();
            built.masters.push_back(std::move(row));
        }
        sqlite::Statement alarms(db.get(), "SELECT calendaritem_owner_id, trigger_interval, trigger_date,\n"
                                           "       COALESCE(default_alarm, 0) FROM Alarm\n"
                                           "WHERE COALESCE(disabled, 0) = 0 AND calendaritem_owner_id IS NOT NULL\n"
                                           "ORDER BY ROWID");
        while (alarms.step()) {
            built.alarms[alarms.integer(0)].push_back(
                {alarms.optionalInteger(1), alarms.optionalReal(2), alarms.integer(3) == 1});
        }
        sqlite::Statement exceptions(
            db.get(), "SELECT owner_id, date FROM ExceptionDate WHERE owner_id IS NOT NULL AND date IS NOT NULL");
        while (exceptions.step())
            built.exceptions[exceptions.integer(0)].insert(keyOf(exceptions.real(1)));
        sqlite::Statement detached(db.get(),
                                   "SELECT orig_item_id, orig_date FROM CalendarItem\n"
                                   "WHERE orig_item_id > 0 AND orig_date IS NOT NULL AND COALESCE(hidden, 0) = 0");
        while (detached.step())
            built.detached[detached.integer(0)].insert(keyOf(detached.real(1)));
        index = std::move(built);
        return *index;
    }

    // What the index holds of one series, read afresh: writes touch one series, and reading it
    // alone keeps a save as quick in a large store as in a small one. Empty when `row` isn't the
    // master of a series.
    SeriesIndex seriesOf(std::int64_t row) {
        SeriesIndex one;
        one.rules = readRules("WHERE owner_id = ?", row);
        const auto master = itemAt(row);
        if (one.rules.empty() || !master || master->masterRow > 0 || master->entityType != eventEntity) {
            return SeriesIndex{};
        }
        one.masterByRow[row] = 0;
        one.masters.push_back(*master);
        one.alarms[row] = readAlarms(row);
        sqlite::Statement exceptions(db.get(),
                                     "SELECT date FROM ExceptionDate WHERE owner_id = ? AND date IS NOT NULL");
        exceptions.bind(1, row);
        while (exceptions.step())
            one.exceptions[row].insert(keyOf(exceptions.real(0)));
        sqlite::Statement detached(db.get(), "SELECT orig_date FROM CalendarItem WHERE orig_item_id = ?\n"
                                             "  AND orig_date IS NOT NULL AND COALESCE(hidden, 0) = 0");
        detached.bind(1, row);
        while (detached.step())
            one.detached[row].insert(keyOf(detached.real(0)));
        return one;
    }

    std::vector<EKAlarm> alarmsOf(const ItemRow& row, const std::vector<AlarmRow>& stored) {
        std::vector<EKAlarm> alarms;
        const auto calendar = calendarByRow.find(row.calendarRow);
        for (const auto& alarm : stored) {
            if (alarm.isDefault) {
                // The account's default alarm: its offset counts, not the row's own trigger.
                if (calendar == calendarByRow.end()) continue;
                const auto offsets = storeAlarmOffsets.find(calendar->second->storeRowID_);
                if (offsets == storeAlarmOffsets.end()) continue;
                const auto offset = row.allDay ? offsets->second.second : offsets->second.first;
                if (offset) alarms.push_back(EKAlarm::alarmWithRelativeOffset(static_cast<double>(*offset)));
            } else if (alarm.interval) {
                alarms.push_back(EKAlarm::alarmWithRelativeOffset(static_cast<double>(*alarm.interval)));
            } else if (alarm.date) {
                alarms.push_back(EKAlarm::alarmWithAbsoluteDate(*alarm.date));
            }
        }
        return alarms;
    }

    // The zone an item's dates are counted in, cached by name for one operation.
    struct Zones {
        ZoneOffsets current = ZoneOffsets::current();
        std::map<std::string, ZoneOffsets> named;

        ZoneOffsets& of(const std::optional<std::string>& zone) {
            if (!zone) return current;
            auto found = named.find(*zone);
            if (found == named.end()) found = named.emplace(*zone, ZoneOffsets(*zone)).first;
            return found->second;
        }
        // The moment of a stored date.
        double moment(const std::optional<std::string>& zone, double stored) {
            return zone ? stored : current.moment(stored);
        }
        double stored(const std::optional<std::string>& zone, double moment) {
            return zone ? moment : current.wallClock(moment);
        }
    };

    std::shared_ptr<EKEvent> makeEvent(const ItemRow& row, Zones& zones, const std::vector<AlarmRow>& alarms,
                                       const EKRecurrenceRule* rule) {
        auto event = std::make_shared<EKEvent>();
        event->title = row.title;
        if (const auto calendar = calendarByRow.find(row.calendarRow); calendar != calendarByRow.end()) {
            event->calendar = calendar->second;
        }
        event->startDate = zones.moment(row.zone, row.start);
        event->endDate = zones.moment(row.zone, row.end);
        event->allDay = row.allDay;
        event->timeZone = row.zone;
        event->location = row.location;
        event->notes = row.notes;
        event->URL = row.url;
        if (rule) event->recurrenceRules = {*rule};
        event->loadedRules_ = std::make_shared<const std::vector<EKRecurrenceRule>>(event->recurrenceRules);
        event->alarms = alarmsOf(row, alarms);
        event->calendarItemIdentifier_ = row.uuid ? *row.uuid : row.uid.value_or("item-" + std::to_string(row.rowID));
        event->externalIdentifier_ = row.uid;
        if (event->calendar && row.uid) event->eventIdentifier_ = event->calendar->calendarIdentifier + ":" + *row.uid;
        event->hasAttendees_ = row.hasAttendees;
        event->lastModified_ = row.lastModified;
        event->rowID_ = row.rowID;
        event->occurrenceDate_ = event->startDate;
        if (rule) event->originalStored_ = row.start;
        return event;
    }

    // A detached occurrence: its own row, its series' rule and identity.
    std::shared_ptr<EKEvent> makeDetached(const ItemRow& row, const ItemRow& master, Zones& zones,
                                          const std::vector<AlarmRow>& alarms, const EKRecurrenceRule* rule) {
        auto event = makeEvent(row, zones, alarms, rule);
        event->originalStored_ = row.originalDate;
        event->occurrenceDate_ =
            row.originalDate ? std::optional<double>(zones.moment(master.zone, *row.originalDate)) : std::nullopt;
        event->calendarItemIdentifier_ =
            master.uuid ? *master.uuid : master.uid.value_or("item-" + std::to_string(master.rowID));
        event->detached_ = true;
        event->masterRowID_ = master.rowID;
        return event;
    }

    const std::vector<AlarmRow>& storedAlarms(const SeriesIndex& series, std::int64_t row) {
        static const std::vector<AlarmRow> none;
        const auto found = series.alarms.find(row);
        return found == series.alarms.end() ? none : found->second;
    }

    // Calls `visit` with each plain occurrence of a series whose span meets [spanStart, spanEnd):
    // its stored original date and its moments.
    template <typename Visit>
    void expandSeries(const SeriesIndex& series, const ItemRow& master, Zones& zones, double spanStart, double spanEnd,
                      Visit&& visit) {
        const auto& rule = series.rules.at(master.rowID);
        auto& zone = zones.of(master.zone);
        const double duration = std::max(0.0, master.end - master.start);
        std::optional<double> untilWallClock;
        if (rule.recurrenceEnd && rule.recurrenceEnd->occurrenceCount <= 0 && rule.recurrenceEnd->endDate) {
            if (*rule.recurrenceEnd->endDate < spanStart - duration - storedDatePadding) return;
            untilWallClock = zone.wallClock(*rule.recurrenceEnd->endDate);
        }
        static const std::unordered_set<std::int64_t> none;
        const auto exceptions = series.exceptions.find(master.rowID);
        const auto& deleted = exceptions == series.exceptions.end() ? none : exceptions->second;
        const auto detachedKeys = series.detached.find(master.rowID);
        const auto& moved = detachedKeys == series.detached.end() ? none : detachedKeys->second;

        const double startWallClock = master.zone ? zone.wallClock(master.start) : master.start;
        recurrence::expand(rule, startWallClock, untilWallClock, spanStart - duration - storedDatePadding,
                           spanEnd + storedDatePadding, [&](double wallClock) {
                               const double stored = master.zone ? zone.moment(wallClock) : wallClock;
                               const auto key = keyOf(stored);
                               if (deleted.count(key) > 0 || moved.count(key) > 0) return true;
                               const double start = zones.moment(master.zone, stored);
                               const double end =
                                   master.zone ? stored + duration : zones.current.moment(wallClock + duration);
                               if (overlaps(start, end, spanStart, spanEnd)) visit(stored, start, end);
                               return true;
                           });
    }

    std::vector<std::shared_ptr<EKEvent>> fetch(const EKEventPredicate& predicate) {
        auto& series = seriesIndex();
        Zones zones;
        std::set<std::int64_t> wanted;
        if (predicate.calendarIdentifiers) {
            for (const auto& identifier : *predicate.calendarIdentifiers) {
                if (const auto calendar = calendarNamed(identifier)) wanted.insert(calendar->rowID_);
            }
            if (wanted.empty()) return {};
        }
        auto isWanted = [&](std::int64_t calendarRow) {
            const auto calendar = calendarByRow.find(calendarRow);
            if (calendar == calendarByRow.end() || !isEventCalendar(*calendar->second)) return false;
            return !predicate.calendarIdentifiers || wanted.count(calendarRow) > 0;
        };
        const double spanStart = predicate.startDate;
        const double spanEnd = predicate.endDate;
        std::vector<std::shared_ptr<EKEvent>> events;

        // Single events and detached occurrences, by their own dates.
        sqlite::Statement rows(db.get(), std::string(itemColumns) +
                                             " AND ci.entity_type = 2 AND ci.start_date < ? AND ci.end_date > ?");
        rows.bind(1, spanEnd + storedDatePadding).bind(2, spanStart - storedDatePadding);
        std::vector<ItemRow> detached;
        std::vector<std::int64_t> detachedOwners;
        while (rows.step()) {
            auto row = readItem(rows);
            if (!isWanted(row.calendarRow)) continue;
            if (row.masterRow > 0) {
                detached.push_back(std::move(row));
                continue;
            }
            if (series.masterByRow.count(row.rowID) > 0) continue;
            if (!overlaps(zones.moment(row.zone, row.start), zones.moment(row.zone, row.end), spanStart, spanEnd))
                continue;
            events.push_back(makeEvent(row, zones, storedAlarms(series, row.rowID), nullptr));
        }
        for (const auto& row : detached) {
            const auto master = series.masterByRow.find(row.masterRow);
            if (master == series.masterByRow.end()) continue;
            if (!overlaps(zones.moment(row.zone, row.start), zones.moment(row.zone, row.end), spanStart, spanEnd))
                continue;
            const auto& masterRow = series.masters[master->second];
            events.push_back(makeDetached(row, masterRow, zones, storedAlarms(series, row.rowID),
                                          &series.rules.at(masterRow.rowID)));
        }

        for (const auto& master : series.masters) {
            if (!isWanted(master.calendarRow) || master.start >= spanEnd + storedDatePadding) continue;
            std::shared_ptr<EKEvent> model;
            expandSeries(series, master, zones, spanStart, spanEnd, [&](double stored, double start, double end) {
                if (!model)
                    model =
                        makeEvent(master, zones, storedAlarms(series, master.rowID), &series.rules.at(master.rowID));
                auto occurrence = std::make_shared<EKEvent>(*model);
                occurrence->startDate = start;
                occurrence->endDate = end;
                occurrence->occurrenceDate_ = start;
                occurrence->originalStored_ = stored;
                occurrence->masterRowID_ = master.rowID;
                occurrence->isOccurrence_ = true;
                events.push_back(std::move(occurrence));
            });
        }
        return events;
    }

    // The item of a row as the platform gives it out: a series as its master, a detached
    // occurrence with its series' identity, a reminder as a reminder.
    std::shared_ptr<EKCalendarItem> itemOf(const ItemRow& row) {
        auto& series = seriesIndex();
        Zones zones;
        if (row.entityType == reminderEntity) {
            auto reminder = std::make_shared<EKReminder>();
            reminder->title = row.title;
            if (const auto calendar = calendarByRow.find(row.calendarRow); calendar != calendarByRow.end()) {
                reminder->calendar = calendar->second;
            }
            reminder->calendarItemIdentifier_ = row.uuid.value_or("item-" + std::to_string(row.rowID));
            reminder->externalIdentifier_ = row.uid;
            return reminder;
        }
        if (row.entityType != eventEntity) return nullptr;
        if (row.masterRow > 0) {
            const auto master = series.masterByRow.find(row.masterRow);
            if (master == series.masterByRow.end()) return nullptr;
            const auto& masterRow = series.masters[master->second];
            return makeDetached(row, masterRow, zones, storedAlarms(series, row.rowID),
                                &series.rules.at(masterRow.rowID));
        }
        const auto rule = series.rules.find(row.rowID);
        return makeEvent(row, zones, storedAlarms(series, row.rowID),
                         rule == series.rules.end() ? nullptr : &rule->second);
    }

    std::vector<ItemRow> itemsWhere(std::string_view condition,
                                    const std::vector<std::variant<std::int64_t, std::string>>& values) {
        loadCalendars();
        sqlite::Statement rows(db.get(),
                               std::string(itemColumns) + " AND " + std::string(condition) + " ORDER BY ci.ROWID");
        for (size_t i = 0; i < values.size(); ++i) {
            if (const auto* number = std::get_if<std::int64_t>(&values[i])) {
                rows.bind(static_cast<int>(i + 1), *number);
            } else {
                rows.bind(static_cast<int>(i + 1), std::string_view(std::get<std::string>(values[i])));
            }
        }
        std::vector<ItemRow> items;
        while (rows.step())
            items.push_back(readItem(rows));
        return items;
    }

    std::optional<ItemRow> itemAt(std::int64_t row) {
        auto items = itemsWhere("ci.ROWID = ?", {row});
        if (items.empty()) return std::nullopt;
        return std::move(items.front());
    }

    // ---- Writing ----

    template <typename Body> void write(bool commitNow, Body&& body) {
        const bool began = !inTransaction;
        if (began) {
            sqlite::execute(db.get(), "BEGIN IMMEDIATE");
            inTransaction = true;
            // What another connection committed before the transaction began is what it sees.
            noticeOtherWriters();
            loadCalendars();
        }
        sqlite::execute(db.get(), "SAVEPOINT event_store_write");
        try {
            body();
            sqlite::execute(db.get(), "RELEASE event_store_write");
        } catch (...) {
            sqlite3_exec(db.get(), "ROLLBACK TO event_store_write; RELEASE event_store_write", nullptr, nullptr,
                         nullptr);
            if (began) {
                sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
                inTransaction = false;
            }
            index.reset();
            throw;
        }
        index.reset();
        if (commitNow) commit();
    }

    void commit() {
        if (!inTransaction) return;
        sqlite::execute(db.get(), "COMMIT");
        inTransaction = false;
    }

    void rollback() {
        if (inTransaction) sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        inTransaction = false;
        dropCaches();
    }

    std::shared_ptr<const EKCalendar> writableCalendar(const EKEvent& event) {
        if (!event.calendar) throw EventStoreError("No calendar has been set.");
        const auto calendar = calendarNamed(event.calendar->calendarIdentifier);
        if (!calendar || !isEventCalendar(*calendar)) throw EventStoreError("The calendar isn't in this event store.");
        if (!calendar->allowsContentModifications) throw EventStoreError("The calendar is read-only.");
        return calendar;
    }

    void checkSavable(const EKEvent& event) {
        if (!event.startDate) throw EventStoreError("No start date has been set.");
        if (!event.endDate) throw EventStoreError("No end date has been set.");
        if (!std::isfinite(*event.startDate) || !std::isfinite(*event.endDate) || *event.endDate < *event.startDate) {
            throw EventStoreError("The start date must be before the end date.");
        }
        for (const auto& rule : event.recurrenceRules) {
            if (!recurrence::isValid(rule)) throw EventStoreError("The recurrence rule is invalid.");
        }
    }

    // The columns of an item that saving writes, from the event's fields.
    void writeFields(std::int64_t row, const EKEvent& event, const EKCalendar& calendar, double now) {
        Zones zones;
        const auto zone = event.timeZone;
        sqlite::Statement update(
            db.get(), "UPDATE CalendarItem SET summary = ?, start_date = ?, start_tz = ?, end_date = ?,\n"
                      "  end_tz = ?, all_day = ?, calendar_id = ?, url = ?, description = ?, last_modified = ?\n"
                      "WHERE ROWID = ?");
        const std::string zoneText = zone ? *zone : std::string(calendarColumns::floatingZone);
        update.bind(1, event.title)
            .bind(2, zones.stored(zone, *event.startDate))
            .bind(3, std::string_view(zoneText))
            .bind(4, zones.stored(zone, *event.endDate))
            .bind(5, std::string_view(zoneText))
            .bind(6, std::int64_t{event.allDay ? 1 : 0})
            .bind(7, calendar.rowID_)
            .bind(8, event.URL)
            .bind(9, event.notes)
            .bind(10, now)
            .bind(11, row)
            .run();
        writeLocation(row, event.location);
        writeAlarms(row, event.alarms);
    }

    std::int64_t insertItem(const std::string& uuid, const std::string& uid, std::int64_t masterRow,
                            std::optional<double> originalDate, double now) {
        sqlite::Statement insert(db.get(),
                                 "INSERT INTO CalendarItem (UUID, unique_identifier, orig_item_id, orig_date, hidden,\n"
                                 "  entity_type, has_recurrences, has_attendees, has_attachment, creation_date,\n"
                                 "  sequence_num, status, availability, privacy_level, invitation_status)\n"
                                 "VALUES (?, ?, ?, ?, 0, 2, 0, 0, 0, ?, 0, 0, 0, 0, 0)");
        insert.bind(1, std::string_view(uuid))
            .bind(2, std::string_view(uid))
            .bind(3, masterRow)
            .bind(4, originalDate)
            .bind(5, now)
            .run();
        return sqlite3_last_insert_rowid(db.get());
    }

    void writeLocation(std::int64_t row, const std::optional<std::string>& location) {
        sqlite::Statement remove(db.get(), "DELETE FROM Location WHERE item_owner_id = ?1 OR ROWID = "
                                           "(SELECT location_id FROM CalendarItem WHERE ROWID = ?1)");
        remove.bind(1, row).run();
        std::optional<std::int64_t> locationRow;
        if (location && !location->empty()) {
            sqlite::Statement insert(db.get(), "INSERT INTO Location (title, item_owner_id) VALUES (?, ?)");
            insert.bind(1, std::string_view(*location)).bind(2, row).run();
            locationRow = sqlite3_last_insert_rowid(db.get());
        }
        sqlite::Statement link(db.get(), "UPDATE CalendarItem SET location_id = ? WHERE ROWID = ?");
        (locationRow ? link.bind(1, *locationRow) : link.bind(1, nullptr)).bind(2, row).run();
    }

    void writeAlarms(std::int64_t row, const std::vector<EKAlarm>& alarms) {
        sqlite::Statement remove(db.get(), "DELETE FROM Alarm WHERE calendaritem_owner_id = ?");
        remove.bind(1, row).run();
        sqlite::Statement insert(
            db.get(), "INSERT INTO Alarm (calendaritem_owner_id, trigger_interval, trigger_date, type, UUID,\n"
                      "  default_alarm, disabled) VALUES (?, ?, ?, 0, ?, 0, 0)");
        for (const auto& alarm : alarms) {
            insert.bind(1, row);
            if (alarm.absoluteDate) {
                insert.bind(2, nullptr).bind(3, *alarm.absoluteDate);
            } else {
                // Whole seconds, cut toward zero, as the column holds them.
                const double offset = std::isfinite(alarm.relativeOffset)
                                          ? std::clamp(std::trunc(alarm.relativeOffset), -1e15, 1e15)
                                          : 0.0;
                insert.bind(2, static_cast<std::int64_t>(offset)).bind(3, nullptr);
            }
            insert.bind(4, files::randomUUID()).run();
        }
    }

    void writeRule(std::int64_t row, const std::optional<EKRecurrenceRule>& rule) {
        sqlite::Statement remove(db.get(), "DELETE FROM Recurrence WHERE owner_id = ?");
        remove.bind(1, row).run();
        if (rule) {
            sqlite::Statement insert(db.get(),
                                     "INSERT INTO Recurrence (owner_id, frequency, interval, count, end_date,\n"
                                     "  cached_end_date, specifier, UUID) VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
            const bool byCount = rule->recurrenceEnd && rule->recurrenceEnd->occurrenceCount > 0;
            const auto endDate = rule->recurrenceEnd && !byCount ? rule->recurrenceEnd->endDate : std::nullopt;
            insert.bind(1, row)
                .bind(2, std::int64_t{static_cast<int>(rule->frequency) + 1})
                .bind(3, std::int64_t{rule->interval})
                .bind(4, std::int64_t{byCount ? rule->recurrenceEnd->occurrenceCount : 0})
                .bind(5, endDate)
                .bind(6, endDate)
                .bind(7, calendarColumns::specifierText(*rule))
                .bind(8, files::randomUUID())
                .run();
        }
        sqlite::Statement flag(db.get(), "UPDATE CalendarItem SET has_recurrences = ? WHERE ROWID = ?");
        flag.bind(1, std::int64_t{rule ? 1 : 0}).bind(2, row).run();
    }

    void addException(std::int64_t master, double stored) {
        sqlite::Statement insert(db.get(), "INSERT INTO ExceptionDate (owner_id, date) VALUES (?, ?)");
        insert.bind(1, master).bind(2, stored).run();
    }

    void deleteItems(std::string_view condition, std::int64_t value) {
        const std::string rows = "(SELECT ROWID FROM CalendarItem WHERE " + std::string(condition) + ")";
        removeCacheRows(rows, value);
        for (const auto* statement :
             {"DELETE FROM Location WHERE item_owner_id IN ", "DELETE FROM Alarm WHERE calendaritem_owner_id IN ",
              "DELETE FROM Recurrence WHERE owner_id IN ", "DELETE FROM ExceptionDate WHERE owner_id IN ",
              "DELETE FROM OccurrenceCache WHERE event_id IN "}) {
            sqlite::Statement remove(db.get(), std::string(statement) + rows);
            remove.bind(1, value).run();
        }
        sqlite::Statement remove(db.get(), "DELETE FROM CalendarItem WHERE " + std::string(condition));
        remove.bind(1, value).run();
    }

    // Ends a series before the occurrence whose stored original date is `stored`: the rule ends a
    // second before it, and exception dates and detached occurrences from there on go.
    void endSeriesBefore(const ItemRow& master, const EKRecurrenceRule& rule, double stored) {
        Zones zones;
        auto ended = rule;
        ended.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithEndDate(zones.moment(master.zone, stored) - 1);
        writeRule(master.rowID, ended);
        sqlite::Statement exceptions(db.get(), "DELETE FROM ExceptionDate WHERE owner_id = ? AND date >= ?");
        exceptions.bind(1, master.rowID).bind(2, stored - 0.5).run();
        sqlite::Statement later(db.get(), "SELECT ROWID FROM CalendarItem WHERE orig_item_id = ? AND orig_date >= ?");
        later.bind(1, master.rowID).bind(2, stored - 0.5);
        std::vector<std::int64_t> rows;
        while (later.step())
            rows.push_back(later.integer(0));
        for (const auto row : rows)
            deleteItems("ROWID = ?", row);
    }

    // ---- The occurrence cache ----

    CacheWindow desiredWindow() {
        // From 1 January of last year to 1 January in two years, on the machine's clock: wide
        // enough for a comparison around today, and it moves only once a year.
        auto zone = ZoneOffsets::current();
        const int year = yearOfWallClock(zone.wallClock(Clock::current().now()));
        return {zone.moment(yearStartWallClock(year - 1)), zone.moment(yearStartWallClock(year + 2)),
                ZoneOffsets::currentIdentifier()};
    }

    static void writeWindow(sqlite3* handle, const CacheWindow& window) {
        sqlite::Statement property(handle,
                                   "INSERT OR REPLACE INTO _SqliteDatabaseProperties (key, value) VALUES (?, ?)");
        property.bind(1, std::string_view("OccurrenceCacheStart")).bind(2, numberText(window.start)).run();
        property.bind(1, std::string_view("OccurrenceCacheEnd")).bind(2, numberText(window.end)).run();
        property.bind(1, std::string_view("OccurrenceCacheTimeZone")).bind(2, std::string_view(window.zone)).run();
    }

    std::optional<CacheWindow> recordedWindow() {
        std::map<std::string, std::string> properties;
        sqlite::Statement rows(db.get(), "SELECT key, value FROM _SqliteDatabaseProperties WHERE key IN\n"
                                         "('OccurrenceCacheStart', 'OccurrenceCacheEnd', 'OccurrenceCacheTimeZone')");
        while (rows.step()) {
            if (!rows.isNull(0) && !rows.isNull(1)) properties[rows.text(0)] = rows.text(1);
        }
        if (properties.size() != 3) return std::nullopt;
        // A window that doesn't read is rebuilt like one that doesn't fit.
        const auto start = text::realNumber(properties["OccurrenceCacheStart"]);
        const auto end = text::realNumber(properties["OccurrenceCacheEnd"]);
        if (!start || !end) return std::nullopt;
        return CacheWindow{*start, *end, properties["OccurrenceCacheTimeZone"]};
    }

    struct CacheRow {
        std::int64_t event = 0;
        std::int64_t calendar = 0;
        std::int64_t store = 0;
        double occurrence = 0;
        double start = 0;
        double end = 0;
    };

    // The cache rows of one series (or single event) within the window.
    std::vector<CacheRow> cacheRowsOf(const SeriesIndex& series, const ItemRow& item, const CacheWindow& window,
                                      Zones& zones) {
        std::vector<CacheRow> rows;
        const auto calendar = calendarByRow.find(item.calendarRow);
        const std::int64_t store = calendar == calendarByRow.end() ? 0 : calendar->second->storeRowID_;
        auto inWindow = [&](double moment) { return moment >= window.start && moment < window.end; };
        if (series.masterByRow.count(item.rowID) == 0) {
            const double start = zones.moment(item.zone, item.start);
            if (inWindow(start))
                rows.push_back({item.rowID, item.calendarRow, store, start, start, zones.moment(item.zone, item.end)});
            return rows;
        }
        expandSeries(series, item, zones, window.start, window.end, [&](double, double start, double end) {
            if (inWindow(start)) rows.push_back({item.rowID, item.calendarRow, store, start, start, end});
        });
        for (const auto& detached : itemsWhere("ci.orig_item_id = ? AND ci.orig_date IS NOT NULL", {item.rowID})) {
            const double original = zones.moment(item.zone, *detached.originalDate);
            const double start = zones.moment(detached.zone, detached.start);
            if (inWindow(original) || inWindow(start)) {
                rows.push_back({detached.rowID, detached.calendarRow, store, original, start,
                                zones.moment(detached.zone, detached.end)});
            }
        }
        return rows;
    }

    void insertCacheRows(const std::vector<CacheRow>& rows, Zones& zones) {
        sqlite::Statement insert(
            db.get(), "INSERT OR REPLACE INTO OccurrenceCache (day, event_id, calendar_id, store_id,\n"
                      "  occurrence_date, occurrence_start_date, occurrence_end_date) VALUES (?, ?, ?, ?, ?, ?, ?)");
        sqlite::Statement count(db.get(),
                                "INSERT INTO OccurrenceCacheDays (calendar_id, store_id, day, count)\n"
                                "VALUES (?, ?, ?, 1) ON CONFLICT (calendar_id, day) DO UPDATE SET count = count + 1");
        for (const auto& row : rows) {
            const double wallClock = zones.current.wallClock(row.start);
            const double day = zones.current.moment(std::floor(wallClock / secondsPerDay) * secondsPerDay);
            insert.bind(1, day)
                .bind(2, row.event)
                .bind(3, row.calendar)
                .bind(4, row.store)
                .bind(5, row.occurrence)
                .bind(6, row.start)
                .bind(7, row.end)
                .run();
            count.bind(1, row.calendar).bind(2, row.store).bind(3, day).run();
        }
    }

    void removeCacheRows(std::string_view eventCondition, std::int64_t value) {
        sqlite::Statement days(db.get(), "SELECT calendar_id, day, COUNT(*) FROM OccurrenceCache WHERE event_id IN " +
                                             std::string(eventCondition) + " GROUP BY calendar_id, day");
        days.bind(1, value);
        std::vector<std::tuple<std::int64_t, double, std::int64_t>> counts;
        while (days.step())
            counts.emplace_back(days.optionalInteger(0).value_or(0), days.optionalReal(1).value_or(0), days.integer(2));
        sqlite::Statement lower(db.get(),
                                "UPDATE OccurrenceCacheDays SET count = count - ? WHERE calendar_id = ? AND day = ?");
        for (const auto& [calendar, day, count] : counts)
            lower.bind(1, count).bind(2, calendar).bind(3, day).run();
        sqlite::execute(db.get(), "DELETE FROM OccurrenceCacheDays WHERE count <= 0");
        sqlite::Statement remove(db.get(),
                                 "DELETE FROM OccurrenceCache WHERE event_id IN " + std::string(eventCondition));
        remove.bind(1, value).run();
    }

    // Brings the cache of one item up to date, or all of it when its window no longer fits.
    void refreshCache(std::int64_t row) {
        const auto desired = desiredWindow();
        if (recordedWindow() != desired) {
            rebuildCache(desired);
            return;
        }
        removeCacheRows("(SELECT ?1 UNION SELECT ROWID FROM CalendarItem WHERE orig_item_id = ?1)", row);
        const auto series = seriesOf(row);
        const auto item = itemAt(row);
        if (!item || item->entityType != eventEntity || item->masterRow > 0) return;
        Zones zones;
        insertCacheRows(cacheRowsOf(series, *item, desired, zones), zones);
    }

    void rebuildCache(const CacheWindow& window) {
        sqlite::execute(db.get(), "DELETE FROM OccurrenceCache; DELETE FROM OccurrenceCacheDays");
        writeWindow(db.get(), window);
        index.reset();
        auto& series = seriesIndex();
        Zones zones;
        std::vector<CacheRow> rows;
        for (const auto& master : series.masters) {
            if (master.start >= window.end + storedDatePadding) continue;
            auto made = cacheRowsOf(series, master, window, zones);
            rows.insert(rows.end(), made.begin(), made.end());
        }
        sqlite::Statement singles(db.get(), std::string(itemColumns) +
                                                " AND ci.entity_type = 2 AND COALESCE(ci.orig_item_id, 0) = 0\n"
                                                "  AND ci.start_date < ? AND ci.start_date >= ?");
        singles.bind(1, window.end + storedDatePadding).bind(2, window.start - storedDatePadding);
        while (singles.step()) {
            const auto item = readItem(singles);
            if (series.masterByRow.count(item.rowID) > 0) continue;
            auto made = cacheRowsOf(series, item, window, zones);
            rows.insert(rows.end(), made.begin(), made.end());
        }
        insertCacheRows(rows, zones);
    }

    // ---- Saving and removing ----

    struct Saved {
        std::int64_t row = 0;
        std::int64_t masterRow = 0;
        std::string uid;
        bool detached = false;
        std::optional<double> originalStored;
        std::optional<double> occurrenceDate;
        bool isOccurrence = false;
    };

    // What an event saved whole (a single event or a series from its first occurrence) now is: a
    // series remembers its first start as stored, in its own zone's wall clock.
    static Saved savedWhole(std::int64_t row, std::string uid, const EKEvent& event) {
        Zones zones;
        return {row,
                0,
                std::move(uid),
                false,
                event.recurrenceRules.empty() ? std::nullopt
                                              : std::optional(zones.stored(event.timeZone, *event.startDate)),
                event.startDate,
                false};
    }

    Saved insertNew(const EKEvent& event, const std::string& identifier, const EKCalendar& calendar, double now) {
        const std::string uid = files::randomUUID();
        const auto row = insertItem(identifier, uid, 0, std::nullopt, now);
        writeFields(row, event, calendar, now);
        writeRule(row, event.recurrenceRules.empty() ? std::nullopt : std::optional(event.recurrenceRules.front()));
        refreshCache(row);
        return savedWhole(row, uid, event);
    }

    void save(EKEvent& event, EKSpan span, bool commitNow) {
        checkSavable(event);
        const double now = Clock::current().now();
        Saved saved;
        std::string newIdentifier = event.calendarItemIdentifier_;
        write(commitNow, [&] {
            const auto calendar = writableCalendar(event);
            if (event.rowID_ == 0) {
                if (newIdentifier.empty()) newIdentifier = files::randomUUID();
                saved = insertNew(event, newIdentifier, *calendar, now);
                return;
            }
            const auto row = itemAt(event.rowID_);
            if (!row || row->entityType != eventEntity) throw EventStoreError("The event isn't in the event store.");
            const std::int64_t masterRow = row->masterRow > 0 ? row->masterRow : row->rowID;
            const auto series = seriesOf(masterRow);
            const auto masterAt = series.masterByRow.find(masterRow);

            if (masterAt == series.masterByRow.end()) {
                // A single event, which a rule turns into a series.
                writeFields(row->rowID, event, *calendar, now);
                writeRule(row->rowID,
                          event.recurrenceRules.empty() ? std::nullopt : std::optional(event.recurrenceRules.front()));
                refreshCache(row->rowID);
                saved = savedWhole(row->rowID, row->uid.value_or(""), event);
                return;
            }
            const auto master = series.masters[masterAt->second];
            const auto rule = series.rules.at(masterRow);
            const bool ruleChanged =
                event.recurrenceRules != (event.loadedRules_ ? *event.loadedRules_ : std::vector<EKRecurrenceRule>{});
            const double original = event.originalStored_.value_or(master.start);
            const bool first = keyOf(original) == keyOf(master.start);

            if (event.detached_ && !ruleChanged && span == EKSpan::thisEvent) {
                if (calendar->rowID_ != master.calendarRow) {
                    throw EventStoreError("An occurrence can't move to another calendar on its own.");
                }
                writeFields(row->rowID, event, *calendar, now);
                refreshCache(masterRow);
                saved = {
                    row->rowID, masterRow, row->uid.value_or(""), true, event.originalStored_, event.occurrenceDate_,
                    false};
                return;
            }
            if (span == EKSpan::thisEvent && !ruleChanged) {
                // One occurrence edited apart from its series.
                if (calendar->rowID_ != master.calendarRow) {
                    throw EventStoreError("An occurrence can't move to another calendar on its own.");
                }
                const std::string uid = master.uid.value_or("") + "/RID=" + std::to_string(keyOf(original));
                const auto detachedRow = insertItem(files::randomUUID(), uid, masterRow, original, now);
                writeFields(detachedRow, event, *calendar, now);
                refreshCache(masterRow);
                saved = {detachedRow, masterRow, uid, true, original, event.occurrenceDate_, false};
                return;
            }
            if (first) {
                // The whole series: its fields, its rule, and its detached occurrences' calendar.
                writeFields(masterRow, event, *calendar, now);
                writeRule(masterRow,
                          event.recurrenceRules.empty() ? std::nullopt : std::optional(event.recurrenceRules.front()));
                sqlite::Statement move(db.get(), "UPDATE CalendarItem SET calendar_id = ? WHERE orig_item_id = ?");
                move.bind(1, calendar->rowID_).bind(2, masterRow).run();
                refreshCache(masterRow);
                saved = savedWhole(masterRow, master.uid.value_or(""), event);
                return;
            }
            // This and future occurrences: the series ends before this one, and a new series
            // starts here with what was changed.
            endSeriesBefore(master, rule, original);
            refreshCache(masterRow);
            newIdentifier = files::randomUUID();
            saved = insertNew(event, newIdentifier, *calendar, now);
        });
        event.calendarItemIdentifier_ = saved.detached ? event.calendarItemIdentifier_ : newIdentifier;
        event.rowID_ = saved.row;
        event.masterRowID_ = saved.masterRow;
        event.detached_ = saved.detached;
        event.isOccurrence_ = saved.isOccurrence;
        event.originalStored_ = saved.originalStored;
        event.occurrenceDate_ = saved.occurrenceDate;
        event.externalIdentifier_ = saved.uid;
        event.eventIdentifier_ = event.calendar->calendarIdentifier + ":" + saved.uid;
        event.lastModified_ = now;
        event.loadedRules_ = std::make_shared<const std::vector<EKRecurrenceRule>>(event.recurrenceRules);
    }

    void remove(EKEvent& event, EKSpan span, bool commitNow) {
        if (event.rowID_ == 0) throw EventStoreError("The event isn't in the event store.");
        bool gone = false;
        write(commitNow, [&] {
            const auto row = itemAt(event.rowID_);
            if (!row || row->entityType != eventEntity) throw EventStoreError("The event isn't in the event store.");
            const auto calendar = calendarByRow.find(row->calendarRow);
            if (calendar != calendarByRow.end() && !calendar->second->allowsContentModifications) {
                throw EventStoreError("The calendar is read-only.");
            }
            const std::int64_t masterRow = row->masterRow > 0 ? row->masterRow : row->rowID;
            const auto series = seriesOf(masterRow);
            const auto masterAt = series.masterByRow.find(masterRow);
            if (masterAt == series.masterByRow.end()) {
                deleteItems("ROWID = ?", row->rowID);
                gone = true;
                return;
            }
            const auto master = series.masters[masterAt->second];
            const double original = event.detached_ ? row->originalDate.value_or(master.start)
                                                    : event.originalStored_.value_or(master.start);
            if (span == EKSpan::thisEvent) {
                if (event.detached_) deleteItems("ROWID = ?", row->rowID);
                addException(masterRow, original);
            } else if (keyOf(original) == keyOf(master.start)) {
                deleteItems("orig_item_id = ?", masterRow);
                deleteItems("ROWID = ?", masterRow);
                gone = true;
                return;
            } else {
                endSeriesBefore(master, series.rules.at(masterRow), original);
            }
            refreshCache(masterRow);
        });
        if (gone) event.rowID_ = 0;
    }
};

// ---- The platform's interface ----

namespace {

class FullAccess final : public CalendarPermission {
public:
    EKAuthorizationStatus status(EKEntityType) override { return EKAuthorizationStatus::fullAccess; }
    bool requestFullAccess() override { return true; }
};

} // namespace

CalendarPermission& CalendarPermission::system() {
    static FullAccess permission;
    return permission;
}

std::shared_ptr<EKEvent> EKEvent::eventWithEventStore(EKEventStore&) {
    auto event = std::make_shared<EKEvent>();
    event->calendarItemIdentifier_ = files::randomUUID();
    return event;
}

EKEventStore::EKEventStore() : EKEventStore(defaultDatabasePath()) {}
EKEventStore::EKEventStore(const fs::path& databasePath) : impl_(std::make_unique<Impl>(databasePath)) {}
EKEventStore::~EKEventStore() = default;

fs::path EKEventStore::defaultDatabasePath() {
    return UserFolders::current().home() / std::string(relativeDatabasePath);
}

const fs::path& EKEventStore::databasePath() const { return impl_->path; }

EKAuthorizationStatus EKEventStore::authorizationStatusForEntityType(EKEntityType type) {
    return CalendarPermission::current().status(type);
}

void EKEventStore::requestFullAccessToEvents(const std::function<void(bool, std::exception_ptr)>& completion) {
    bool granted = false;
    std::exception_ptr error;
    try {
        granted = CalendarPermission::current().requestFullAccess();
    } catch (...) {
        error = std::current_exception();
    }
    completion(granted, error);
}

std::vector<std::shared_ptr<const EKCalendar>> EKEventStore::calendarsForEntityType(EKEntityType type) {
    impl_->loadCalendars();
    std::vector<std::shared_ptr<const EKCalendar>> result;
    for (const auto& calendar : impl_->calendars) {
        if (impl_->isEventCalendar(*calendar) == (type == EKEntityType::event)) result.push_back(calendar);
    }
    return result;
}

std::shared_ptr<const EKCalendar> EKEventStore::calendarWithIdentifier(const std::string& identifier) {
    return impl_->calendarNamed(identifier);
}

std::shared_ptr<const EKCalendar> EKEventStore::defaultCalendarForNewEvents() {
    // The first writable calendar of the local account, else the first writable one.
    std::shared_ptr<const EKCalendar> fallback;
    for (const auto& calendar : calendarsForEntityType(EKEntityType::event)) {
        if (!calendar->allowsContentModifications) continue;
        if (calendar->type == EKCalendarType::local) return calendar;
        if (!fallback) fallback = calendar;
    }
    return fallback;
}

std::vector<std::shared_ptr<const EKSource>> EKEventStore::sources() {
    impl_->loadCalendars();
    std::vector<std::shared_ptr<const EKSource>> result;
    for (const auto& calendar : impl_->calendars) {
        if (calendar->source && std::find(result.begin(), result.end(), calendar->source) == result.end()) {
            result.push_back(calendar->source);
        }
    }
    return result;
}

EKEventPredicate
EKEventStore::predicateForEvents(double startDate, double endDate,
                                 const std::optional<std::vector<std::shared_ptr<const EKCalendar>>>& calendars) {
    EKEventPredicate predicate;
    predicate.startDate = startDate;
    predicate.endDate = std::min(endDate, addingCalendarYears(startDate, 1));
    if (calendars) {
        predicate.calendarIdentifiers.emplace();
        for (const auto& calendar : *calendars) {
            if (calendar) predicate.calendarIdentifiers->push_back(calendar->calendarIdentifier);
        }
    }
    return predicate;
}

std::vector<std::shared_ptr<EKEvent>> EKEventStore::eventsMatchingPredicate(const EKEventPredicate& predicate) {
    if (!(predicate.startDate < predicate.endDate)) return {};
    return impl_->fetch(predicate);
}

std::shared_ptr<EKCalendarItem> EKEventStore::calendarItemWithIdentifier(const std::string& identifier) {
    // A series' occurrences all carry its master's identifier, so the master comes first.
    auto items = impl_->itemsWhere("ci.UUID = ?", {identifier});
    std::stable_sort(items.begin(), items.end(),
                     [](const ItemRow& a, const ItemRow& b) { return (a.masterRow == 0) > (b.masterRow == 0); });
    for (const auto& row : items) {
        if (auto item = impl_->itemOf(row)) return item;
    }
    return nullptr;
}

std::vector<std::shared_ptr<EKCalendarItem>>
EKEventStore::calendarItemsWithExternalIdentifier(const std::string& identifier) {
    // "{UID}/RID=" up to "{UID}/RID>": the detached occurrences, by the index on the column.
    const auto rows = impl_->itemsWhere("(ci.unique_identifier = ?1 OR (ci.unique_identifier >= ?2 AND "
                                        "ci.unique_identifier < ?3))",
                                        {identifier, identifier + "/RID=", identifier + "/RID>"});
    std::vector<std::shared_ptr<EKCalendarItem>> items;
    for (const auto& row : rows) {
        if (auto item = impl_->itemOf(row)) items.push_back(std::move(item));
    }
    return items;
}

void EKEventStore::saveEvent(EKEvent& event, EKSpan span, bool commit) { impl_->save(event, span, commit); }
void EKEventStore::removeEvent(EKEvent& event, EKSpan span, bool commit) { impl_->remove(event, span, commit); }
void EKEventStore::commit() { impl_->commit(); }
void EKEventStore::reset() { impl_->rollback(); }
void EKEventStore::refreshSourcesIfNecessary() { impl_->dropCaches(); }

} // namespace morvane
