#pragma once

#include "MorvaneCore/Shared/Date.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A small, forgiving reader of iCalendar text, made for getting events back out of files that
// other software wrote. It validates nothing and never fails: what it can't place is skipped.
// Everything here is pure computation and may run on any thread.
namespace morvane {

// One content line: NAME;PARAM=value:value.
struct ICalProperty {
    // Upper case, with any group prefix ("ITEM1.") cut off.
    std::string name;
    // Parameter names in upper case to their values, quotes removed, multi-values not split.
    std::map<std::string, std::string> params;
    // Everything after the separating colon, raw: nothing is unescaped.
    std::string value;

    // The parameter of that name, which is put into upper case first.
    std::optional<std::string> param(std::string_view parameterName) const;

    friend bool operator==(const ICalProperty&, const ICalProperty&) = default;
};

// A BEGIN/END block with its properties and nested blocks, both in file order.
class ICalComponent {
public:
    explicit ICalComponent(std::string name) : name_(std::move(name)) {}

    // The BEGIN value in upper case.
    const std::string& name() const { return name_; }

    std::vector<ICalProperty> properties;
    std::vector<ICalComponent> children;

    // The first property of exactly that name; callers pass upper case, nothing is folded.
    const ICalProperty* first(std::string_view name) const;
    std::vector<const ICalProperty*> all(std::string_view name) const;
    // The direct children of that name.
    std::vector<const ICalComponent*> components(std::string_view name) const;

    friend bool operator==(const ICalComponent&, const ICalComponent&) = default;

private:
    std::string name_;
};

namespace ICalParser {

// Components nested deeper than this are skipped with everything in them. Real files nest four
// deep at most; the cap keeps hostile input from building trees that can't be torn down without
// running out of stack.
inline constexpr size_t maximumDepth = 64;

// The top-level components of `text`, in file order. Components still open at the end of the text
// are dropped, so a file cut off in the middle gives only what was closed.
std::vector<ICalComponent> parse(std::string_view text);

// The logical lines of `text`: CR LF becomes LF, empty lines are dropped, and a line that starts
// with a space or a tab continues the one before, less that one character.
std::vector<std::string> unfold(std::string_view text);

// One logical line as a property; nothing for an empty line or one without a colon outside quotes.
std::optional<ICalProperty> parseLine(std::string_view line);

// A TEXT value unescaped: a backslash is dropped and the character after it copied, except that
// "\n" and "\N" become a line feed.
std::string text(std::string_view value);

} // namespace ICalParser

// A DATE or DATE-TIME value.
struct ICalDate {
    // The moment; for a date-only or a floating value, the wall-clock reading counted as UTC.
    Date date;
    // The value had the eight-digit form.
    bool isDateOnly = false;
    // "UTC" for a value with a Z, the resolved zone's identifier for a zoned value, absent for
    // date-only and floating values.
    std::optional<std::string> timeZone;

    // Reads yyyyMMdd, yyyyMMdd'T'HHmmss'Z' or yyyyMMdd'T'HHmmss, after trimming spaces and tabs.
    // A local time is read in the zone `tzid` names (an identifier of the zone database, else a
    // Windows zone name), and as floating when there is no `tzid` or it names no known zone. A
    // local time that a clock change skips is read with the offset from before the change, one
    // that it repeats as the later of the two. Anything that doesn't fit gives nothing.
    static std::optional<ICalDate> parse(std::string_view value, std::optional<std::string_view> tzid = std::nullopt);

    // The zone identifier for a zone name that Microsoft software writes into TZID, exact match
    // only, e.g. "Eastern Standard Time" gives "America/New_York".
    static std::optional<std::string> windowsZone(std::string_view name);

    friend bool operator==(const ICalDate&, const ICalDate&) = default;
};

// A DURATION value in seconds, e.g. "-PT15M" gives -900; nothing when it doesn't read.
std::optional<std::int64_t> iCalDuration(std::string_view text);

} // namespace morvane
