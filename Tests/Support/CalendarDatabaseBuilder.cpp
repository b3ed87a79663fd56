#include "Support/CalendarDatabaseBuilder.h"

#include "MorvanePlatform/EventStore/CalendarSchema.h"

#include <algorithm>
#include <sqlite3.h>
#include <stdexcept>

namespace morvane::testing {
namespace {

[[noreturn]] void fail(sqlite3* db, const std::string& what) {
    throw std::runtime_error(what + ": " + sqlite3_errmsg(db));
}

void bind(sqlite3_stmt* statement, int index, const SQLValue& value) {
    if (std::holds_alternative<std::nullptr_t>(value)) {
        sqlite3_bind_null(statement, index);
    } else if (const auto* integer = std::get_if<std::int64_t>(&value)) {
        sqlite3_bind_int64(statement, index, *integer);
    } else if (const auto* real = std::get_if<double>(&value)) {
        sqlite3_bind_double(statement, index, *real);
    } else {
        const auto& text = std::get<std::string>(value);
        sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    }
}

} // namespace

SQLValue CalendarDatabaseBuilder::freshUUID() {
    const auto number = std::to_string(++uuidCounter_);
    return "00000000-0000-4000-8000-" + std::string(12 - std::min<size_t>(12, number.size()), '0') + number;
}

void CalendarDatabaseBuilder::Close::operator()(sqlite3* handle) const { sqlite3_close(handle); }

CalendarDatabaseBuilder::CalendarDatabaseBuilder(const std::filesystem::path& path, Journal journal) : path_(path) {
    if (std::filesystem::exists(path)) throw std::runtime_error("already exists: " + path.string());
    std::filesystem::create_directories(path.parent_path());
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    db_.reset(opened);
    if (result != SQLITE_OK) fail(opened, "open " + path.string());
    // No automatic checkpoints: what a test writes stays in the log until it closes.
    if (journal == Journal::wal) execute("PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0");
    execute(calendarSchemaSQL());
}

CalendarDatabaseBuilder::~CalendarDatabaseBuilder() = default;

void CalendarDatabaseBuilder::execute(std::string_view sql) {
    char* message = nullptr;
    if (sqlite3_exec(db_.get(), std::string(sql).c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string text = message != nullptr ? message : "unknown error";
        sqlite3_free(message);
        throw std::runtime_error(text + "\n" + std::string(sql));
    }
}

std::int64_t CalendarDatabaseBuilder::insert(std::string_view table,
                                             const std::vector<std::pair<std::string, SQLValue>>& columns) {
    std::string names;
    std::string placeholders;
    for (const auto& [name, value] : columns) {
        names += (names.empty() ? "" : ", ") + name;
        placeholders += placeholders.empty() ? "?" : ", ?";
    }
    const std::string sql =
        columns.empty() ? "INSERT INTO " + std::string(table) + " DEFAULT VALUES"
                        : "INSERT INTO " + std::string(table) + " (" + names + ") VALUES (" + placeholders + ")";
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) fail(db_.get(), sql);
    for (size_t i = 0; i < columns.size(); ++i)
        bind(statement, static_cast<int>(i + 1), columns[i].second);
    const int result = sqlite3_step(statement);
    sqlite3_finalize(statement);
    if (result != SQLITE_DONE) fail(db_.get(), sql);
    return sqlite3_last_insert_rowid(db_.get());
}

std::int64_t CalendarDatabaseBuilder::addStore(const StoreRow& row) {
    return insert("Store", {{"name", row.name},
                            {"type", row.type},
                            {"default_alarm_offset", row.defaultAlarmOffset},
                            {"default_all_day_alarm_offset", row.defaultAllDayAlarmOffset}});
}

std::int64_t CalendarDatabaseBuilder::addCalendar(const CalendarRow& row) {
    return insert("Calendar", {{"store_id", row.store},
                               {"title", row.title},
                               {"UUID", std::holds_alternative<std::nullptr_t>(row.uuid) ? freshUUID() : row.uuid},
                               {"color", row.color},
                               {"external_id", row.externalID}});
}

std::int64_t CalendarDatabaseBuilder::addItem(const ItemRow& row) {
    const auto uuid = std::holds_alternative<std::nullptr_t>(row.uuid) ? freshUUID() : row.uuid;
    const auto uniqueIdentifier = std::holds_alternative<std::nullptr_t>(row.uniqueIdentifier)
                                      ? SQLValue(std::get<std::string>(uuid) + "@test")
                                      : row.uniqueIdentifier;
    return insert("CalendarItem", {{"calendar_id", row.calendar},
                                   {"summary", row.summary},
                                   {"start_date", row.start},
                                   {"end_date", row.end},
                                   {"start_tz", row.startTZ},
                                   {"end_tz", row.startTZ},
                                   {"all_day", row.allDay},
                                   {"unique_identifier", uniqueIdentifier},
                                   {"UUID", uuid},
                                   {"has_recurrences", row.hasRecurrences},
                                   {"orig_item_id", row.origItemID},
                                   {"orig_date", row.origDate},
                                   {"last_modified", row.lastModified},
                                   {"description", row.description},
                                   {"url", row.url},
                                   {"location_id", row.locationID},
                                   {"hidden", row.hidden},
                                   {"entity_type", row.entityType},
                                   {"has_attendees", row.hasAttendees},
                                   {"has_attachment", row.hasAttachment}});
}

std::int64_t CalendarDatabaseBuilder::addLocation(const LocationRow& row) {
    return insert("Location", {{"title", row.title}, {"address", row.address}, {"item_owner_id", row.itemOwner}});
}

std::int64_t CalendarDatabaseBuilder::addRecurrence(const RecurrenceRow& row) {
    return insert("Recurrence", {{"owner_id", row.owner},
                                 {"frequency", row.frequency},
                                 {"interval", row.interval},
                                 {"count", row.count},
                                 {"end_date", row.endDate},
                                 {"specifier", row.specifier}});
}

std::int64_t CalendarDatabaseBuilder::addAlarm(const AlarmRow& row) {
    return insert("Alarm", {{"calendaritem_owner_id", row.owner},
                            {"trigger_interval", row.triggerInterval},
                            {"trigger_date", row.triggerDate},
                            {"default_alarm", row.defaultAlarm},
                            {"disabled", row.disabled}});
}

std::int64_t CalendarDatabaseBuilder::addExceptionDate(std::int64_t owner, SQLValue date) {
    return insert("ExceptionDate", {{"owner_id", owner}, {"date", std::move(date)}});
}

void CalendarDatabaseBuilder::addOccurrence(std::int64_t event, SQLValue occurrenceDate) {
    insert("OccurrenceCache",
           {{"event_id", event}, {"occurrence_date", occurrenceDate}, {"occurrence_start_date", occurrenceDate}});
}

void CalendarDatabaseBuilder::setProperty(const std::string& key, SQLValue value) {
    sqlite3_stmt* statement = nullptr;
    const char* sql = "INSERT OR REPLACE INTO _SqliteDatabaseProperties (key, value) VALUES (?, ?)";
    if (sqlite3_prepare_v2(db_.get(), sql, -1, &statement, nullptr) != SQLITE_OK) fail(db_.get(), sql);
    bind(statement, 1, key);
    bind(statement, 2, value);
    const int result = sqlite3_step(statement);
    sqlite3_finalize(statement);
    if (result != SQLITE_DONE) fail(db_.get(), sql);
}

void CalendarDatabaseBuilder::setOccurrenceWindow(double start, double end, std::string zone) {
    // The system stores these as text.
    setProperty("OccurrenceCacheStart", std::to_string(start));
    setProperty("OccurrenceCacheEnd", std::to_string(end));
    setProperty("OccurrenceCacheTimeZone", std::move(zone));
}

void CalendarDatabaseBuilder::close(bool keepLog) {
    if (!db_) return;
    if (keepLog) sqlite3_db_config(db_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    db_.reset();
}

} // namespace morvane::testing
