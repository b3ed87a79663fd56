#include "morvane/InspectCommand.h"

#include "MorvaneCore/BackupLocator.h"
#include "MorvaneCore/CalendarArchive.h"
#include "MorvaneCore/CalendarDatabase.h"
#include "MorvaneCore/DateFormatting.h"
#include "MorvaneCore/Errors.h"
#include "MorvaneCore/Json.h"
#include "MorvaneCore/Paths.h"
#include "MorvanePlatform/UserFolders.h"
#include "morvane/CommandLine.h"

#include <ostream>

namespace morvane::cli {
namespace {

struct Report {
    std::string fingerprint;
    std::int64_t eventCount = 0;
    std::vector<BackupCalendar> calendars;
    std::optional<DateInterval> window;
    std::vector<BackupEvent> events;
};

Report read(const std::filesystem::path& staged, bool withEvents) {
    CalendarDatabase database(staged);
    database.verifyIntegrity();
    Report report;
    report.fingerprint = database.contentFingerprint();
    for (const auto& event : database.loadEvents())
        report.eventCount += event.isDetachedOccurrence() ? 0 : 1;
    report.calendars = database.calendars();
    try {
        report.window = database.occurrences().window;
    } catch (const SQLiteError&) {
        // A database without a recorded occurrence cache is still worth showing.
    }
    if (withEvents) report.events = database.events(std::nullopt);
    return report;
}

template <typename T> json::Value orNull(const std::optional<T>& value) {
    return value ? json::Value(*value) : json::Value(nullptr);
}

json::Value eventJSON(const BackupEvent& event) {
    const auto& snapshot = event.snapshot;
    json::Value alarms = json::Value::array();
    for (const auto& alarm : snapshot.alarms)
        alarms.push_back(alarm.description());
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
        {"fingerprint", report.fingerprint},
        {"eventCount", report.eventCount},
        {"calendars", calendars},
        {"occurrenceWindow", report.window ? json::Value{{"start", json::isoDate(report.window->start)},
                                                         {"end", json::isoDate(report.window->end)}}
                                           : json::Value(nullptr)},
    };
    if (withEvents) {
        json::Value events = json::Value::array();
        for (const auto& event : report.events)
            events.push_back(eventJSON(event));
        document["events"] = std::move(events);
    }
    out << json::dump(document, true) << '\n';
}

void printText(const Report& report, bool withEvents, std::ostream& out) {
    out << "Fingerprint: " << report.fingerprint << '\n';
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
        if (event.masterRowID) out << "      detached from " << *event.masterRowID << '\n';
    }
}

} // namespace

int runInspect(const InspectOptions& options, std::ostream& out, std::ostream& err) {
    std::filesystem::path staged;
    try {
        // A stored restore point is decompressed into its staged copy; anything else is found
        // as a database file or a folder holding one, and copied.
        if (options.path.ends_with(".calsnap")) {
            staged = CalendarArchive::stageFile(paths::expandingTilde(options.path));
        } else {
            staged =
                BackupLocator::stageCopy(BackupLocator::findDatabase(options.path, UserFolders::current().userName()));
        }
        const auto report = read(staged, options.events);
        BackupLocator::removeStagedCopy(staged);
        options.json ? printJSON(report, options.events, out) : printText(report, options.events, out);
        return exitSuccess;
    } catch (const Error& error) {
        if (!staged.empty()) BackupLocator::removeStagedCopy(staged);
        err << "morvane: " << error.description() << '\n';
        return exitFailure;
    }
}

} // namespace morvane::cli
