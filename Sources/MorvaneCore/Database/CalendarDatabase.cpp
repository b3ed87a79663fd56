#include "MorvaneCore/Database/CalendarDatabase.h"

#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/EventKeys.h"
#include "MorvaneCore/Shared/Text.h"
#include "MorvaneCore/Shared/TimeZones.h"
#include "MorvanePlatform/SHA256.h"

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <sqlite3.h>
#include <unordered_map>

namespace morvane {
namespace {

// The tables and columns the readers need, tables in ascending name order.
const std::vector<std::pair<std::string_view, std::vector<std::string_view>>>& requiredColumns() {
    static const std::vector<std::pair<std::string_view, std::vector<std::string_view>>> columns = {
        {"Alarm", {"calendaritem_owner_id", "trigger_interval", "trigger_date", "default_alarm", "disabled"}},
        {"Calendar", {"store_id", "title", "external_id", "UUID", "color"}},
        {"CalendarItem",
         {"summary", "start_date", "start_tz", "end_date", "all_day", "calendar_id", "orig_item_id", "orig_date",
          "unique_identifier", "UUID", "has_recurrences", "hidden", "entity_type", "last_modified", "location_id",
          "description", "url", "has_attendees"}},
        {"ExceptionDate", {"owner_id", "date"}},
        {"Location", {"title", "address"}},
        {"OccurrenceCache", {"event_id", "occurrence_date"}},
        {"Recurrence", {"owner_id", "frequency", "interval", "count", "end_date", "specifier"}},
        {"Store", {"name", "type", "default_alarm_offset", "default_all_day_alarm_offset"}},
        {"_SqliteDatabaseProperties", {"key", "value"}},
    };
    return columns;
}

constexpr std::string_view fingerprintStatements[] = {
    "SELECT ROWID, summary, start_date, end_date, start_tz, all_day, calendar_id, unique_identifier, description, "
    "url, location_id, orig_item_id, orig_date, hidden FROM CalendarItem ORDER BY ROWID",
    "SELECT owner_id, frequency, interval, count, end_date, specifier FROM Recurrence ORDER BY ROWID",
    "SELECT owner_id, date FROM ExceptionDate ORDER BY ROWID",
    "SELECT calendaritem_owner_id, trigger_interval, trigger_date, default_alarm, disabled FROM Alarm ORDER BY ROWID",
    "SELECT ROWID, title, address FROM Location ORDER BY ROWID",
    "SELECT ROWID, title, UUID FROM Calendar ORDER BY ROWID",
};

constexpr std::string_view eventStatementHead =
    "SELECT ci.ROWID, ci.summary, ci.start_date, ci.end_date, ci.all_day, ci.start_tz,\n"
    "       ci.unique_identifier, ci.UUID, ci.has_recurrences, ci.orig_item_id, ci.orig_date,\n"
    "       ci.last_modified, ci.description, ci.url, l.title, l.address,\n"
    "       c.ROWID, c.UUID, c.title, c.external_id, s.name, s.type,\n"
    "       ci.has_attendees, ";
constexpr std::string_view eventStatementTail = ", c.color\n"
                                                "FROM CalendarItem ci\n"
                                                "JOIN Calendar c ON c.ROWID = ci.calendar_id\n"
                                                "JOIN Store s ON s.ROWID = c.store_id\n"
                                                "LEFT JOIN Location l ON l.ROWID = ci.location_id\n"
                                                "WHERE ci.entity_type = 2\n"
                                                "  AND COALESCE(ci.hidden, 0) = 0\n"
                                                "  AND ci.unique_identifier IS NOT NULL";

constexpr std::string_view alarmStatement =
    "SELECT a.calendaritem_owner_id, a.trigger_interval, a.trigger_date, COALESCE(a.default_alarm, 0),\n"
    "       CASE WHEN ci.all_day = 1 THEN s.default_all_day_alarm_offset ELSE s.default_alarm_offset END\n"
    "FROM Alarm a\n"
    "JOIN CalendarItem ci ON ci.ROWID = a.calendaritem_owner_id\n"
    "JOIN Calendar c ON c.ROWID = ci.calendar_id\n"
    "JOIN Store s ON s.ROWID = c.store_id\n"
    "WHERE COALESCE(a.disabled, 0) = 0";

constexpr std::string_view windowStatement =
    "SELECT key, value FROM _SqliteDatabaseProperties\n"
    "WHERE key IN ('OccurrenceCacheStart', 'OccurrenceCacheEnd', 'OccurrenceCacheTimeZone')";

// The cache's rows and the items they belong to are read apart and matched in memory: SQLite's
// join looks each row's item up in the table, a seek per row, where one pass over the items is a
// fraction of that for a month of a large cache and far less for the whole of it.
constexpr std::string_view cachedItemsStatement = "SELECT ROWID, unique_identifier, orig_item_id, orig_date,\n"
                                                  "       COALESCE(NULLIF(start_tz, ''), '_float') = '_float'\n"
                                                  "FROM CalendarItem WHERE unique_identifier IS NOT NULL";
constexpr std::string_view cacheRowsStatement =
    "SELECT event_id, occurrence_date FROM OccurrenceCache WHERE occurrence_date IS NOT NULL";

} // namespace

CalendarDatabase::CalendarDatabase(const std::filesystem::path& path, std::string shownAs)
    : db_(path.string(), std::move(shownAs)) {
    std::int64_t pages = 0;
    db_.query("PRAGMA page_count", [&pages](const SQLiteDB::Row& row) { pages = row.integer(0).value_or(0); });
    if (pages == 0) throw SQLiteError(db_.shownAs() + " isn't a calendar database: the file is empty");

    std::string gaps;
    size_t absentTables = 0;
    for (const auto& [table, required] : requiredColumns()) {
        const auto present = db_.columns(table);
        absentTables += present.empty() ? 1 : 0;
        std::string missing;
        for (const auto column : required) {
            if (present.count(std::string(column)) == 0) missing += (missing.empty() ? "" : ", ") + std::string(column);
        }
        if (!missing.empty()) gaps += (gaps.empty() ? "" : "; ") + std::string(table) + " lacks " + missing;
    }
    if (absentTables == requiredColumns().size())
        throw SQLiteError(db_.shownAs() + " isn't a calendar database: it has none of the calendar tables");
    if (!gaps.empty()) throw SQLiteError("Unsupported Calendar.sqlitedb schema: " + gaps);

    hasAttachmentSQL_ = db_.columns("CalendarItem").count("has_attachment") > 0 ? "ci.has_attachment" : "0";
}

std::map<std::int64_t, RecurrenceRule> CalendarDatabase::recurrenceRules() {
    std::map<std::int64_t, RecurrenceRule> rules;
    db_.query("SELECT owner_id, frequency, interval, count, end_date, specifier FROM Recurrence ORDER BY ROWID",
              [&rules](const SQLiteDB::Row& row) {
                  const auto owner = row.integer(0);
                  // The first usable row of an owner wins; one with an unknown frequency isn't usable.
                  if (!owner || rules.count(*owner) > 0) return;
                  const auto specifier = row.text(5);
                  auto rule = RecurrenceRule::fromDatabase(
                      row.integer(1).value_or(0), row.integer(2).value_or(1), row.integer(3).value_or(0), row.real(4),
                      specifier ? std::optional<std::string_view>(*specifier) : std::nullopt);
                  if (rule) rules.emplace(*owner, std::move(*rule));
              });
    return rules;
}

std::map<std::int64_t, std::vector<AlarmSpec>> CalendarDatabase::alarms() {
    std::map<std::int64_t, std::vector<AlarmSpec>> alarms;
    db_.query(alarmStatement, [&alarms](const SQLiteDB::Row& row) {
        const auto owner = row.integer(0);
        if (!owner) return;
        if (row.integer(3) == 1) {
            // The account's default alarm: the store's offset counts, not the row's own trigger.
            if (const auto offset = row.integer(4)) alarms[*owner].push_back(AlarmSpec::relative(*offset));
        } else if (const auto interval = row.integer(1)) {
            alarms[*owner].push_back(AlarmSpec::relative(*interval));
        } else if (const auto date = row.real(2)) {
            alarms[*owner].push_back(AlarmSpec::absolute(Date{*date}));
        }
    });
    return alarms;
}

std::vector<BackupEvent> CalendarDatabase::events(const std::optional<std::vector<StoreType>>& storeTypes) {
    auto rules = recurrenceRules();
    auto alarmsByOwner = alarms();

    std::string sql = std::string(eventStatementHead) + hasAttachmentSQL_ + std::string(eventStatementTail);
    if (storeTypes) {
        std::string values;
        for (const auto type : *storeTypes) {
            values += (values.empty() ? "" : ",") + std::to_string(static_cast<std::int64_t>(type));
        }
        sql += " AND s.type IN (" + values + ")";
    }

    std::vector<BackupEvent> events;
    std::map<std::int64_t, BackupCalendar> calendars;
    db_.query(sql, [&](const SQLiteDB::Row& row) {
        BackupEvent event;
        event.rowID = row.integer(0).value_or(0);
        event.uniqueIdentifier = row.text(6).value_or("");
        event.uuid = row.text(7);
        event.hasRecurrences = row.integer(8).value_or(0) != 0;
        if (const auto master = row.integer(9); master && *master > 0) {
            event.masterRowID = master;
            if (const auto original = row.real(10)) event.originalDate = Date{*original};
        }
        if (const auto modified = row.real(11)) event.lastModified = Date{*modified};
        event.hasAttendees = row.integer(22).value_or(0) != 0;
        event.hasAttachment = row.integer(23).value_or(0) != 0;

        // Built at a calendar's first row, copied for the rest.
        const auto calendarRow = row.integer(16).value_or(0);
        auto known = calendars.find(calendarRow);
        if (known == calendars.end()) {
            BackupCalendar calendar;
            calendar.rowID = calendarRow;
            calendar.uuid = row.text(17);
            calendar.title = row.text(18).value_or("?");
            calendar.externalID = row.text(19);
            calendar.storeName = row.text(20).value_or("?");
            calendar.storeType = row.integer(21).value_or(-1);
            calendar.colorHex = row.text(24);
            known = calendars.emplace(calendarRow, std::move(calendar)).first;
        }
        event.calendar = known->second;

        auto& snapshot = event.snapshot;
        snapshot.title = row.text(1).value_or("");
        snapshot.start = Date{row.real(2).value_or(0)};
        snapshot.end = Date{row.real(3).value_or(0)};
        snapshot.isAllDay = row.integer(4).value_or(0) != 0;
        // A floating time keeps its dates as stored.
        snapshot.timeZone = calendarColumns::zoneOf(row.text(5));
        snapshot.notes = row.text(12);
        snapshot.url = row.text(13);
        snapshot.location = locationText(row.text(14), row.text(15));
        snapshot.calendarUUID = event.calendar.uuid;
        snapshot.calendarName = event.calendar.displayName();
        if (const auto rule = rules.find(event.rowID); rule != rules.end()) snapshot.recurrence = rule->second;
        if (auto found = alarmsByOwner.find(event.rowID); found != alarmsByOwner.end()) {
            snapshot.alarms = found->second;
            std::stable_sort(snapshot.alarms.begin(), snapshot.alarms.end());
        }
        events.push_back(std::move(event));
    });
    return events;
}

std::vector<BackupCalendar> CalendarDatabase::calendars() {
    std::vector<BackupCalendar> calendars;
    db_.query("SELECT c.ROWID, c.UUID, c.title, c.external_id, s.name, s.type, c.color\n"
              "FROM Calendar c LEFT JOIN Store s ON s.ROWID = c.store_id ORDER BY c.ROWID",
              [&calendars](const SQLiteDB::Row& row) {
                  calendars.push_back({.rowID = row.integer(0).value_or(0),
                                       .uuid = row.text(1),
                                       .title = row.text(2).value_or("?"),
                                       .externalID = row.text(3),
                                       .storeName = row.text(4).value_or("?"),
                                       .storeType = row.integer(5).value_or(-1),
                                       .colorHex = row.text(6)});
              });
    return calendars;
}

void CalendarDatabase::queryCalendars(
    const std::function<void(const std::string& externalID, const ArchiveCalendarInfo& info)>& onCalendar) {
    db_.query("SELECT c.external_id, c.UUID, c.title, s.name, s.default_alarm_offset, s.default_all_day_alarm_offset\n"
              "FROM Calendar c JOIN Store s ON s.ROWID = c.store_id\n"
              "WHERE c.external_id IS NOT NULL",
              [&onCalendar](const SQLiteDB::Row& row) {
                  const auto externalID = row.text(0);
                  if (!externalID) return;
                  onCalendar(*externalID, {.uuid = row.text(1),
                                           .title = row.text(2).value_or("?"),
                                           .storeName = row.text(3).value_or("?"),
                                           .defaultAlarmOffset = row.integer(4),
                                           .defaultAllDayAlarmOffset = row.integer(5)});
              });
}

CalendarResolver CalendarDatabase::calendarDirectory() {
    struct Known {
        // The last non-empty piece of the external identifier: CalDAV identifiers are paths
        // ("/1234/calendars/home/"), and sync tools name a calendar's folder after that piece.
        std::string lastPiece;
        ArchiveCalendarInfo info;
    };
    auto known = std::make_shared<std::vector<Known>>();
    queryCalendars([&known](const std::string& externalID, const ArchiveCalendarInfo& info) {
        const auto pieces = text::nonEmptyPieces(externalID, '/');
        known->push_back({pieces.empty() ? std::string() : std::string(pieces.back()), info});
    });

    return [known = std::shared_ptr<const std::vector<Known>>(std::move(known))](
               const std::string& folderName,
               const std::optional<std::string>& displayName) -> std::optional<ArchiveCalendarInfo> {
        // File systems may hand names back in another normal form than the server sent them.
        for (const auto& calendar : *known) {
            if (!calendar.lastPiece.empty() && text::canonicallyEqual(calendar.lastPiece, folderName))
                return calendar.info;
        }
        if (!displayName) return std::nullopt;
        // By title only among iCloud calendars, and only when the title is unambiguous there.
        const ArchiveCalendarInfo* match = nullptr;
        for (const auto& calendar : *known) {
            if (calendar.info.storeName != "iCloud" || !text::canonicallyEqual(calendar.info.title, *displayName))
                continue;
            if (match) return std::nullopt;
            match = &calendar.info;
        }
        return match ? std::optional(*match) : std::nullopt;
    };
}

std::vector<BackupEvent> CalendarDatabase::loadEvents() {
    return events(std::vector<StoreType>(restorableStoreTypes.begin(), restorableStoreTypes.end()));
}

std::int64_t CalendarDatabase::eventCount() {
    // The rows of `loadEvents`, detached occurrences aside; the join with Location can't change
    // how many there are.
    std::string sql = "SELECT COUNT(*)\n"
                      "FROM CalendarItem ci\n"
                      "JOIN Calendar c ON c.ROWID = ci.calendar_id\n"
                      "JOIN Store s ON s.ROWID = c.store_id\n"
                      "WHERE ci.entity_type = 2\n"
                      "  AND COALESCE(ci.hidden, 0) = 0\n"
                      "  AND ci.unique_identifier IS NOT NULL";
    std::string types;
    for (const auto type : restorableStoreTypes)
        types += (types.empty() ? "" : ",") + std::to_string(static_cast<std::int64_t>(type));
    sql += " AND s.type IN (" + types + ") AND COALESCE(ci.orig_item_id, 0) <= 0";
    std::int64_t count = 0;
    db_.query(sql, [&count](const SQLiteDB::Row& row) { count = row.integer(0).value_or(0); });
    return count;
}

std::vector<Date> CalendarDatabase::exceptionDates(std::int64_t master) {
    std::vector<Date> dates;
    db_.query("SELECT date FROM ExceptionDate WHERE owner_id = " + std::to_string(master) +
                  " AND date IS NOT NULL ORDER BY date",
              [&dates](const SQLiteDB::Row& row) { dates.push_back({row.real(0).value_or(0)}); });
    return dates;
}

std::map<std::string, std::string> CalendarDatabase::cacheProperties() {
    std::map<std::string, std::string> properties;
    db_.query(windowStatement, [&properties](const SQLiteDB::Row& row) {
        const auto key = row.text(0);
        if (!key) return;
        if (auto value = row.text(1)) {
            properties[*key] = std::move(*value);
        } else {
            properties.erase(*key);
        }
    });
    return properties;
}

namespace {

DateInterval windowOf(std::map<std::string, std::string>& properties) {
    const auto start =
        properties.count("OccurrenceCacheStart") ? text::realNumber(properties["OccurrenceCacheStart"]) : std::nullopt;
    const auto end =
        properties.count("OccurrenceCacheEnd") ? text::realNumber(properties["OccurrenceCacheEnd"]) : std::nullopt;
    if (!start || !end || !(*start < *end)) throw SQLiteError("OccurrenceCache window not recorded in this database.");
    return {{*start}, {*end}};
}

} // namespace

DateInterval CalendarDatabase::occurrenceWindow() {
    auto properties = cacheProperties();
    return windowOf(properties);
}

OccurrenceSet CalendarDatabase::occurrences() { return readOccurrences(std::nullopt); }

OccurrenceSet CalendarDatabase::occurrencesWithin(DateInterval starts) { return readOccurrences(starts); }

OccurrenceSet CalendarDatabase::readOccurrences(std::optional<DateInterval> starts) {
    auto properties = cacheProperties();
    const auto window = windowOf(properties);

    // The zone in which the system expanded floating events; the machine's when unrecorded.
    std::optional<zones::Zone> recorded;
    if (auto found = properties.find("OccurrenceCacheTimeZone"); found != properties.end())
        recorded = zones::Zone::named(found->second);
    const auto zone = recorded ? std::move(*recorded) : zones::Zone::current();

    // What a cache row needs of its item: the series, and where a moved occurrence was.
    struct CachedItem {
        std::string series;
        std::optional<double> originalDate;
        bool floating = false;
        std::vector<std::int64_t>* keys = nullptr;
    };
    std::unordered_map<std::int64_t, CachedItem> items;
    db_.query(cachedItemsStatement, [&](const SQLiteDB::Row& row) {
        CachedItem item;
        item.series = std::string(seriesKey(row.text(1).value_or("")));
        const auto master = row.integer(2);
        // A moved occurrence counts where the series had it, not where it went.
        if (master && *master >= 1) item.originalDate = row.real(3);
        item.floating = row.integer(4) == 1;
        items.emplace(*row.integer(0), std::move(item));
    });

    OccurrenceSet result{window, {}};
    std::string statement(cacheRowsStatement);
    std::vector<double> bounds;
    if (starts) {
        statement += " AND occurrence_date >= ? AND occurrence_date <= ?";
        bounds = {starts->start.seconds, starts->end.seconds};
    } else {
        // Item by item, as the system's index on (event_id, occurrence_date) holds them: each
        // item is looked up once, not once per row, and its keys come in order.
        statement += " ORDER BY event_id, occurrence_date";
    }
    std::optional<std::int64_t> lastEvent;
    CachedItem* last = nullptr;
    db_.query(statement, bounds, [&](const SQLiteDB::Row& row) {
        const auto event = row.integer(0);
        const auto cached = row.real(1);
        if (!event || !cached) return;
        if (event != lastEvent) {
            const auto found = items.find(*event);
            lastEvent = event;
            last = found == items.end() ? nullptr : &found->second;
        }
        if (!last) return;
        auto& item = *last;
        Date moment{*cached};
        if (item.originalDate) {
            moment = Date{*item.originalDate};
        } else if (item.floating) {
            // Cached as a true moment in the cache's zone; floating dates are stored as wall-clock
            // readings counted as UTC.
            moment.seconds += zone.secondsFromGMT(moment);
        }
        if (!item.keys) item.keys = &result.dates[item.series];
        item.keys->push_back(moment.occurrenceKey());
    });
    for (auto& [series, keys] : result.dates)
        sortOccurrenceKeys(keys);
    return result;
}

void CalendarDatabase::verifyIntegrity() {
    std::string report;
    db_.query("PRAGMA quick_check", [&report](const SQLiteDB::Row& row) { report += row.text(0).value_or(""); });
    if (report != "ok") throw SQLiteError("Database copy failed its integrity check: " + report);
}

void CalendarDatabase::checkpoint() {
    // A busy checkpoint counts as done: only failing to run the pragma is an error.
    db_.query("PRAGMA wal_checkpoint(TRUNCATE)", [](const SQLiteDB::Row&) {});
}

std::string CalendarDatabase::contentFingerprint() {
    static constexpr std::string_view nullMark = "\xE2\x88\x85"; // U+2205
    static constexpr char unitSeparator = '\x1F';

    SHA256 hash;
    std::string line;
    for (const auto statement : fingerprintStatements) {
        db_.query(statement, [&](const SQLiteDB::Row& row) {
            line.clear();
            const int count = row.columnCount();
            for (int column = 0; column < count; ++column) {
                if (row.isNull(column)) {
                    line += nullMark;
                } else {
                    row.appendText(column, line);
                }
                line += unitSeparator;
            }
            line += '\n';
            hash.update(line);
        });
    }
    return SHA256::hex(hash.finish());
}

} // namespace morvane
