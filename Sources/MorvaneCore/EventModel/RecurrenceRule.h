#pragma once

#include "MorvaneCore/Shared/Date.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvanePlatform/EventKit.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace morvane {

// The one form in which a repeating event's rule travels through the system, whatever it came
// from: a row of the calendar database, an RRULE of an .ics file, or the event store. Nothing is
// dropped that could tell two rules apart: what the readers can't place is kept in `unparsed`.
// Equality covers every field, lists in order, which is why both readers leave the lists sorted.
struct RecurrenceRule {
    // Raw values are the frequency codes of the calendar database.
    enum class Frequency : std::int64_t { daily = 1, weekly = 2, monthly = 3, yearly = 4 };

    // A weekday in a period: `weekday` 1 is Sunday up to 7, Saturday; `week` 0 is every such
    // weekday, n the n-th, -1 the last. Ordered by `week`, then by `weekday`.
    struct Day {
        std::int64_t weekday = 1;
        std::int64_t week = 0;

        friend bool operator==(const Day&, const Day&) = default;
        friend auto operator<=>(const Day& a, const Day& b) {
            if (auto byWeek = a.week <=> b.week; byWeek != 0) return byWeek;
            return a.weekday <=> b.weekday;
        }
    };

    // After a number of occurrences, or at a date.
    struct End {
        struct Count {
            std::int64_t value = 0;
            friend bool operator==(const Count&, const Count&) = default;
        };
        struct Until {
            Date date;
            friend bool operator==(const Until&, const Until&) = default;
        };

        std::variant<Count, Until> value;

        static End count(std::int64_t count) { return {Count{count}}; }
        static End until(Date date) { return {Until{date}}; }

        friend bool operator==(const End&, const End&) = default;
    };

    // The two-letter codes of the weekdays: "SU" 1 up to "SA" 7.
    static const std::map<std::string, std::int64_t, std::less<>>& dayCodes();

    Frequency frequency = Frequency::daily;
    std::int64_t interval = 1;
    std::vector<Day> daysOfWeek;
    std::vector<std::int64_t> daysOfMonth;
    std::vector<std::int64_t> monthsOfYear;
    std::vector<std::int64_t> weeksOfYear;
    std::vector<std::int64_t> daysOfYear;
    std::vector<std::int64_t> setPositions;
    std::optional<End> end;
    // The pieces that no field could take, joined by ";".
    std::optional<std::string> unparsed;

    // A rule with empty lists, no end and nothing unparsed; an interval below 1 becomes 1.
    RecurrenceRule(Frequency frequency, std::int64_t interval);

    // From the columns of a `Recurrence` row: nothing for a frequency code other than 1 to 4, and
    // only then. A count of 1 or more wins over `endDate` (seconds since 2001); the specifier
    // ("D=0MO,-1FR;M=15") keeps every malformed piece in `unparsed`. Read as the event store reads
    // it (`calendarColumns::readRecurrence`), so the two agree on every field they share.
    static std::optional<RecurrenceRule> fromDatabase(std::int64_t dbFrequency, std::int64_t interval,
                                                      std::int64_t count, std::optional<double> endDate,
                                                      std::optional<std::string_view> specifier);

    // From RRULE text without its "RRULE:" prefix: nothing without a usable FREQ. UNTIL is read in
    // `tzid` when it is a local time. Pieces without a value are dropped; unknown keys and bad
    // days go to `unparsed`; WKST is dropped on purpose.
    static std::optional<RecurrenceRule> fromRRule(std::string_view rrule,
                                                   std::optional<std::string_view> tzid = std::nullopt);

    // From the platform's rule: its frequency, an interval of at least 1, every list (absent as
    // empty, sorted), and an end by count when it has one of 1 or more, else by its end date.
    // Never `unparsed`.
    static RecurrenceRule fromEK(const EKRecurrenceRule& rule);

    // The platform's rule that re-creates this one: empty lists become absent ones. Throws
    // RestoreError "unsupported recurrence part {unparsed}" for a rule with unparsed pieces and
    // "bad weekday {n}" for a weekday outside 1 to 7.
    EKRecurrenceRule ekRule() const;

    // A stable one-line text for showing and comparing rules, close to RRULE but not RRULE when it
    // has an until date: "FREQ=WEEKLY;INTERVAL=2;BYDAY=-1FR,1MO;UNTIL=2026-03-01T12:00:00Z".
    std::string description() const;

    // The JSON form, dates written with `dates`. Decoding fails with `json::DecodingError`.
    json::Ordered json(json::DateEncoding dates) const;
    static RecurrenceRule fromJson(const json::Ordered& value, json::DateEncoding dates, const std::string& path = {});

    friend bool operator==(const RecurrenceRule&, const RecurrenceRule&) = default;
};

} // namespace morvane

template <> struct std::hash<morvane::RecurrenceRule> {
    size_t operator()(const morvane::RecurrenceRule& rule) const noexcept;
};
