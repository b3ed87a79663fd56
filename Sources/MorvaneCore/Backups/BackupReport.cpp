#include "MorvaneCore/Backups/BackupReport.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/IcsArchives/IcsArchive.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"

#include <sstream>

namespace morvane {
namespace {

// What only the kind of store behind a backup can tell: its fingerprint, calendars and every
// event, those of subscribed and birthday calendars included. A calendar database also gives
// its count and window here, without reading its events or its occurrence cache; true then.
//
// A database isn't put through an integrity check first: the fingerprint reads every page of
// every table the report shows, so SQLite finds damage there as the check would, while the
// check would go through the occurrence cache and the indexes too, most of a large file, and
// take longer than the whole report.
bool readStoreDetails(BackupStore& store, bool withEvents, BackupReport& report) {
    if (auto* database = dynamic_cast<CalendarDatabase*>(&store)) {
        report.fingerprint = database->contentFingerprint();
        report.calendars = database->calendars();
        if (withEvents) report.events = database->events(std::nullopt);
        report.eventCount = database->eventCount();
        try {
            report.window = database->occurrenceWindow();
        } catch (const Error&) {
            // A database without a recorded occurrence cache is still worth showing.
        }
        return true;
    }
    if (auto* document = dynamic_cast<EventKitStore*>(&store)) {
        report.fingerprint = "ek:" + document->snapshot().fingerprint();
        report.calendars = document->snapshot().calendars;
        if (withEvents) report.events = document->allEvents();
    } else if (auto* archive = dynamic_cast<IcsArchive*>(&store)) {
        report.calendars = archive->calendars();
        report.unreadableFiles = archive->unreadableFiles();
        report.skipped = archive->skipped();
        if (withEvents) report.events = archive->loadEvents();
    }
    if (withEvents && !report.events) report.events.emplace();
    return false;
}

template <typename T> json::Value orNull(const std::optional<T>& value) {
    return value ? json::Value(*value) : json::Value(nullptr);
}

const std::vector<Date>& exceptionsOf(const BackupReport& report, const BackupEvent& event) {
    static const std::vector<Date> none;
    const auto found = report.exceptions.find(event.rowID);
    return found != report.exceptions.end() ? found->second : none;
}

json::Value eventJSON(const BackupEvent& event, const std::vector<Date>& exceptions) {
    const auto& snapshot = event.snapshot;
    json::Value alarms = json::Value::array();
    for (const auto& alarm : snapshot.alarms)
        alarms.push_back(alarm.description());
    json::Value deleted = json::Value::array();
    for (const auto date : exceptions)
        deleted.push_back(date.seconds);
    return {
        {"rowID", event.rowID},
        {"uniqueIdentifier", event.uniqueIdentifier},
        {"title", snapshot.title},
        {"start", snapshot.start.seconds},
        {"end", snapshot.end.seconds},
        {"isAllDay", snapshot.isAllDay},
        {"timeZone", orNull(snapshot.timeZone)},
        {"location", orNull(snapshot.location)},
        {"notes", orNull(snapshot.notes)},
        {"url", orNull(snapshot.url)},
        {"calendar", event.calendar.displayName()},
        {"recurrence", snapshot.recurrence ? json::Value(snapshot.recurrence->description()) : json::Value(nullptr)},
        {"alarms", alarms},
        {"exceptionDates", deleted},
        {"masterRowID", orNull(event.masterRowID)},
        {"originalDate", event.originalDate ? json::Value(event.originalDate->seconds) : json::Value(nullptr)},
    };
}

} // namespace

BackupReport BackupReport::of(std::string_view path, bool withEvents) {
    // The staged copy and any mount go when `opened` does, whether reading worked or not.
    const auto opened = BackupCatalog::open(BackupCatalog::source(path));
    return read(*opened.store, withEvents);
}

BackupReport BackupReport::read(BackupStore& store, bool withEvents) {
    static const std::vector<BackupEvent> none;
    BackupReport report;
    const bool counted = readStoreDetails(store, withEvents, report);
    for (const auto& event : report.events ? *report.events : none) {
        const bool repeats = event.hasRecurrences || event.snapshot.recurrence;
        if (!repeats || event.isDetachedOccurrence()) continue;
        if (auto dates = store.exceptionDates(event.rowID); !dates.empty())
            report.exceptions.emplace(event.rowID, std::move(dates));
    }
    if (counted) return report;
    for (const auto& event : store.loadEvents())
        report.eventCount += event.isDetachedOccurrence() ? 0 : 1;
    try {
        report.window = store.occurrences().window;
    } catch (const Error&) {
        // A store without a recorded occurrence cache is still worth showing.
    }
    return report;
}

std::string BackupReport::asJSON() const {
    json::Value calendarList = json::Value::array();
    for (const auto& calendar : calendars) {
        calendarList.push_back({{"rowID", calendar.rowID},
                                {"title", calendar.title},
                                {"displayName", calendar.displayName()},
                                {"storeName", calendar.storeName},
                                {"storeType", calendar.storeType},
                                {"colorHex", orNull(calendar.colorHex)}});
    }
    json::Value document = {
        {"fingerprint", orNull(fingerprint)},
        {"eventCount", eventCount},
        {"calendars", calendarList},
        {"occurrenceWindow",
         window ? json::Value{{"start", json::isoDate(window->start)}, {"end", json::isoDate(window->end)}}
                : json::Value(nullptr)},
    };
    if (unreadableFiles) {
        document["unreadableFiles"] = *unreadableFiles;
        json::Value skippedList = json::Value::array();
        for (const auto& event : skipped)
            skippedList.push_back({{"file", event.file}, {"uid", event.uid}, {"reason", event.reason}});
        document["skipped"] = std::move(skippedList);
    }
    if (events) {
        json::Value eventList = json::Value::array();
        for (const auto& event : *events)
            eventList.push_back(eventJSON(event, exceptionsOf(*this, event)));
        document["events"] = std::move(eventList);
    }
    return json::dump(document, true) + '\n';
}

std::string BackupReport::asText() const {
    std::ostringstream out;
    if (fingerprint) out << "Fingerprint: " << *fingerprint << '\n';
    out << "Events: " << eventCount << '\n';
    out << "Occurrence cache: ";
    if (window) {
        out << dates::iso8601(window->start) << " to " << dates::iso8601(window->end) << '\n';
    } else {
        out << "none recorded\n";
    }
    out << "Calendars:\n";
    for (const auto& calendar : calendars) {
        out << "  " << calendar.rowID << "  " << calendar.displayName() << "  (store type " << calendar.storeType
            << ")\n";
    }
    if (unreadableFiles && !unreadableFiles->empty()) {
        out << "Unreadable files:\n";
        for (const auto& file : *unreadableFiles)
            out << "  " << file << '\n';
    }
    if (!skipped.empty()) {
        out << "Skipped events:\n";
        for (const auto& event : skipped)
            out << "  " << event.file << "  " << (event.uid.empty() ? "(no UID)" : event.uid) << ": " << event.reason
                << '\n';
    }
    if (!events) return out.str();
    out << "Events:\n";
    for (const auto& event : *events) {
        const auto& snapshot = event.snapshot;
        out << "  " << event.rowID << "  " << snapshot.title << "  " << snapshot.startText() << " – "
            << EventSnapshot::format(snapshot.end, snapshot.isFloating(), snapshot.isAllDay) << "  "
            << event.calendar.displayName() << "  " << event.uniqueIdentifier << '\n';
        if (snapshot.timeZone) out << "      zone: " << *snapshot.timeZone << '\n';
        if (snapshot.location) out << "      location: " << *snapshot.location << '\n';
        if (snapshot.recurrence) out << "      repeats: " << snapshot.recurrence->description() << '\n';
        for (const auto& alarm : snapshot.alarms)
            out << "      alarm: " << alarm.description() << '\n';
        for (const auto date : exceptionsOf(*this, event))
            out << "      deleted: " << EventSnapshot::format(date, snapshot.isFloating(), snapshot.isAllDay) << '\n';
        if (event.masterRowID) out << "      detached from " << *event.masterRowID << '\n';
    }
    return out.str();
}

} // namespace morvane
