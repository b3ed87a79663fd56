// Writing the local event store. Every save or removal runs inside a savepoint of one open
// transaction: a failure rolls the savepoint back, `commit` commits the transaction and `reset`
// rolls it back. Each write also brings the occurrence cache of the series it touched up to date,
// and rebuilds the whole cache when its window or zone no longer fits the clock.
#include "MorvanePlatform/EventStore/LocalStore.h"

#include "MorvanePlatform/CalendarColumns.h"
#include "MorvanePlatform/Clock.h"
#include "MorvanePlatform/Files.h"

namespace morvane {

using namespace localStore;

namespace {

// What an event saved whole (a single event or a series from its first occurrence) now is: a
// series remembers its first start as stored, in its own zone's wall clock.
Saved savedWhole(std::int64_t row, std::string uid, const EKEvent& event) {
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

} // namespace

template <typename Body> void EKEventStore::LocalStore::write(bool commitNow, Body&& body) {
    const bool began = !inTransaction;
    if (began) {
        openForWriting();
        sqlite::execute(db.get(), "BEGIN IMMEDIATE");
        inTransaction = true;
    }
    bool inSavepoint = false;
    try {
        if (began) {
            // What another connection committed before the transaction began is what it sees.
            noticeOtherWriters();
            loadCalendars();
        }
        sqlite::execute(db.get(), "SAVEPOINT event_store_write");
        inSavepoint = true;
        body();
        sqlite::execute(db.get(), "RELEASE event_store_write");
    } catch (...) {
        // Back to where this write began: the writes pending before it stay pending, and a
        // transaction it began ends, so that no lock outlives a failure.
        if (inSavepoint) {
            sqlite3_exec(db.get(), "ROLLBACK TO event_store_write; RELEASE event_store_write", nullptr, nullptr,
                         nullptr);
        }
        if (began) sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        // SQLite ends the whole transaction itself after some failures (a full disk, say).
        inTransaction = sqlite3_get_autocommit(db.get()) == 0;
        index.reset();
        throw;
    }
    index.reset();
    if (commitNow) commit();
}

void EKEventStore::LocalStore::commit() {
    if (!inTransaction) return;
    try {
        sqlite::execute(db.get(), "COMMIT");
    } catch (...) {
        // Kept pending, the writes would reach the file with whatever is written next; dropped,
        // the file stays as it was before them.
        reset();
        throw;
    }
    inTransaction = false;
}

void EKEventStore::LocalStore::reset() {
    if (inTransaction) sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    inTransaction = false;
    dropCaches();
}

std::shared_ptr<const EKCalendar> EKEventStore::LocalStore::writableCalendar(const EKEvent& event) {
    if (!event.calendar) throw EventStoreError("No calendar has been set.");
    const auto calendar = calendarNamed(event.calendar->calendarIdentifier);
    if (!calendar || !isEventCalendar(*calendar)) throw EventStoreError("The calendar isn't in this event store.");
    if (!calendar->allowsContentModifications) throw EventStoreError("The calendar is read-only.");
    return calendar;
}

// The columns of an item that saving writes, from the event's fields.
void EKEventStore::LocalStore::writeFields(std::int64_t row, const EKEvent& event, const EKCalendar& calendar,
                                           double now) {
    Zones zones;
    const auto zone = event.timeZone;
    sqlite::Statement update(db.get(),
                             "UPDATE CalendarItem SET summary = ?, start_date = ?, start_tz = ?, end_date = ?,\n"
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

std::int64_t EKEventStore::LocalStore::insertItem(const std::string& uuid, const std::string& uid,
                                                  std::int64_t masterRow, std::optional<double> originalDate,
                                                  double now) {
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

void EKEventStore::LocalStore::writeLocation(std::int64_t row, const std::optional<std::string>& location) {
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

void EKEventStore::LocalStore::writeAlarms(std::int64_t row, const std::vector<EKAlarm>& alarms) {
    sqlite::Statement remove(db.get(), "DELETE FROM Alarm WHERE calendaritem_owner_id = ?");
    remove.bind(1, row).run();
    sqlite::Statement insert(db.get(),
                             "INSERT INTO Alarm (calendaritem_owner_id, trigger_interval, trigger_date, type, UUID,\n"
                             "  default_alarm, disabled) VALUES (?, ?, ?, 0, ?, 0, 0)");
    for (const auto& alarm : alarms) {
        insert.bind(1, row);
        if (alarm.absoluteDate) {
            insert.bind(2, nullptr).bind(3, *alarm.absoluteDate);
        } else {
            // Whole seconds, cut toward zero, as the column holds them.
            const double offset =
                std::isfinite(alarm.relativeOffset) ? std::clamp(std::trunc(alarm.relativeOffset), -1e15, 1e15) : 0.0;
            insert.bind(2, static_cast<std::int64_t>(offset)).bind(3, nullptr);
        }
        insert.bind(4, files::randomUUID()).run();
    }
}

void EKEventStore::LocalStore::writeRule(std::int64_t row, const std::optional<EKRecurrenceRule>& rule) {
    sqlite::Statement remove(db.get(), "DELETE FROM Recurrence WHERE owner_id = ?");
    remove.bind(1, row).run();
    if (rule) {
        sqlite::Statement insert(db.get(), "INSERT INTO Recurrence (owner_id, frequency, interval, count, end_date,\n"
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

void EKEventStore::LocalStore::addException(std::int64_t master, double stored) {
    sqlite::Statement insert(db.get(), "INSERT INTO ExceptionDate (owner_id, date) VALUES (?, ?)");
    insert.bind(1, master).bind(2, stored).run();
}

void EKEventStore::LocalStore::deleteItems(std::string_view condition, std::int64_t value) {
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
void EKEventStore::LocalStore::endSeriesBefore(const ItemRow& master, const EKRecurrenceRule& rule, double stored) {
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

Saved EKEventStore::LocalStore::insertNew(const EKEvent& event, const std::string& identifier,
                                          const EKCalendar& calendar, double now) {
    const std::string uid = files::randomUUID();
    const auto row = insertItem(identifier, uid, 0, std::nullopt, now);
    writeFields(row, event, calendar, now);
    writeRule(row, event.recurrenceRules.empty() ? std::nullopt : std::optional(event.recurrenceRules.front()));
    refreshCache(row);
    return savedWhole(row, uid, event);
}

void EKEventStore::LocalStore::saveEvent(EKEvent& event, EKSpan span, bool commitNow) {
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
            saved = {row->rowID, masterRow, row->uid.value_or(""), true, event.originalStored_, event.occurrenceDate_,
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

void EKEventStore::LocalStore::removeEvent(EKEvent& event, EKSpan span, bool commitNow) {
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
        const double original =
            event.detached_ ? row->originalDate.value_or(master.start) : event.originalStored_.value_or(master.start);
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
} // namespace morvane
