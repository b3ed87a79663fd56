#pragma once

#include "MorvanePlatform/EventStore/CalDAV/ICalendarResource.h"
#include "MorvanePlatform/EventStore/ZoneOffsets.h"

#include <ctime>
#include <libical/ical.h>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// What reading and editing a resource share: libical handles, zones and the reading of dates
// against a series' master. Internal to the CalDAV store.
namespace morvane::caldav::detail {

constexpr double secondsPerDay = 86400;

struct ComponentFree {
    void operator()(icalcomponent* component) const { icalcomponent_free(component); }
};
using Component = std::unique_ptr<icalcomponent, ComponentFree>;

// Errors are reported by return values, never by aborting.
void quietLibical();

using Zones = ZoneCache;

time_t unixSeconds(double wallClock);

struct TimeValue {
    double wall = 0;
    std::optional<std::string> zone;
    bool isDate = false;
    // The moment for a zoned value.
    double moment = 0;
};

std::optional<TimeValue> readTime(icalproperty* property, icalcomponent* owner, Zones& zones);
// A value stored as the dates of a master with `zone` are, whose start's wall clock is
// `masterWall` (a date alone takes the master's time of day).
double storedAs(const TimeValue& value, const std::optional<std::string>& zone, double masterWall, Zones& zones);

std::optional<EKRecurrenceRule> readRule(icalcomponent* event, const EventFields& master, Zones& zones);
// Throws EventStoreError for an event without a usable start.
EventFields readFields(icalcomponent* event, Zones& zones);

// A VCALENDAR (a bare VEVENT comes wrapped in one). Throws EventStoreError with the reason.
Component parse(const std::string& text);

// The master's wall-clock start and zone, which exception dates and overrides are read against.
struct MasterClock {
    std::optional<std::string> zone;
    double wall = 0;
    bool allDay = false;
};

MasterClock masterClock(icalcomponent* master, Zones& zones);
// The UID of the resource's first event; empty when it has none.
std::string uidOf(icalcomponent* calendar);
// The events of the resource's UID: the master (null when absent) and the overrides.
std::pair<icalcomponent*, std::vector<icalcomponent*>> eventsOf(icalcomponent* calendar, const std::string& uid);

} // namespace morvane::caldav::detail
