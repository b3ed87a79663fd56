#include "LaterCalendar.h"

#include "MorvanePlatform/Clock.h"
#include "MorvanePlatform/EventKit.h"

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <sqlite3.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace morvane::testing {
namespace {

namespace fs = std::filesystem;

constexpr double day = 86400;

struct CloseDatabase {
    void operator()(sqlite3* handle) const { sqlite3_close(handle); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

Database open(const fs::path& path) {
    sqlite3* handle = nullptr;
    const int status = sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr);
    Database database(handle);
    if (status != SQLITE_OK) throw std::runtime_error("can't open " + path.string());
    sqlite3_busy_timeout(handle, 5000);
    return database;
}

void execute(sqlite3* db, const std::string& sql) {
    char* message = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string reason = message ? message : "unknown";
        sqlite3_free(message);
        throw std::runtime_error(reason + " in: " + sql);
    }
}

// The first columns of every row, as integers and reals, with one text column at the end.
struct Row {
    std::int64_t id = 0;
    double value = 0;
    std::string text;
};

std::vector<Row> query(sqlite3* db, const std::string& sql) {
    sqlite3_stmt* raw = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK)
        throw std::runtime_error(std::string(sqlite3_errmsg(db)) + " in: " + sql);
    const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(raw, &sqlite3_finalize);
    std::vector<Row> rows;
    const int columns = sqlite3_column_count(raw);
    while (sqlite3_step(raw) == SQLITE_ROW) {
        Row row;
        row.id = sqlite3_column_int64(raw, 0);
        if (columns > 1) row.value = sqlite3_column_double(raw, 1);
        if (columns > 2) {
            const auto* text = sqlite3_column_text(raw, 2);
            row.text = text ? reinterpret_cast<const char*>(text) : "";
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

template <typename T> std::vector<T> firstOf(std::vector<T> candidates, std::size_t count, std::mt19937_64& random) {
    std::shuffle(candidates.begin(), candidates.end(), random);
    candidates.resize(std::min(count, candidates.size()));
    return candidates;
}

// Top-level events of writable calendars, repeating or single: their UIDs.
std::vector<std::string> eventsOf(sqlite3* db, bool repeating) {
    std::vector<std::string> uids;
    for (const auto& row :
         query(db, "SELECT ci.ROWID, 0, ci.unique_identifier FROM CalendarItem ci "
                   "JOIN Calendar c ON c.ROWID = ci.calendar_id JOIN Store s ON s.ROWID = c.store_id "
                   "WHERE s.type IN (0, 1, 2) AND ci.entity_type = 2 AND IFNULL(ci.orig_item_id, 0) = 0 "
                   "AND ci.has_recurrences = " +
                       std::string(repeating ? "1" : "0") + " ORDER BY ci.ROWID"))
        uids.push_back(row.text);
    return uids;
}

std::shared_ptr<EKEvent> master(EKEventStore& store, const std::string& uid) {
    for (const auto& item : store.calendarItemsWithExternalIdentifier(uid)) {
        if (auto event = std::dynamic_pointer_cast<EKEvent>(item); event && !event->isDetached()) return event;
    }
    throw std::runtime_error("no event " + uid);
}

// A plain occurrence of one of `series` within some ten months of `now`, well inside the store's
// occurrence window; the series it comes from is taken out of `series`.
std::shared_ptr<EKEvent> pickOccurrence(EKEventStore& store, std::vector<std::string>& series, double now,
                                        std::mt19937_64& random) {
    for (int attempt = 0; attempt < 10000 && !series.empty(); ++attempt) {
        const auto index = std::uniform_int_distribution<std::size_t>(0, series.size() - 1)(random);
        const double from = now + static_cast<double>(std::uniform_int_distribution<int>(-300, 280)(random)) * day;
        std::vector<std::shared_ptr<EKEvent>> found;
        for (auto& event : store.eventsMatchingPredicate(store.predicateForEvents(from, from + 21 * day, {}))) {
            if (!event->isDetached() && event->calendarItemExternalIdentifier() == series[index])
                found.push_back(std::move(event));
        }
        if (found.empty()) continue;
        series.erase(series.begin() + static_cast<std::ptrdiff_t>(index));
        return found[std::uniform_int_distribution<std::size_t>(0, found.size() - 1)(random)];
    }
    throw std::runtime_error("no occurrence left to pick");
}

} // namespace

LaterState deriveThroughStore(const fs::path& database, const fs::path& backup, std::int64_t count,
                              std::uint64_t seed) {
    std::mt19937_64 random(seed);
    const auto wanted = static_cast<std::size_t>(std::max<std::int64_t>(count, 0));
    std::vector<std::string> series;
    std::vector<std::string> singles;
    {
        const auto db = open(database);
        series = eventsOf(db.get(), true);
        singles = eventsOf(db.get(), false);
    }
    std::shuffle(series.begin(), series.end(), random);
    const double now = Clock::current().now();
    LaterState made;

    std::vector<std::string> edited;
    {
        EKEventStore store(database);
        for (std::size_t i = 0; i < wanted; ++i) {
            auto occurrence = pickOccurrence(store, series, now, random);
            occurrence->title = occurrence->title.value_or("") + " (moved)";
            *occurrence->startDate += 3600;
            *occurrence->endDate += 3600;
            store.saveEvent(*occurrence, EKSpan::thisEvent, true);
            // Saved apart from its series, it has an identifier of its own.
            edited.push_back(*occurrence->calendarItemExternalIdentifier());
        }
    }
    {
        std::error_code ignored;
        fs::remove(backup, ignored);
        const auto db = open(database);
        sqlite3_stmt* raw = nullptr;
        sqlite3_prepare_v2(db.get(), "VACUUM INTO ?", -1, &raw, nullptr);
        const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> statement(raw, &sqlite3_finalize);
        sqlite3_bind_text(raw, 1, backup.c_str(), -1, SQLITE_TRANSIENT);
        if (sqlite3_step(raw) != SQLITE_DONE) throw std::runtime_error("can't write " + backup.string());
    }

    EKEventStore store(database);
    for (std::size_t i = 0; i < wanted; ++i) {
        auto occurrence = pickOccurrence(store, series, now, random);
        store.removeEvent(*occurrence, EKSpan::thisEvent, true);
        ++made.deletedOccurrences;
    }
    for (const auto& uid : firstOf(series, wanted, random)) {
        store.removeEvent(*master(store, uid), EKSpan::futureEvents, true);
        ++made.deletedEvents;
    }
    for (const auto& uid : firstOf(singles, wanted, random)) {
        auto event = master(store, uid);
        event->title = event->title.value_or("") + " (renamed)";
        store.saveEvent(*event, EKSpan::futureEvents, true);
        ++made.changedEvents;
    }
    for (const auto& identifier : edited) {
        for (const auto& item : store.calendarItemsWithExternalIdentifier(identifier)) {
            auto event = std::dynamic_pointer_cast<EKEvent>(item);
            if (!event || event->calendarItemExternalIdentifier() != identifier) continue;
            event->location = "Hall B";
            store.saveEvent(*event, EKSpan::thisEvent, true);
            ++made.editedOccurrences;
        }
    }
    return made;
}

LaterState deriveDirectly(const fs::path& database, double fraction, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    const auto db = open(database);
    LaterState made;
    execute(db.get(), "BEGIN");

    std::vector<std::int64_t> topLevel;
    std::vector<std::int64_t> singles;
    for (const auto& row : query(db.get(), "SELECT ROWID, has_recurrences FROM CalendarItem "
                                           "WHERE entity_type = 2 AND IFNULL(orig_item_id, 0) = 0")) {
        topLevel.push_back(row.id);
        if (row.value == 0) singles.push_back(row.id);
    }
    const auto share = [fraction](std::size_t of) {
        return static_cast<std::size_t>(fraction * static_cast<double>(of) + 0.5);
    };
    const auto gone = firstOf(topLevel, share(topLevel.size()), random);
    const std::set<std::int64_t> goneSet(gone.begin(), gone.end());
    execute(db.get(), "CREATE TEMP TABLE gone (row INTEGER PRIMARY KEY)");
    for (const auto row : gone)
        execute(db.get(), "INSERT INTO gone VALUES (" + std::to_string(row) + ")");
    execute(db.get(), "INSERT OR IGNORE INTO gone SELECT ROWID FROM CalendarItem WHERE orig_item_id IN gone");
    for (const char* statement :
         {"DELETE FROM OccurrenceCache WHERE event_id IN gone", "DELETE FROM Recurrence WHERE owner_id IN gone",
          "DELETE FROM ExceptionDate WHERE owner_id IN gone", "DELETE FROM Alarm WHERE calendaritem_owner_id IN gone",
          "DELETE FROM CalendarItem WHERE ROWID IN gone"})
        execute(db.get(), statement);
    made.deletedEvents = static_cast<std::int64_t>(gone.size());

    std::erase_if(singles, [&](std::int64_t row) { return goneSet.count(row) != 0; });
    for (const auto row : firstOf(singles, share(topLevel.size()), random)) {
        execute(db.get(),
                "UPDATE CalendarItem SET summary = summary || ' (renamed)' WHERE ROWID = " + std::to_string(row));
        ++made.changedEvents;
    }

    const auto window =
        query(db.get(), "SELECT 0, CAST(value AS REAL) FROM _SqliteDatabaseProperties "
                        "WHERE key IN ('OccurrenceCacheStart', 'OccurrenceCacheEnd') ORDER BY key DESC");
    const auto cached = query(db.get(), "SELECT COUNT(*) FROM OccurrenceCache");
    if (window.size() == 2 && !cached.empty()) {
        const std::string inside =
            std::to_string(window[0].value + 3 * day) + " AND " + std::to_string(window[1].value - 3 * day);
        const auto candidates = query(db.get(), "SELECT oc.rowid, oc.occurrence_date, ci.ROWID FROM OccurrenceCache oc "
                                                "JOIN CalendarItem ci ON ci.ROWID = oc.event_id "
                                                "WHERE ci.has_recurrences = 1 AND IFNULL(ci.orig_item_id, 0) = 0 "
                                                "AND oc.occurrence_date BETWEEN " +
                                                    inside);
        for (const auto& row : firstOf(candidates, share(static_cast<std::size_t>(cached[0].id)), random)) {
            execute(db.get(), "DELETE FROM OccurrenceCache WHERE rowid = " + std::to_string(row.id));
            execute(db.get(), "INSERT INTO ExceptionDate (owner_id, date) VALUES (" + row.text + ", " +
                                  std::to_string(row.value) + ")");
            ++made.deletedOccurrences;
        }
    }
    execute(db.get(), "COMMIT");
    return made;
}

} // namespace morvane::testing
