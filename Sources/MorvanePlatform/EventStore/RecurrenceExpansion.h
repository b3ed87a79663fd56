#pragma once

#include "MorvanePlatform/EventKit.h"

#include <functional>
#include <optional>
#include <string>

// Expansion of recurrence rules on the wall clock, through libical. Wall-clock times are read as
// UTC and counted in seconds since 2001, so that a weekly 09:00 stays at 09:00 whatever the
// zone does; callers turn them into moments in the event's zone.
namespace morvane::recurrence {

// Whether every value of the rule lies in its field's range (weekdays 1 to 7, months 1 to 12,
// ...) and the interval is at least 1.
bool isValid(const EKRecurrenceRule& rule);

// The rule as RRULE text, with UNTIL as a floating time when `untilWallClock` is given instead
// of the rule's end date. Values out of range are left out.
std::string rruleText(const EKRecurrenceRule& rule, std::optional<double> untilWallClock);

// Calls `visit` with the wall-clock start of each occurrence of a series that starts at
// `startWallClock`, in order, from the first at or after `from` up to before `to`, until `visit`
// says stop by returning false. A rule libical can't read gives the series' start alone. Stops
// after a fixed number of steps, so a rule that never matches can't hang the caller.
void expand(const EKRecurrenceRule& rule, double startWallClock, std::optional<double> untilWallClock, double from,
            double to, const std::function<bool(double)>& visit);

// The two ways `expand` takes. The plain shapes of rule (every n days; every n weeks, on given
// weekdays or not; every n months on the start's day; every n years on its date) are calendar
// arithmetic, many times faster than libical's iterator; `expandPlainly` does those, giving the
// same occurrences, and returns false without visiting anything for every other rule.
bool expandPlainly(const EKRecurrenceRule& rule, double startWallClock, std::optional<double> untilWallClock,
                   double from, double to, const std::function<bool(double)>& visit);
void expandWithLibical(const EKRecurrenceRule& rule, double startWallClock, std::optional<double> untilWallClock,
                       double from, double to, const std::function<bool(double)>& visit);

} // namespace morvane::recurrence
