#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

struct sqlite3;

namespace morvane::testing {

// A value for a column: NULL, an integer, a real or a text.
using SQLValue = std::variant<std::nullptr_t, std::int64_t, double, std::string>;

// Builds calendar databases with the operating system's full column set, for tests and
// benchmarks. Rows are inserted with plain values, NULLs included, so every mapping and fallback
// of a reader can be reached. Row helpers take structs with defaults for what a test doesn't
// care about; `insert` reaches any column of any table. Calendars and items get fresh UUIDs
// (and items a unique identifier) where the row leaves them NULL, as real ones always have them;
// a test that needs NULL there uses `insert`.
class CalendarDatabaseBuilder {
public:
    enum class Journal { rollback, wal };

    // Creates the file (it must not exist) with the calendar schema.
    explicit CalendarDatabaseBuilder(const std::filesystem::path& path, Journal journal = Journal::rollback);
    ~CalendarDatabaseBuilder();
    CalendarDatabaseBuilder(const CalendarDatabaseBuilder&) = delete;
    CalendarDatabaseBuilder& operator=(const CalendarDatabaseBuilder&) = delete;

    const std::filesystem::path& path() const { return path_; }

    // Inserts one row and returns its ROWID.
    std::int64_t insert(std::string_view table, const std::vector<std::pair<std::string, SQLValue>>& columns);
    void execute(std::string_view sql);

    struct StoreRow {
        SQLValue name = std::string("Default");
        SQLValue type = std::int64_t{0};
        SQLValue defaultAlarmOffset = nullptr;
        SQLValue defaultAllDayAlarmOffset = nullptr;
    };
    std::int64_t addStore(const StoreRow& row);

    struct CalendarRow {
        std::int64_t store = 0;
        SQLValue title = std::string("Home");
        SQLValue uuid = nullptr;
        SQLValue color = std::string("#1BADF8FF");
        SQLValue externalID = nullptr;
    };
    std::int64_t addCalendar(const CalendarRow& row);

    struct ItemRow {
        std::int64_t calendar = 0;
        SQLValue summary = std::string("Event");
        SQLValue start = 0.0;
        SQLValue end = 3600.0;
        SQLValue startTZ = std::string("America/Los_Angeles");
        SQLValue allDay = std::int64_t{0};
        SQLValue uniqueIdentifier = nullptr;
        SQLValue uuid = nullptr;
        SQLValue hasRecurrences = std::int64_t{0};
        SQLValue origItemID = std::int64_t{0};
        SQLValue origDate = nullptr;
        SQLValue lastModified = nullptr;
        SQLValue description = nullptr;
        SQLValue url = nullptr;
        SQLValue locationID = nullptr;
        SQLValue hidden = std::int64_t{0};
        SQLValue entityType = std::int64_t{2};
        SQLValue hasAttendees = std::int64_t{0};
        SQLValue hasAttachment = std::int64_t{0};
    };
    std::int64_t addItem(const ItemRow& row);

    struct LocationRow {
        SQLValue title = nullptr;
        SQLValue address = nullptr;
        SQLValue itemOwner = nullptr;
    };
    std::int64_t addLocation(const LocationRow& row);

    struct RecurrenceRow {
        std::int64_t owner = 0;
        SQLValue frequency = std::int64_t{2};
        SQLValue interval = std::int64_t{1};
        SQLValue count = std::int64_t{0};
        SQLValue endDate = nullptr;
        SQLValue specifier = nullptr;
    };
    std::int64_t addRecurrence(const RecurrenceRow& row);

    struct AlarmRow {
        std::int64_t owner = 0;
        SQLValue triggerInterval = std::int64_t{-900};
        SQLValue triggerDate = nullptr;
        SQLValue defaultAlarm = std::int64_t{0};
        SQLValue disabled = std::int64_t{0};
    };
    std::int64_t addAlarm(const AlarmRow& row);

    std::int64_t addExceptionDate(std::int64_t owner, SQLValue date);
    void addOccurrence(std::int64_t event, SQLValue occurrenceDate);

    // A row of _SqliteDatabaseProperties, replacing one of the same key.
    void setProperty(const std::string& key, SQLValue value);
    // The occurrence cache's window and zone, as the system records them.
    void setOccurrenceWindow(double start, double end, std::string zone);

    // Closes the connection. With `keepLog`, the write-ahead log is not checkpointed at close,
    // leaving a live "-wal" beside the file as a backup taken while the calendar is in use has.
    void close(bool keepLog = false);

private:
    SQLValue freshUUID();

    std::filesystem::path path_;
    struct Close {
        void operator()(sqlite3* handle) const;
    };
    std::unique_ptr<sqlite3, Close> db_;
    int uuidCounter_ = 0;
};

} // namespace morvane::testing
