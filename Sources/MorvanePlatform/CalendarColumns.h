#pragma once

#include "MorvanePlatform/EventKit.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The codecs of the calendar database's columns: pure functions from stored values to the
// platform's values and back. The local event store and the core's database reader both read
// rows through them, so that a row reads alike whichever of them reads it. Nothing here throws:
// a stored value that can't be read is a damaged row, read forgivingly. Any thread, concurrently.
namespace morvane::calendarColumns {

// What `start_tz` and `end_tz` hold for a floating time.
inline constexpr std::string_view floatingZone = "_float";

// The zone of a `start_tz` or `end_tz` value; nothing for a floating time, which is marked by
// "_float", by an empty text or by no value at all.
std::optional<std::string> zoneOf(std::optional<std::string> stored);

// The two-letter code of a weekday, 1 Sunday up to 7 Saturday ("SU" to "SA"), as specifiers and
// RRULE text write them; empty out of that range.
std::string_view weekdayCode(std::int64_t weekday);
// The weekday of a two-letter code in upper case; nothing for any other text.
std::optional<int> weekdayOfCode(std::string_view code);

// A Recurrence row read.
struct RecurrenceReading {
    // The lists in the order written, absent when empty.
    EKRecurrenceRule rule;
    // The specifier's pieces that no field of the rule could take, as they stand, in order: a
    // piece without both a key and a value ("M=", "X"), one with an unknown key ("Q=1"), and each
    // day that doesn't read, with its key ("D=xMO"). Unreadable items of the other lists go
    // without a trace.
    std::vector<std::string> unreadPieces;
};

// A rule from the columns of a Recurrence row: nothing for a frequency code other than 1 (daily)
// to 4 (yearly), and only then. The interval is held to 1 up to 1,000,000 and a count of 1 or more
// (held to 1,000,000,000) wins over `endDate`. The specifier reads "D=0MO,-1FR;M=15;O=3;W=10;Y=100;S=-1":
// the D pieces add up, of the other keys the last piece wins, and a number that isn't a plain
// 32-bit decimal doesn't read.
std::optional<RecurrenceReading> readRecurrence(std::int64_t frequency, std::int64_t interval, std::int64_t count,
                                                std::optional<double> endDate,
                                                std::optional<std::string_view> specifier);

// The specifier of a rule, each key only when its list has items; nothing when none has. Reads
// back with `readRecurrence` as the same lists, for weekdays 1 to 7.
std::optional<std::string> specifierText(const EKRecurrenceRule& rule);

// The location of an event as one text, from the Location row's title and address: the title,
// then the address without a repeat of the title, on separate lines; nothing when both are empty.
std::optional<std::string> locationText(const std::optional<std::string>& title,
                                        const std::optional<std::string>& address);

// The components (red, green, blue, alpha, each 0 to 1) of a calendar's "#RRGGBB" or "#RRGGBBAA"
// colour; nothing for any other text.
std::optional<std::vector<double>> colorComponents(const std::optional<std::string>& stored);

} // namespace morvane::calendarColumns
