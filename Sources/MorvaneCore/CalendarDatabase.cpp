#include "MorvaneCore/CalendarDatabase.h"

#include "MorvaneCore/Errors.h"
#include "MorvaneCore/EventKeys.h"
#include "MorvaneCore/Text.h"
#include "MorvaneCore/TimeZones.h"
#include "MorvanePlatform/SHA256.h"

#include <charconv>
#include <map>
#include <sqlite3.h>

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

constexpr std::string_view windowStatement =
    "SELECT key, value FROM _SqliteDatabaseProperties\n"
    "WHERE key IN ('OccurrenceCacheStart', 'OccurrenceCacheEnd', 'OccurrenceCacheTimeZone')";

constexpr std::string_view occurrenceStatement =
    "SELECT ci.unique_identifier, ci.orig_item_id, ci.orig_date, oc.occurrence_date,\n"
    "       COALESCE(ci.start_tz, '_float') = '_float'\n"
    "FROM OccurrenceCache oc JOIN CalendarItem ci ON ci.ROWID = oc.event_id\n"
    "WHERE ci.unique_identifier IS NOT NULL AND oc.occurrence_date IS NOT NULL";

// A whole text as a floating-point number, as the system writes the cache's window.
std::optional<double> wholeNumber(const std::string& text) {
    double value = 0;
    const auto* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || stop != end) return std::nullopt;
    return value;
}

} // namespace

CalendarDatabase::CalendarDatabase(const std::filesystem::path& path) : db_(path.string()) {
    std::string gaps;
    for (const auto& [table, required] : requiredColumns()) {
        const auto present = db_.columns(table);
        std::string missing;
        for (const auto column : required) {
            if (present.count(std::string(column)) == 0) missing += (missing.empty() ? "" : ", ") + std::string(column);
        }
        if (!missing.empty()) gaps += (gaps.empty() ? "" : "; ") + std::string(table) + " lacks " + missing;
    }
    if (!gaps.empty()) throw SQLiteError("Unsupported Calendar.sqlitedb schema: " + gaps);

    hasAttachmentSQL_ = db_.columns("CalendarItem").count("has_attachment") > 0 ? "ci.has_attachment" : "0";
}

std::vector<Date> CalendarDatabase::exceptionDates(std::int64_t master) {
    std::vector<Date> dates;
    db_.query("SELECT date FROM ExceptionDate WHERE owner_id = " + std::to_string(master) +
                  " AND date IS NOT NULL ORDER BY date",
              [&dates](const SQLiteDB::Row& row) { dates.push_back({row.real(0).value_or(0)}); });
    return dates;
}

OccurrenceSet CalendarDatabase::occurrences() {
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

    const auto start =
        properties.count("OccurrenceCacheStart") ? wholeNumber(properties["OccurrenceCacheStart"]) : std::nullopt;
    const auto end =
        properties.count("OccurrenceCacheEnd") ? wholeNumber(properties["OccurrenceCacheEnd"]) : std::nullopt;
    if (!start || !end || !(*start < *end)) throw SQLiteError("OccurrenceCache window not recorded in this database.");

    // The zone in which the system expanded floating events; the machine's when unrecorded.
    std::optional<std::string> zone;
    if (auto found = properties.find("OccurrenceCacheTimeZone");
        found != properties.end() && zones::isKnown(found->second))
        zone = found->second;

    OccurrenceSet result{{{*start}, {*end}}, {}};
    db_.query(occurrenceStatement, [&](const SQLiteDB::Row& row) {
        const auto identifier = row.text(0);
        const auto cached = row.real(3);
        if (!identifier || !cached) return;

        Date moment{*cached};
        const auto master = row.integer(1);
        if (master && *master >= 1 && !row.isNull(2)) {
            // A moved occurrence counts where the series had it, not where it went.
            moment = Date{*row.real(2)};
        } else if (row.integer(4) == 1) {
            // Cached as a true moment in the cache's zone; floating dates are stored as wall-clock
            // readings counted as UTC.
            const int offset =
                zone ? zones::secondsFromGMT(*zone, moment).value_or(0) : zones::currentSecondsFromGMT(moment);
            moment.seconds += offset;
        }
        result.dates[std::string(seriesKey(*identifier))].insert(moment.occurrenceKey());
    });
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

std::optional<std::string> locationText(const std::optional<std::string>& title,
                                        const std::optional<std::string>& address) {
    const auto name = text::trimmingWhitespaceAndNewlines(title ? std::string_view(*title) : std::string_view());
    auto place = text::trimmingWhitespaceAndNewlines(address ? std::string_view(*address) : std::string_view());
    if (!name.empty() && place.starts_with(name)) {
        // Addresses often repeat the place's name first: "Work, Main Street 1".
        place = text::trimmingWhitespaceAndNewlines(place.substr(name.size()));
        while (!place.empty() && (place.front() == ',' || place.back() == ',')) {
            place = text::trimmingWhitespaceAndNewlines(text::trimming(place, ","));
        }
    }
    if (name.empty() && place.empty()) return std::nullopt;
    if (name.empty()) return std::string(place);
    if (place.empty()) return std::string(name);
    return std::string(name) + "\n" + std::string(place);
}

} // namespace morvane
