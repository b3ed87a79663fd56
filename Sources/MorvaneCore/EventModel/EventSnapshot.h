#pragma once

#include "MorvaneCore/EventModel/RecurrenceRule.h"
#include "MorvaneCore/Shared/Date.h"
#include "MorvaneCore/Shared/Json.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace morvane {

// One alarm: a whole signed number of seconds from the event's start (negative is before it), or
// a fixed moment. Sorted by `<`: every relative alarm before every absolute one, relative ones
// earliest offset first, absolute ones by date.
class AlarmSpec {
public:
    enum class Case : std::uint8_t { relative = 0, absolute = 1 };

    static AlarmSpec relative(std::int64_t seconds) { return AlarmSpec(Case::relative, seconds, {}); }
    static AlarmSpec absolute(Date date) { return AlarmSpec(Case::absolute, 0, date); }

    Case which() const { return which_; }
    // The offset of a relative alarm; 0 for an absolute one.
    std::int64_t seconds() const { return seconds_; }
    // The moment of an absolute alarm; the reference date for a relative one.
    Date date() const { return date_; }

    // The wording of the alarm: "at start", "15m before", "2d after", "at 2024-03-01 14:30". The
    // unit is chosen on whole minutes and leftover seconds are dropped, so -3659 reads 1h before
    // and an offset under a minute reads 0d.
    std::string description() const;

    // The JSON form {"relative":{"_0":-900}} or {"absolute":{"_0":<date>}}. Decoding an object
    // without exactly one case key fails with "Invalid number of keys found, expected one."
    json::Ordered json(json::DateEncoding dates) const;
    static AlarmSpec fromJson(const json::Ordered& value, json::DateEncoding dates, const std::string& path = {});

    friend bool operator==(const AlarmSpec& a, const AlarmSpec& b) {
        if (a.which_ != b.which_) return false;
        return a.which_ == Case::relative ? a.seconds_ == b.seconds_ : a.date_ == b.date_;
    }
    // By a key that is the offset for a relative alarm and the seconds since 2001 plus 1e12 for an
    // absolute one. The other comparisons derive from this one.
    friend bool operator<(const AlarmSpec& a, const AlarmSpec& b) { return a.sortKey() < b.sortKey(); }
    friend bool operator>(const AlarmSpec& a, const AlarmSpec& b) { return b < a; }
    friend bool operator<=(const AlarmSpec& a, const AlarmSpec& b) { return !(b < a); }
    friend bool operator>=(const AlarmSpec& a, const AlarmSpec& b) { return !(a < b); }

private:
    AlarmSpec(Case which, std::int64_t seconds, Date date) : which_(which), seconds_(seconds), date_(date) {}

    double sortKey() const;

    Case which_;
    std::int64_t seconds_;
    Date date_;
};

// One reported difference. `old` is the value of the snapshot whose `changes` ran, `new_` (a
// keyword without its underscore) that of its argument.
struct FieldChange {
    // The label of the field: "title", "all-day", "start", ...
    std::string field;
    std::string old;
    std::string new_;

    friend bool operator==(const FieldChange&, const FieldChange&) = default;
};

// Which of the optional fields `changes` compares; all by default.
struct CompareOptions {
    bool recurrence = true;
    bool calendar = true;
    bool alarms = true;

    friend bool operator==(const CompareOptions&, const CompareOptions&) = default;
};

// The comparable form of a calendar event, whatever its origin. Floating events have no
// `timeZone` and hold their wall-clock reading as if it were UTC.
struct EventSnapshot {
    std::string title;
    Date start;
    Date end;
    bool isAllDay = false;
    std::optional<std::string> timeZone;
    std::optional<std::string> location;
    std::optional<std::string> notes;
    std::optional<std::string> url;
    std::optional<std::string> calendarUUID;
    std::string calendarName;
    std::optional<RecurrenceRule> recurrence;
    // Sorted ascending by `AlarmSpec` `<` by whoever makes the snapshot.
    std::vector<AlarmSpec> alarms;

    bool isFloating() const { return !timeZone.has_value(); }
    std::string startText() const { return format(start, isFloating(), isAllDay); }

    // The differences from this snapshot to `to`, in a fixed order: title, all-day, start, end,
    // location, notes, url, then calendar, recurrence and alarms as `options` allow. Texts are
    // compared trimmed and by canonical equivalence, absent as empty; a date changes only when it
    // moved by a second or more and its displayed text differs. Empty means the same.
    std::vector<FieldChange> changes(const EventSnapshot& to, const CompareOptions& options = {}) const;

    // A date as shown in reports: "2024-03-01 14:30", or "2024-03-01 (all day)" when `allDay`; in
    // UTC when `floating`, else in the machine's current zone. Builds a formatter on each call.
    static std::string format(Date date, bool floating, bool allDay);

    // The JSON form, keys in field order, absent optional fields left out; dates written with
    // `dates`. Decoding fails with `json::DecodingError`.
    json::Ordered json(json::DateEncoding dates) const;
    static EventSnapshot fromJson(const json::Ordered& value, json::DateEncoding dates, const std::string& path = {});

    friend bool operator==(const EventSnapshot&, const EventSnapshot&) = default;
};

} // namespace morvane

template <> struct std::hash<morvane::AlarmSpec> { size_t operator()(const morvane::AlarmSpec& alarm) const noexcept; };
