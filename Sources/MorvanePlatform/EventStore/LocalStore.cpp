// The local event store: the live calendars in a database of the operating system's schema.
// This file opens and creates the database and reads the accounts and calendars; reading events
// is in EventReading.cpp, writing in EventWriting.cpp, the occurrence cache in OccurrenceCache.cpp.
#include "MorvanePlatform/EventStore/LocalStore.h"

#include "MorvanePlatform/CalendarColumns.h"
#include "MorvanePlatform/EventStore/CalendarSchema.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserFolders.h"

#include <cctype>
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
    const Reading reading(*this);
    validate();
}

EKEventStore::LocalStore::~LocalStore() {
    if (inTransaction && db) sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

EKEventStore::LocalStore::Reading::Reading(LocalStore& store) : store_(store) {
    if (store_.db) return;
    store_.openForReading();
    opened_ = true;
}

EKEventStore::LocalStore::Reading::~Reading() {
    if (opened_ && store_.access == Access::reading) store_.db.reset();
}

namespace {

fs::path withSuffix(const fs::path& path, std::string_view suffix) {
    auto file = path;
    file += suffix;
    return file;
}

// Whether a companion file is there; one that is there but is no regular file is refused, since
// SQLite would wait on a named pipe for ever.
bool present(const fs::path& file) {
    std::error_code error;
    if (!fs::exists(fs::symlink_status(file, error))) return false;
    files::readStart(file, 0);
    return true;
}

// Whether SQLite can read the live files through a read-only connection that changes none of
// them: a write-ahead log with its index, or a database in rollback mode without either, and in
// both cases no journal of an unfinished write, which a reader would have to roll back.
bool readableAsItStands(const fs::path& path) {
    const auto header = files::readStart(path, 20);
    if (present(withSuffix(path, "-journal"))) return false;
    const bool log = present(withSuffix(path, "-wal"));
    const bool index = present(withSuffix(path, "-shm"));
    if (log && index) return true;
    // Bytes 18 and 19 of the header are 2 in write-ahead log mode, which SQLite would have to
    // begin by creating the log.
    const bool walMode = header.size() == 20 && (header[18] == 2 || header[19] == 2);
    return !log && !index && !walMode;
}

// A file name as an SQLite URI path: everything but the plainest characters escaped.
std::string uriPath(const fs::path& path) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string uri;
    for (const unsigned char c : path.string()) {
        if (std::isalnum(c) || c == '/' || c == '.' || c == '-' || c == '_' || c == '~') {
            uri.push_back(static_cast<char>(c));
        } else {
            uri += {'%', digits[c >> 4], digits[c & 0x0F]};
        }
    }
    return uri;
}

sqlite::Connection openConnection(const std::string& name, int flags, const fs::path& shown) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(name.c_str(), &opened, flags, nullptr);
    sqlite::Connection connection(opened);
    if (result != SQLITE_OK) sqlite::fail(opened, result, "Couldn't open the event store " + shown.string());
    sqlite3_busy_timeout(connection.get(), 5000);
    return connection;
}

} // namespace

void EKEventStore::LocalStore::openForReading() {
    if (readableAsItStands(path)) {
        db = openConnection("file:" + uriPath(path) + "?mode=ro&readonly_shm=1", SQLITE_OPEN_READONLY | SQLITE_OPEN_URI,
                            path);
        access = Access::reading;
        return;
    }
    openPrivateCopy();
}

void EKEventStore::LocalStore::openPrivateCopy() {
    const auto folder = UserFolders::current().temporary() / ("morvane-store-" + files::randomUUID());
    privateCopy.emplace(folder);
    files::createPrivateFolder(folder);
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        const auto source = withSuffix(path, suffix);
        if (present(source)) files::copyPrivately(source, folder / source.filename());
    }
    // SQLite finishes the log or rolls back the journal here, in the copy.
    db = openConnection((folder / path.filename()).string(), SQLITE_OPEN_READWRITE, path);
    access = Access::copied;
}

void EKEventStore::LocalStore::openForWriting() {
    if (access == Access::writing) return;
    db.reset();
    privateCopy.reset();
    db = openConnection(path.string(), SQLITE_OPEN_READWRITE, path);
    int persist = 1;
    sqlite3_file_control(db.get(), "main", SQLITE_FCNTL_PERSIST_WAL, &persist);
    // The log kept on close is cut back to nothing once it has been folded in.
    sqlite::execute(db.get(), "PRAGMA journal_size_limit = 0");
    access = Access::writing;
    // What another connection committed meanwhile is found by the first write.
    dataVersion = -1;
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
    // The log and its index are made now, and kept, so that reading finds them.
    openForWriting();
    sqlite::execute(db.get(), "PRAGMA schema_version");
    db.reset();
    access = Access::reading;
}

void EKEventStore::LocalStore::validate() {
    // The first statement on a file tells damage and foreign files apart from a missing table.
    sqlite3_stmt* probe = nullptr;
    int result = sqlite3_prepare_v2(db.get(), "PRAGMA page_count", -1, &probe, nullptr);
    std::int64_t pages = 0;
    if (result == SQLITE_OK && (result = sqlite::Steps::current().step(probe)) == SQLITE_ROW) {
        pages = sqlite3_column_int64(probe, 0);
        result = SQLITE_OK;
    }
    const std::string reason = result == SQLITE_OK ? std::string() : sqlite::damage(db.get(), result);
    sqlite3_finalize(probe);
    if (!reason.empty()) throw EventStoreError(path.string() + " isn't a calendar database: " + reason);
    if (result != SQLITE_OK) sqlite::fail(db.get(), result, "Couldn't open the event store " + path.string());
    if (pages == 0) throw EventStoreError(path.string() + " isn't a calendar database: the file is empty");

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
    const Reading reading(*this);
    loadCalendars();
    std::vector<std::shared_ptr<const EKCalendar>> result;
    for (const auto& calendar : calendars) {
        if (isEventCalendar(*calendar) == (type == EKEntityType::event)) result.push_back(calendar);
    }
    return result;
}

std::shared_ptr<const EKCalendar> EKEventStore::LocalStore::calendarWithIdentifier(const std::string& identifier) {
    const Reading reading(*this);
    return calendarNamed(identifier);
}

std::vector<std::shared_ptr<const EKSource>> EKEventStore::LocalStore::sources() {
    const Reading reading(*this);
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
