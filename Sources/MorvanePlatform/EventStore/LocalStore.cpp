// The local event store: the live calendars in a database of the operating system's schema.
// This file opens and creates the database and reads the accounts and calendars; reading events
// is in EventReading.cpp, writing in EventWriting.cpp, the occurrence cache in OccurrenceCache.cpp.
#include "MorvanePlatform/EventStore/LocalStore.h"

#include "MorvanePlatform/CalendarColumns.h"
#include "MorvanePlatform/EventStore/CalendarSchema.h"
#include "MorvanePlatform/Files.h"

#include <cerrno>
#include <set>
#include <unistd.h>

namespace morvane {

using namespace localStore;
namespace fs = std::filesystem;

namespace {

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

EKCalendarType calendarType(std::int64_t storeType) {
    switch (storeType) {
    case 1: return EKCalendarType::exchange;
    case 2: return EKCalendarType::calDAV;
    case 4: return EKCalendarType::subscription;
    case 5: return EKCalendarType::birthday;
    default: return EKCalendarType::local;
    }
}

} // namespace

EKEventStore::LocalStore::LocalStore(fs::path databasePath) : path(std::move(databasePath)) {
    std::error_code missing;
    if (!fs::exists(path, missing)) create();
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
    db.reset(opened);
    if (result != SQLITE_OK) sqlite::fail(opened, "Couldn't open the event store " + path.string());
    sqlite3_busy_timeout(db.get(), 5000);
    validate();
}

EKEventStore::LocalStore::~LocalStore() {
    if (inTransaction) sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

// Builds the database under a temporary name beside its place and links it into place, so
// that nobody ever opens a half-made store; a store made meanwhile by someone else wins.
void EKEventStore::LocalStore::create() {
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

void EKEventStore::LocalStore::validate() {
    std::string gaps;
    for (const auto& [table, required] : requiredColumns()) {
        std::set<std::string> present;
        sqlite::Statement columns(db.get(), "SELECT name FROM pragma_table_info(?)");
        columns.bind(1, table);
        while (columns.step())
            present.insert(columns.text(0));
        std::string missing;
        for (const auto column : required) {
            if (present.count(std::string(column)) == 0) missing += (missing.empty() ? "" : ", ") + std::string(column);
        }
        if (!missing.empty()) gaps += (gaps.empty() ? "" : "; ") + std::string(table) + " lacks " + missing;
    }
    if (!gaps.empty()) throw EventStoreError("Unsupported Calendar.sqlitedb schema: " + gaps);
}

void EKEventStore::LocalStore::dropCaches() {
    calendarsLoaded = false;
    index.reset();
}

// Forgets what another connection's commit made stale.
void EKEventStore::LocalStore::noticeOtherWriters() {
    sqlite::Statement version(db.get(), "PRAGMA data_version");
    const auto now = version.step() ? version.integer(0) : -1;
    if (now != dataVersion) {
        dataVersion = now;
        dropCaches();
    }
}

void EKEventStore::LocalStore::loadCalendars() {
    if (calendarsLoaded) return;
    calendars.clear();
    calendarByRow.clear();
    storeAlarmOffsets.clear();
    storeTypeByRow.clear();
    std::map<std::int64_t, std::shared_ptr<const EKSource>> sourcesByRow;
    sqlite::Statement rows(db.get(), "SELECT c.ROWID, c.UUID, c.title, c.color, s.ROWID, s.name, s.type,\n"
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

bool EKEventStore::LocalStore::isEventCalendar(const EKCalendar& calendar) const {
    const auto type = storeTypeByRow.find(calendar.storeRowID_);
    return type == storeTypeByRow.end() || type->second != remindersStoreType;
}

std::shared_ptr<const EKCalendar> EKEventStore::LocalStore::calendarNamed(const std::string& identifier) {
    loadCalendars();
    for (const auto& calendar : calendars) {
        if (calendar->calendarIdentifier == identifier) return calendar;
    }
    return nullptr;
}
std::vector<std::shared_ptr<const EKCalendar>> EKEventStore::LocalStore::calendarsForEntityType(EKEntityType type) {
    loadCalendars();
    std::vector<std::shared_ptr<const EKCalendar>> result;
    for (const auto& calendar : calendars) {
        if (isEventCalendar(*calendar) == (type == EKEntityType::event)) result.push_back(calendar);
    }
    return result;
}

std::shared_ptr<const EKCalendar> EKEventStore::LocalStore::calendarWithIdentifier(const std::string& identifier) {
    return calendarNamed(identifier);
}

std::vector<std::shared_ptr<const EKSource>> EKEventStore::LocalStore::sources() {
    loadCalendars();
    std::vector<std::shared_ptr<const EKSource>> result;
    for (const auto& calendar : calendars) {
        if (calendar->source && std::find(result.begin(), result.end(), calendar->source) == result.end()) {
            result.push_back(calendar->source);
        }
    }
    return result;
}

} // namespace morvane
