// Reading the local event store. Single events and detached occurrences are found by a range
// query on their stored dates, widened by two days because a floating event's stored dates are its
// wall clock read as UTC. Repeating events come from an index of every series (rule, alarms,
// exception dates, the original dates of detached occurrences), built once and rebuilt after any
// write of this store or any commit of another connection (PRAGMA data_version). Each series is
// expanded on the wall clock of its own zone (the machine's current zone when floating) and each
// occurrence turned into a moment in that zone.
#include "MorvanePlatform/EventStore/LocalStore.h"

#include "MorvanePlatform/CalendarColumns.h"

#include <set>

namespace morvane {

using namespace localStore;

namespace localStore {

ItemRow readItem(const sqlite::Statement& row) {
    ItemRow item;
    item.rowID = row.integer(0);
    item.title = row.optionalText(1);
    item.start = row.optionalReal(2).value_or(0);
    item.end = row.optionalReal(3).value_or(item.start);
    item.zone = calendarColumns::zoneOf(row.optionalText(4));
    item.allDay = row.optionalInteger(5).value_or(0) != 0;
    item.calendarRow = row.optionalInteger(6).value_or(0);
    item.masterRow = row.integer(7);
    item.originalDate = row.optionalReal(8);
    item.uid = row.optionalText(9);
    item.uuid = row.optionalText(10);
    item.notes = row.optionalText(11);
    item.url = row.optionalText(12);
    item.lastModified = row.optionalReal(13);
    item.hasAttendees = row.optionalInteger(14).value_or(0) != 0;
    item.location = calendarColumns::locationText(row.optionalText(15), row.optionalText(16));
    item.entityType = row.optionalInteger(17).value_or(0);
    return item;
}

} // namespace localStore

std::unordered_map<std::int64_t, EKRecurrenceRule>
EKEventStore::LocalStore::readRules(std::string_view filter, std::optional<std::int64_t> owner) {
    std::unordered_map<std::int64_t, EKRecurrenceRule> rules;
    sqlite::Statement rows(db.get(),
                           "SELECT owner_id, frequency, interval, count, end_date, specifier FROM Recurrence " +
                               std::string(filter) + " ORDER BY ROWID");
    if (owner) rows.bind(1, *owner);
    while (rows.step()) {
        if (rows.isNull(0)) continue;
        const auto ownerRow = rows.integer(0);
        // The first usable row of an owner wins, as the database reader has it.
        if (rules.count(ownerRow) > 0) continue;
        const auto specifier = rows.optionalText(5);
        // What the rule can't hold is left out: the store expands what it understands.
        if (auto reading = calendarColumns::readRecurrence(
                rows.optionalInteger(1).value_or(0), rows.optionalInteger(2).value_or(1),
                rows.optionalInteger(3).value_or(0), rows.optionalReal(4),
                specifier ? std::optional<std::string_view>(*specifier) : std::nullopt)) {
            rules.emplace(ownerRow, std::move(reading->rule));
        }
    }
    return rules;
}

std::vector<AlarmRow> EKEventStore::LocalStore::readAlarms(std::int64_t owner) {
    std::vector<AlarmRow> alarms;
    sqlite::Statement rows(db.get(), "SELECT trigger_interval, trigger_date, COALESCE(default_alarm, 0) FROM Alarm\n"
                                     "WHERE calendaritem_owner_id = ? AND COALESCE(disabled, 0) = 0 ORDER BY ROWID");
    rows.bind(1, owner);
    while (rows.step())
        alarms.push_back({rows.optionalInteger(0), rows.optionalReal(1), rows.integer(2) == 1});
    return alarms;
}

SeriesIndex& EKEventStore::LocalStore::seriesIndex() {
    loadCalendars();
    if (index) return *index;
    SeriesIndex built;
    built.rules = readRules("", std::nullopt);
    sqlite::Statement masters(db.get(), std::string(itemColumns) +
                                            " AND ci.entity_type = 2 AND COALESCE(ci.orig_item_id, 0) = 0\n"
                                            "  AND ci.ROWID IN (SELECT owner_id FROM Recurrence)");
    while (masters.step()) {
        auto row = readItem(masters);
        if (built.rules.count(row.rowID) == 0) continue;
        built.masterByRow[row.rowID] = built.masters.size();
        built.masters.push_back(std::move(row));
    }
    sqlite::Statement alarms(db.get(), "SELECT calendaritem_owner_id, trigger_interval, trigger_date,\n"
                                       "       COALESCE(default_alarm, 0) FROM Alarm\n"
                                       "WHERE COALESCE(disabled, 0) = 0 AND calendaritem_owner_id IS NOT NULL\n"
                                       "ORDER BY ROWID");
    while (alarms.step()) {
        built.alarms[alarms.integer(0)].push_back(
            {alarms.optionalInteger(1), alarms.optionalReal(2), alarms.integer(3) == 1});
    }
    sqlite::Statement exceptions(
        db.get(), "SELECT owner_id, date FROM ExceptionDate WHERE owner_id IS NOT NULL AND date IS NOT NULL");
    while (exceptions.step())
        built.exceptions[exceptions.integer(0)].insert(keyOf(exceptions.real(1)));
    sqlite::Statement detached(db.get(),
                               "SELECT orig_item_id, orig_date FROM CalendarItem\n"
                               "WHERE orig_item_id > 0 AND orig_date IS NOT NULL AND COALESCE(hidden, 0) = 0");
    while (detached.step())
        built.detached[detached.integer(0)].insert(keyOf(detached.real(1)));
    index = std::move(built);
    index->plan();
    return *index;
}

void SeriesIndex::plan() {
    static const std::unordered_set<std::int64_t> none;
    Zones zones;
    plans.clear();
    plans.reserve(masters.size());
    for (const auto& master : masters) {
        Plan made;
        made.rule = &rules.at(master.rowID);
        const auto deletedKeys = exceptions.find(master.rowID);
        made.deleted = deletedKeys == exceptions.end() ? &none : &deletedKeys->second;
        const auto movedKeys = detached.find(master.rowID);
        made.moved = movedKeys == detached.end() ? &none : &movedKeys->second;
        if (master.zone) {
            auto& zone = zones.of(master.zone);
            made.startWallClock = zone.wallClock(master.start);
            const auto& end = made.rule->recurrenceEnd;
            if (end && end->occurrenceCount <= 0 && end->endDate) made.untilWallClock = zone.wallClock(*end->endDate);
        }
        plans.push_back(made);
    }
}

// What the index holds of one series, read afresh: writes touch one series, and reading it
// alone keeps a save as quick in a large store as in a small one. Empty when `row` isn't the
// master of a series.
SeriesIndex EKEventStore::LocalStore::seriesOf(std::int64_t row) {
    SeriesIndex one;
    one.rules = readRules("WHERE owner_id = ?", row);
    const auto master = itemAt(row);
    if (one.rules.empty() || !master || master->masterRow > 0 || master->entityType != eventEntity) {
        return SeriesIndex{};
    }
    one.masterByRow[row] = 0;
    one.masters.push_back(*master);
    one.alarms[row] = readAlarms(row);
    sqlite::Statement exceptions(db.get(), "SELECT date FROM ExceptionDate WHERE owner_id = ? AND date IS NOT NULL");
    exceptions.bind(1, row);
    while (exceptions.step())
        one.exceptions[row].insert(keyOf(exceptions.real(0)));
    sqlite::Statement detached(db.get(), "SELECT orig_date FROM CalendarItem WHERE orig_item_id = ?\n"
                                         "  AND orig_date IS NOT NULL AND COALESCE(hidden, 0) = 0");
    detached.bind(1, row);
    while (detached.step())
        one.detached[row].insert(keyOf(detached.real(0)));
    one.plan();
    return one;
}

std::vector<EKAlarm> EKEventStore::LocalStore::alarmsOf(const ItemRow& row, const std::vector<AlarmRow>& stored) {
    std::vector<EKAlarm> alarms;
    const auto calendar = calendarByRow.find(row.calendarRow);
    for (const auto& alarm : stored) {
        if (alarm.isDefault) {
            // The account's default alarm: its offset counts, not the row's own trigger.
            if (calendar == calendarByRow.end()) continue;
            const auto offsets = storeAlarmOffsets.find(calendar->second->storeRowID_);
            if (offsets == storeAlarmOffsets.end()) continue;
            const auto offset = row.allDay ? offsets->second.second : offsets->second.first;
            if (offset) alarms.push_back(EKAlarm::alarmWithRelativeOffset(static_cast<double>(*offset)));
        } else if (alarm.interval) {
            alarms.push_back(EKAlarm::alarmWithRelativeOffset(static_cast<double>(*alarm.interval)));
        } else if (alarm.date) {
            alarms.push_back(EKAlarm::alarmWithAbsoluteDate(*alarm.date));
        }
    }
    return alarms;
}

std::shared_ptr<EKEvent> EKEventStore::LocalStore::makeEvent(const ItemRow& row, Zones& zones,
                                                             const std::vector<AlarmRow>& alarms,
                                                             const EKRecurrenceRule* rule) {
    auto event = std::make_shared<EKEvent>();
    event->title = row.title;
    if (const auto calendar = calendarByRow.find(row.calendarRow); calendar != calendarByRow.end()) {
        event->calendar = calendar->second;
    }
    event->startDate = zones.moment(row.zone, row.start);
    event->endDate = zones.moment(row.zone, row.end);
    event->allDay = row.allDay;
    event->timeZone = row.zone;
    event->location = row.location;
    event->notes = row.notes;
    event->URL = row.url;
    if (rule) event->recurrenceRules = {*rule};
    event->loadedRules_ = std::make_shared<const std::vector<EKRecurrenceRule>>(event->recurrenceRules);
    event->alarms = alarmsOf(row, alarms);
    event->calendarItemIdentifier_ = row.uuid ? *row.uuid : row.uid.value_or("item-" + std::to_string(row.rowID));
    event->externalIdentifier_ = row.uid;
    if (event->calendar && row.uid) event->eventIdentifier_ = event->calendar->calendarIdentifier + ":" + *row.uid;
    event->hasAttendees_ = row.hasAttendees;
    event->lastModified_ = row.lastModified;
    event->rowID_ = row.rowID;
    event->occurrenceDate_ = event->startDate;
    if (rule) event->originalStored_ = row.start;
    return event;
}

// A detached occurrence: its own row, its series' rule and identity.
std::shared_ptr<EKEvent> EKEventStore::LocalStore::makeDetached(const ItemRow& row, const ItemRow& master, Zones& zones,
                                                                const std::vector<AlarmRow>& alarms,
                                                                const EKRecurrenceRule* rule) {
    auto event = makeEvent(row, zones, alarms, rule);
    event->originalStored_ = row.originalDate;
    event->occurrenceDate_ =
        row.originalDate ? std::optional<double>(zones.moment(master.zone, *row.originalDate)) : std::nullopt;
    event->calendarItemIdentifier_ =
        master.uuid ? *master.uuid : master.uid.value_or("item-" + std::to_string(master.rowID));
    event->detached_ = true;
    event->masterRowID_ = master.rowID;
    return event;
}

const std::vector<AlarmRow>& EKEventStore::LocalStore::storedAlarms(const SeriesIndex& series, std::int64_t row) {
    static const std::vector<AlarmRow> none;
    const auto found = series.alarms.find(row);
    return found == series.alarms.end() ? none : found->second;
}

std::vector<std::shared_ptr<EKEvent>>
EKEventStore::LocalStore::eventsMatchingPredicate(const EKEventPredicate& predicate) {
    const Reading reading(*this);
    auto& series = seriesIndex();
    Zones zones;
    std::set<std::int64_t> wanted;
    if (predicate.calendarIdentifiers) {
        for (const auto& identifier : *predicate.calendarIdentifiers) {
            if (const auto calendar = calendarNamed(identifier)) wanted.insert(calendar->rowID_);
        }
        if (wanted.empty()) return {};
    }
    auto isWanted = [&](std::int64_t calendarRow) {
        const auto calendar = calendarByRow.find(calendarRow);
        if (calendar == calendarByRow.end() || !isEventCalendar(*calendar->second)) return false;
        return !predicate.calendarIdentifiers || wanted.count(calendarRow) > 0;
    };
    const double spanStart = predicate.startDate;
    const double spanEnd = predicate.endDate;
    std::vector<std::shared_ptr<EKEvent>> events;

    // Single events and detached occurrences, by their own dates. The test of `hidden` spelled
    // out again lets SQLite search the system's index on (hidden, end_date, start_date) instead
    // of reading every item. An item that starts before the span's end ends no later than the
    // longest item after it: with that bound a short span reads a short stretch of the index,
    // where the end date alone would read every item that ends after the span's start.
    // A second more than the bound, lest the subtraction's rounding cut off an item at the edge.
    constexpr double roundingSlack = 1;
    if (!series.longestItem) {
        sqlite::Statement longest(db.get(), "SELECT MAX(end_date - start_date) FROM CalendarItem");
        series.longestItem = longest.step() && !longest.isNull(0) ? std::max(0.0, longest.real(0)) : 0.0;
    }
    sqlite::Statement rows(db.get(), std::string(itemColumns) +
                                         " AND (ci.hidden = 0 OR ci.hidden IS NULL) AND ci.entity_type = 2"
                                         " AND ci.start_date < ? AND ci.end_date > ? AND ci.end_date <= ?");
    rows.bind(1, spanEnd + storedDatePadding)
        .bind(2, spanStart - storedDatePadding)
        .bind(3, spanEnd + storedDatePadding + *series.longestItem + roundingSlack);
    std::vector<ItemRow> detached;
    std::vector<std::int64_t> detachedOwners;
    while (rows.step()) {
        auto row = readItem(rows);
        if (!isWanted(row.calendarRow)) continue;
        if (row.masterRow > 0) {
            detached.push_back(std::move(row));
            continue;
        }
        if (series.masterByRow.count(row.rowID) > 0) continue;
        if (!overlaps(zones.moment(row.zone, row.start), zones.moment(row.zone, row.end), spanStart, spanEnd)) continue;
        events.push_back(makeEvent(row, zones, storedAlarms(series, row.rowID), nullptr));
    }
    for (const auto& row : detached) {
        const auto master = series.masterByRow.find(row.masterRow);
        if (master == series.masterByRow.end()) continue;
        if (!overlaps(zones.moment(row.zone, row.start), zones.moment(row.zone, row.end), spanStart, spanEnd)) continue;
        const auto& masterRow = series.masters[master->second];
        events.push_back(
            makeDetached(row, masterRow, zones, storedAlarms(series, row.rowID), &series.rules.at(masterRow.rowID)));
    }

    for (size_t masterIndex = 0; masterIndex < series.masters.size(); ++masterIndex) {
        const auto& master = series.masters[masterIndex];
        if (!isWanted(master.calendarRow) || master.start >= spanEnd + storedDatePadding) continue;
        std::shared_ptr<EKEvent> model;
        expandSeries(series, masterIndex, zones, spanStart, spanEnd, [&](double stored, double start, double end) {
            if (!model)
                model = makeEvent(master, zones, storedAlarms(series, master.rowID), &series.rules.at(master.rowID));
            auto occurrence = std::make_shared<EKEvent>(*model);
            occurrence->startDate = start;
            occurrence->endDate = end;
            occurrence->occurrenceDate_ = start;
            occurrence->originalStored_ = stored;
            occurrence->masterRowID_ = master.rowID;
            occurrence->isOccurrence_ = true;
            events.push_back(std::move(occurrence));
        });
    }
    return events;
}

// The item of a row as the platform gives it out: a series as its master, a detached
// occurrence with its series' identity, a reminder as a reminder.
std::shared_ptr<EKCalendarItem> EKEventStore::LocalStore::itemOf(const ItemRow& row, Zones& zones) {
    auto& series = seriesIndex();
    if (row.entityType == reminderEntity) {
        auto reminder = std::make_shared<EKReminder>();
        reminder->title = row.title;
        if (const auto calendar = calendarByRow.find(row.calendarRow); calendar != calendarByRow.end()) {
            reminder->calendar = calendar->second;
        }
        reminder->calendarItemIdentifier_ = row.uuid.value_or("item-" + std::to_string(row.rowID));
        reminder->externalIdentifier_ = row.uid;
        return reminder;
    }
    if (row.entityType != eventEntity) return nullptr;
    if (row.masterRow > 0) {
        const auto master = series.masterByRow.find(row.masterRow);
        if (master == series.masterByRow.end()) return nullptr;
        const auto& masterRow = series.masters[master->second];
        return makeDetached(row, masterRow, zones, storedAlarms(series, row.rowID), &series.rules.at(masterRow.rowID));
    }
    const auto rule = series.rules.find(row.rowID);
    return makeEvent(row, zones, storedAlarms(series, row.rowID), rule == series.rules.end() ? nullptr : &rule->second);
}

std::vector<ItemRow>
EKEventStore::LocalStore::itemsWhere(std::string_view condition,
                                     const std::vector<std::variant<std::int64_t, std::string>>& values) {
    loadCalendars();
    sqlite::Statement rows(db.get(),
                           std::string(itemColumns) + " AND " + std::string(condition) + " ORDER BY ci.ROWID");
    for (size_t i = 0; i < values.size(); ++i) {
        if (const auto* number = std::get_if<std::int64_t>(&values[i])) {
            rows.bind(static_cast<int>(i + 1), *number);
        } else {
            rows.bind(static_cast<int>(i + 1), std::string_view(std::get<std::string>(values[i])));
        }
    }
    std::vector<ItemRow> items;
    while (rows.step())
        items.push_back(readItem(rows));
    return items;
}

std::optional<ItemRow> EKEventStore::LocalStore::itemAt(std::int64_t row) {
    auto items = itemsWhere("ci.ROWID = ?", {row});
    if (items.empty()) return std::nullopt;
    return std::move(items.front());
}
std::shared_ptr<EKCalendarItem> EKEventStore::LocalStore::calendarItemWithIdentifier(const std::string& identifier) {
    const Reading reading(*this);
    // A series' occurrences all carry its master's identifier, so the master comes first.
    auto items = itemsWhere("ci.UUID = ?", {identifier});
    std::stable_sort(items.begin(), items.end(),
                     [](const ItemRow& a, const ItemRow& b) { return (a.masterRow == 0) > (b.masterRow == 0); });
    Zones zones;
    for (const auto& row : items) {
        if (auto item = itemOf(row, zones)) return item;
    }
    return nullptr;
}

std::vector<std::shared_ptr<EKCalendarItem>>
EKEventStore::LocalStore::calendarItemsWithExternalIdentifier(const std::string& identifier) {
    const Reading reading(*this);
    // "{UID}/RID=" up to "{UID}/RID>": the detached occurrences, by the index on the column.
    const auto rows = itemsWhere("(ci.unique_identifier = ?1 OR (ci.unique_identifier >= ?2 AND "
                                 "ci.unique_identifier < ?3))",
                                 {identifier, identifier + "/RID=", identifier + "/RID>"});
    std::vector<std::shared_ptr<EKCalendarItem>> items;
    if (rows.empty()) return items;
    Zones zones;
    for (const auto& row : rows) {
        if (auto item = itemOf(row, zones)) items.push_back(std::move(item));
    }
    return items;
}

} // namespace morvane
