#include "morvane/InspectCommand.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/IcsArchives/IcsArchive.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"
#include "morvane/CommandLine.h"

#include <map>
#include <ostream>

namespace morvane::cli {
namespace {

struct Report {
    // Absent for a folder of .ics files, which has no fingerprint of its own.
    std::optional<std::string> fingerprint;
    std::int64_t eventCount = 0;
    std::vector<BackupCalendar> calendars;
    std::optional<DateInterval> window;
    std::vector<BackupEvent> events;
    // By row of a series: the occurrences deleted from it, where the store keeps them.
    std::map<std::int64_t, std::vector<Date>> exceptions;
    // Present for a folder of .ics files only.
    std::optional<std::vector<std::string>> unreadableFiles;
};

// What only the kind of store behind a backup can tell: its fingerprint, calendars and every
// event, those of subscribed and birthday calendars included.
void readStoreDetails(BackupStore& store, bool withEvents, Report& report) {
    if (auto* database = dynamic_cast<CalendarDatabase*>(&store)) {
        database->verifyIntegrity();
        report.fingerprint = database->contentFingerprint();
        report.calendars = database->calendars();
        if (withEvents) report.events = database->events(std::nullopt);
    } else if (auto* document = dynamic_cast<EventKitStore*>(&store)) {
        report.fingerprint = "ek:" + document->snapshot().fingerprint();
        report.calendars = document->snapshot().calendars;
        if (withEvents) report.events = document->allEvents();
    } else if (auto* archive = dynamic_cast<IcsArchive*>(&store)) {
        report.calendars = archive->calendars();
        report.unreadableFiles = archive->unreadableFiles();
        if (withEvents) report.events = archive->loadEvents();
    }
}

Report read(BackupStore& store, bool withEvents) {
    Report report;
    readStoreDetails(store, withEvents, report);
    for (const auto& event : report.events) {
        const bool repeats = event.hasRecurrences || event.snapshot.recurrence;
        if (!repeats || event.isDetachedOccurrence()) continue;
        if (auto dates = store.exceptionDates(event.rowID); !dates.empty())
            report.exceptions.emplace(event.rowID, std::move(dates));
    }
    for (const auto& event : store.loadEvents())
        report.eventCount += event.isDetachedOccurrence() ? 0 : 1;
    try {
        report.window = store.occurrences().window;
    } catch (const Error&) {
        // A store without a recorded occurrence cache is still worth showing.
    }
    return report;
}

template <typename T> json::Value orNull(const std::optional<T>& value) {
    return value ? json::Value(*value) : json::Value(nullptr);
}

const std::vector<Date>& exceptionsOf(const Report& report, const BackupEvent& event) {
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

void printJSON(const Report& report, bool withEvents, std::ostream& out) {
    json::Value calendars = json::Value::array();
    for (const auto& calendar : report.calendars) {
        calendars.push_back({{"rowID", calendar.rowID},
                             {"title", calendar.title},
                             {"displayName", calendar.displayName()},
                             {"storeName", calendar.storeName},
                             {"storeType", calendar.storeType},
                             {"colorHex", orNull(calendar.colorHex)}});
    }
    json::Value document = {
        {"fingerprint", orNull(report.fingerprint)},
        {"eventCount", report.eventCount},
        {"calendars", calendars},
        {"occurrenceWindow", report.window ? json::Value{{"start", json::isoDate(report.window->start)},
                                                         {"end", json::isoDate(report.window->end)}}
                                           : json::Value(nullptr)},
    };
    if (report.unreadableFiles) document["unreadableFiles"] = *report.unreadableFiles;
    if (withEvents) {
        json::Value events = json::Value::array();
        for (const auto& event : report.events)
            events.push_back(eventJSON(event, exceptionsOf(report, event)));
        document["events"] = std::move(events);
    }
    out << json::dump(document, true) << '\n';
}

void printText(const Report& report, bool withEvents, std::ostream& out) {
    if (report.fingerprint) out << "Fingerprint: " << *report.fingerprint << '\n';
    out << "Events: " << report.eventCount << '\n';
    out << "Occurrence cache: ";
    if (report.window) {
        out << dates::iso8601(report.window->start) << " to " << dates::iso8601(report.window->end) << '\n';
    } else {
        out << "none recorded\n";
    }
    out << "Calendars:\n";
    for (const auto& calendar : report.calendars) {
        out << "  " << calendar.rowID << "  " << calendar.displayName() << "  (store type " << calendar.storeType
            << ")\n";
    }
    if (report.unreadableFiles && !report.unreadableFiles->empty()) {
        out << "Unreadable files:\n";
        for (const auto& file : *report.unreadableFiles)
            out << "  " << file << '\n';
    }
    if (!withEvents) return;
    out << "Events:\n";
    for (const auto& event : report.events) {
        const auto& snapshot = event.snapshot;
        out << "  " << event.rowID << "  " << snapshot.title << "  " << snapshot.startText() << " – "
            << EventSnapshot::format(snapshot.end, snapshot.isFloating(), snapshot.isAllDay) << "  "
            << event.calendar.displayName() << "  " << event.uniqueIdentifier << '\n';
        if (snapshot.timeZone) out << "      zone: " << *snapshot.timeZone << '\n';
        if (snapshot.location) out << "      location: " << *snapshot.location << '\n';
        if (snapshot.recurrence) out << "      repeats: " << snapshot.recurrence->description() << '\n';
        for (const auto& alarm : snapshot.alarms)
            out << "      alarm: " << alarm.description() << '\n';
        for (const auto date : exceptionsOf(report, event))
            out << "      deleted: " << EventSnapshot::format(date, snapshot.isFloating(), snapshot.isAllDay) << '\n';
        if (event.masterRowID) out << "      detached from " << *event.masterRowID << '\n';
    }
}

} // namespace

int runInspect(const InspectOptions& options, std::ostream& out, std::ostream& err) {
    try {
        Report report;
        {
            // Closed at the end of the block, whether reading worked or not.
            const auto opened = BackupCatalog::open(BackupCatalog::source(options.path));
            report = read(*opened.store, options.events);
        }
        options.json ? printJSON(report, options.events, out) : printText(report, options.events, out);
        return exitSuccess;
    } catch (const Error& error) {
        err << "morvane: " << error.description() << '\n';
        return exitFailure;
    }
}

} // namespace morvane::cli
