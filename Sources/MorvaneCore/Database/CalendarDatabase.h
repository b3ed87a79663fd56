#pragma once

#include "MorvaneCore/Database/BackupStore.h"
#include "MorvaneCore/Database/SQLiteDB.h"
#include "MorvaneCore/IcsArchives/IcsArchive.h"
#include "MorvaneCore/Shared/Date.h"
#include "MorvanePlatform/CalendarColumns.h"

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// Reads a staged copy of the operating system's calendar database into the system's records.
// Opening checks every table and column the readers need and refuses the whole database, with
// one message naming every gap, when any is missing. The only write is `checkpoint`.
// One thread at a time; failures throw SQLiteError.
class CalendarDatabase final : public BackupStore {
public:
    // Opens the staged copy at `path`; messages name it `shownAs`, the file as the user knows it
    // (the copy's own path when empty). Throws, besides the errors of opening, "{shownAs} isn't a
    // calendar database: the file is empty" for a file of no bytes, "... it has none of the
    // calendar tables" for another program's database, and "Unsupported Calendar.sqlitedb
    // schema: {table} lacks {column}, ...; ..." for one that lacks some.
    explicit CalendarDatabase(const std::filesystem::path& path, std::string shownAs = {});

    // The events and detached occurrences of the stores of the given types (all stores when
    // absent), in the order the database gives them. Three statements, whatever the number of
    // events: rules and alarms are read first and joined in memory.
    std::vector<BackupEvent> events(const std::optional<std::vector<StoreType>>& storeTypes);

    // Every calendar of every store, by row, with the mapping and fallbacks of `events`.
    std::vector<BackupCalendar> calendars();

    // Every calendar that has an external identifier, with its title, its account's name ("?"
    // where NULL) and the account's default alarms, in the order the database gives them.
    void queryCalendars(
        const std::function<void(const std::string& externalID, const ArchiveCalendarInfo& info)>& onCalendar);

    // A resolver for the calendars of an .ics archive, holding this database's calendars in
    // memory, so it outlives the database. A folder is the calendar whose external identifier
    // ends in a piece of that name (the first such calendar); failing that, the one iCloud
    // calendar titled as the folder's display name, if exactly one is.
    CalendarResolver calendarDirectory();

    // The events of the local, Exchange and CalDAV stores.
    std::vector<BackupEvent> loadEvents() override;

    // How many of the events `loadEvents` gives are not detached occurrences, counted by one
    // statement without reading them.
    std::int64_t eventCount();

    // The deleted occurrences of the series whose row is `master`, ascending.
    std::vector<Date> exceptionDates(std::int64_t master) override;

    // The occurrence cache: its window and, per series, the keys of the moments it holds, each
    // counted where the series had it (a moved occurrence at its original date, a floating one
    // at its wall-clock reading as UTC). Throws "OccurrenceCache window not recorded in this
    // database." without a usable window.
    OccurrenceSet occurrences() override;
    // The same, of the cache's rows that begin within `starts` alone, found through the cache's
    // index on the occurrence date.
    OccurrenceSet occurrencesWithin(DateInterval starts) override;

    // The window of `occurrences` alone, read without the cache's rows; throws as it does.
    DateInterval occurrenceWindow();

    // Throws "Database copy failed its integrity check: {what the check said}", its rows run
    // together: it checks the staged copy that a restore point is made from..
    void verifyIntegrity();

    // Folds the write-ahead log into the main file, so the file alone holds the database.
    void checkpoint();

    // SHA-256, in lower-case hex, over the rows of the tables that hold what the user's calendars
    // say, streamed row by row. A persisted format: restore points are compared by it.
    std::string contentFingerprint();

private:
    std::map<std::string, std::string> cacheProperties();
    OccurrenceSet readOccurrences(std::optional<DateInterval> starts);
    std::map<std::int64_t, RecurrenceRule> recurrenceRules();
    std::map<std::int64_t, std::vector<AlarmSpec>> alarms();

    SQLiteDB db_;
    // The expression read for an item's attachment flag: the column where it exists, else 0.
    std::string hasAttachmentSQL_;
};

// The location of an event as one text, as the event store reads it too.
using calendarColumns::locationText;

} // namespace morvane
