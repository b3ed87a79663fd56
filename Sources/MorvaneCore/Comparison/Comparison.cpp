#include "MorvaneCore/Comparison/Comparison.h"

#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/Shared/Text.h"
#include "MorvaneCore/Shared/TimeZones.h"

#include <sstream>

namespace morvane {
namespace {

// The moment a date of the snapshot stands for: a floating one's wall clock in the current zone.
Date instant(const EventSnapshot& snapshot, Date date) {
    return snapshot.isFloating() ? zones::instantOfWallClock(date) : date;
}

json::Ordered eventJSON(const BackupEvent& event) {
    const auto& snapshot = event.snapshot;
    return {
        {"id", event.rowID},
        {"uid", event.uniqueIdentifier},
        {"title", snapshot.title},
        {"start", dates::iso8601(instant(snapshot, snapshot.start))},
        {"end", dates::iso8601(instant(snapshot, snapshot.end))},
        {"isAllDay", snapshot.isAllDay},
        {"isFloating", snapshot.isFloating()},
        {"calendar", event.calendar.displayName()},
        {"recurrence", snapshot.recurrence ? json::Ordered(snapshot.recurrence->description()) : json::Ordered()},
    };
}

json::Ordered changesJSON(const std::vector<FieldChange>& changes) {
    json::Ordered list = json::Ordered::array();
    for (const auto& change : changes)
        list.push_back({{"field", change.field}, {"old", change.old}, {"new", change.new_}});
    return list;
}

std::string eventLine(const BackupEvent& event) {
    return "[" + std::to_string(event.rowID) + "] " + event.snapshot.title + "  " + event.snapshot.startText() + "  " +
           event.calendar.displayName();
}

// An empty value is one the event doesn't have; a value of several lines (a place's name and
// address) is shown on one.
std::string shown(const std::string& value) {
    if (value.empty()) return "(none)";
    const auto lines = text::replacingAll(value, "\r", "\n");
    std::string line;
    for (const auto piece : text::nonEmptyLines(lines)) {
        if (!line.empty()) line += ", ";
        line += piece;
    }
    return line;
}

void printChanges(std::ostream& out, const std::vector<FieldChange>& changes) {
    for (const auto& change : changes)
        out << "      " << change.field << ": backup " << shown(change.old) << " / now " << shown(change.new_) << '\n';
}

} // namespace

Comparison Comparison::of(const BackupSource& source, std::string databasePath, const std::vector<BackupEvent>& events,
                          const std::optional<OccurrenceSet>& occurrences, CurrentEventSource& current) {
    auto missing = Differ::missing(events, current);
    auto changes = Differ::changes(events, occurrences, current);
    return {source,
            std::move(databasePath),
            std::move(missing),
            std::move(changes),
            static_cast<std::int64_t>(events.size()),
            occurrences.has_value()};
}

std::string Comparison::asJSON() const {
    json::Ordered missingList = json::Ordered::array();
    for (const auto& event : missing.missing) {
        auto entry = eventJSON(event);
        json::Ordered detached = json::Ordered::array();
        if (const auto found = missing.detachedOccurrences.find(event.rowID);
            found != missing.detachedOccurrences.end()) {
            for (const auto& occurrence : found->second)
                detached.push_back(eventJSON(occurrence));
        }
        entry["detachedOccurrences"] = std::move(detached);
        missingList.push_back(std::move(entry));
    }
    json::Ordered restored = json::Ordered::array();
    for (const auto& event : missing.restoredCopies)
        restored.push_back(eventJSON(event));
    json::Ordered changed = json::Ordered::array();
    for (const auto& event : changes.changed)
        changed.push_back({{"event", eventJSON(event.backup)}, {"changes", changesJSON(event.changes)}});
    json::Ordered occurrenceChanges = json::Ordered::array();
    for (const auto& change : changes.occurrenceChanges) {
        occurrenceChanges.push_back({
            {"id", change.id()},
            {"master", eventJSON(change.master)},
            {"originalDate", dates::iso8601(change.displayDate())},
            {"occurrenceKey", change.originalDate.occurrenceKey()},
            {"kind", change.kindText()},
            {"changes", changesJSON(change.kind.changes)},
            {"backupDetached", change.backupDetached ? eventJSON(*change.backupDetached) : json::Ordered()},
        });
    }
    json::Ordered window;
    if (changes.occurrenceWindow) {
        window = {{"start", dates::iso8601(changes.occurrenceWindow->start)},
                  {"end", dates::iso8601(changes.occurrenceWindow->end)}};
    }
    const json::Ordered document = {
        {"source", json::Ordered(source.json())}, {"backupEventCount", backupEventCount},
        {"missing", std::move(missingList)},      {"restoredCopies", std::move(restored)},
        {"changed", std::move(changed)},          {"occurrenceChanges", std::move(occurrenceChanges)},
        {"occurrenceWindow", std::move(window)},  {"seriesSkipped", changes.seriesSkipped},
    };
    return json::dumpKeepingOrder(document, true) + '\n';
}

std::string Comparison::asText() const {
    std::ostringstream out;
    out << "Backup: " << source.title() << " (" << source.subtitle() << ")\n";
    out << backupEventCount << " events in the backup: " << missing.missing.size() << " missing, "
        << missing.restoredCopies.size() << " restored before, " << changes.changed.size() << " changed, "
        << changes.occurrenceChanges.size() << " occurrence changes.\n";
    if (changes.occurrenceWindow) {
        out << "Occurrences compared from " << EventSnapshot::format(changes.occurrenceWindow->start, false, false)
            << " to " << EventSnapshot::format(changes.occurrenceWindow->end, false, false) << ".\n";
    } else if (!hasOccurrenceCache) {
        out << "This backup has no occurrence cache: deleted occurrences of repeating events can't be told, only "
               "edited ones.\n";
    }
    if (changes.seriesSkipped > 0) {
        out << changes.seriesSkipped
            << " repeating events whose start, all-day setting or rule changed weren't compared occurrence by "
               "occurrence.\n";
    }

    if (!missing.missing.empty()) {
        out << "\nMissing\n";
        for (const auto& event : missing.missing) {
            out << "  " << eventLine(event) << '\n';
            if (event.snapshot.recurrence) out << "      repeats: " << event.snapshot.recurrence->description() << '\n';
            if (const auto found = missing.detachedOccurrences.find(event.rowID);
                found != missing.detachedOccurrences.end()) {
                for (const auto& occurrence : found->second)
                    out << "      edited occurrence: " << eventLine(occurrence) << '\n';
            }
        }
    }
    if (!missing.restoredCopies.empty()) {
        out << "\nRestored before\n";
        for (const auto& event : missing.restoredCopies)
            out << "  " << eventLine(event) << '\n';
    }
    if (!changes.changed.empty()) {
        out << "\nChanged\n";
        for (const auto& event : changes.changed) {
            out << "  " << eventLine(event.backup) << '\n';
            printChanges(out, event.changes);
        }
    }
    if (!changes.occurrenceChanges.empty()) {
        out << "\nOccurrences\n";
        for (const auto& change : changes.occurrenceChanges) {
            out << "  " << change.dateText() << "  " << change.kindText() << "  [" << change.master.rowID << "] "
                << change.master.snapshot.title << '\n';
            printChanges(out, change.kind.changes);
        }
    }
    return out.str();
}

} // namespace morvane
