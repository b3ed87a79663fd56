// The occurrence cache of the local event store: one row for each occurrence in a window around
// today, with a count for each day, as the operating system keeps them for its own readers.
#include "MorvanePlatform/EventStore/LocalStore.h"

#include "MorvanePlatform/CalendarDates.h"
#include "MorvanePlatform/Clock.h"
#include "MorvanePlatform/TextPieces.h"

#include <ctime>
#include <tuple>

namespace morvane {

using namespace localStore;

namespace {

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

} // namespace

namespace localStore {

CacheWindow desiredWindow() {
    // From 1 January of last year to 1 January in two years, on the machine's clock: wide
    // enough for a comparison around today, and it moves only once a year.
    auto zone = ZoneOffsets::current();
    const int year = yearOfWallClock(zone.wallClock(Clock::current().now()));
    return {zone.moment(yearStartWallClock(year - 1)), zone.moment(yearStartWallClock(year + 2)),
            ZoneOffsets::currentIdentifier()};
}

void writeWindow(sqlite3* handle, const CacheWindow& window) {
    sqlite::Statement property(handle, "INSERT OR REPLACE INTO _SqliteDatabaseProperties (key, value) VALUES (?, ?)");
    property.bind(1, std::string_view("OccurrenceCacheStart")).bind(2, numberText(window.start)).run();
    property.bind(1, std::string_view("OccurrenceCacheEnd")).bind(2, numberText(window.end)).run();
    property.bind(1, std::string_view("OccurrenceCacheTimeZone")).bind(2, std::string_view(window.zone)).run();
}

} // namespace localStore

std::optional<CacheWindow> EKEventStore::LocalStore::recordedWindow() {
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

// The cache rows of one series (or single event) within the window.
std::vector<CacheRow> EKEventStore::LocalStore::cacheRowsOf(const SeriesIndex& series, const ItemRow& item,
                                                            const CacheWindow& window, Zones& zones) {
    std::vector<CacheRow> rows;
    const auto calendar = calendarByRow.find(item.calendarRow);
    const std::int64_t store = calendar == calendarByRow.end() ? 0 : calendar->second->storeRowID_;
    auto inWindow = [&](double moment) { return moment >= window.start && moment < window.end; };
    const auto master = series.masterByRow.find(item.rowID);
    if (master == series.masterByRow.end()) {
        const double start = zones.moment(item.zone, item.start);
        if (inWindow(start))
            rows.push_back({item.rowID, item.calendarRow, store, start, start, zones.moment(item.zone, item.end)});
        return rows;
    }
    expandSeries(series, master->second, zones, window.start, window.end, [&](double, double start, double end) {
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

void EKEventStore::LocalStore::insertCacheRows(const std::vector<CacheRow>& rows, Zones& zones) {
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

void EKEventStore::LocalStore::removeCacheRows(std::string_view eventCondition, std::int64_t value) {
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
    sqlite::Statement remove(db.get(), "DELETE FROM OccurrenceCache WHERE event_id IN " + std::string(eventCondition));
    remove.bind(1, value).run();
}

// Brings the cache of one item up to date, or all of it when its window no longer fits.
void EKEventStore::LocalStore::refreshCache(std::int64_t row) {
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

void EKEventStore::LocalStore::rebuildCache(const CacheWindow& window) {
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
} // namespace morvane
