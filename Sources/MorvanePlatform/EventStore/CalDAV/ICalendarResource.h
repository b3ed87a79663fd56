#pragma once

#include "MorvanePlatform/EventKit.h"

#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace morvane {
struct ZoneCache;
}

// The iCalendar text of a CalDAV resource, through libical both ways: one series (a master with
// its rule and exception dates, and its overrides) or one single event per resource. Writing
// edits the resource's own text, so that what the store doesn't model (attendees, categories,
// other components) survives a rewrite.
//
// Dates are kept "stored": a zoned event's moments, a floating or all-day event's wall clock
// read as UTC, both in seconds since 2001, so that an occurrence's key is its stored original
// date rounded, as the local event store forms it. TZIDs that aren't IANA names (a vendor's
// prefix, a Windows name) are mapped to one; a zone that can't be mapped is read through the
// resource's VTIMEZONE as UTC. All-day events end a second before their DTEND.
namespace morvane::caldav {

struct EventFields {
    std::optional<std::string> title;
    std::optional<std::string> location;
    std::optional<std::string> notes;
    std::optional<std::string> url;
    double start = 0;
    double end = 0;
    // Absent for a floating or all-day event.
    std::optional<std::string> zone;
    bool allDay = false;
    std::vector<EKAlarm> alarms;
    bool hasAttendees = false;
    std::optional<double> lastModified;
    // An override's original start, stored as the master's dates are.
    std::optional<double> recurrenceID;
};

struct SeriesResource {
    std::string uid;
    // Absent when the resource holds only overrides of a series kept elsewhere.
    std::optional<EventFields> master;
    std::optional<EKRecurrenceRule> rule;
    // Keys of the deleted occurrences.
    std::set<std::int64_t> exceptions;
    std::vector<EventFields> overrides;
};

inline std::int64_t occurrenceKey(double stored) { return std::llround(stored); }

// Reads a resource. Throws EventStoreError with the reason when libical can't read it or it
// holds no VEVENT.
SeriesResource readResource(const std::string& text);
// The same with the caller's zones, for reading many resources.
SeriesResource readResource(const std::string& text, ZoneCache& zones);

// A resource's text being rewritten. Every member throws EventStoreError for text that can't be
// read.
class ResourceEditor {
public:
    // A new resource holding `event` alone, with `uid`.
    ResourceEditor(const EKEvent& event, const std::string& uid);
    explicit ResourceEditor(const std::string& text);
    ~ResourceEditor();
    ResourceEditor(const ResourceEditor&) = delete;
    ResourceEditor& operator=(const ResourceEditor&) = delete;

    // The master's fields and rule from `event`.
    void setMaster(const EKEvent& event);
    // The override of the occurrence at `original` (stored), added or replaced.
    void setOverride(double original, const EKEvent& event);
    // Deletes the occurrence at `original`: its override goes, an exception date comes.
    void removeOccurrence(double original);
    // Ends the series before the occurrence at `original`, with the exception dates and
    // overrides from there on.
    void endBefore(double original);

    std::string text() const;

    struct Parts;

private:
    std::unique_ptr<Parts> parts_;
};

} // namespace morvane::caldav
