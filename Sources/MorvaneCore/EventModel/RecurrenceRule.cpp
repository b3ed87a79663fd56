// Two readers with a deliberate asymmetry. The database's specifier is our own platform's format,
// so every malformed piece is kept whole in `unparsed`: a rule that we can't read must still
// compare unequal to one that differs in it. RRULE text comes from any producer, so pieces
// without a value are noise and dropped, and only unknown keys and unreadable days are kept.
// Integer lists drop unreadable items in both.
#include "MorvaneCore/EventModel/RecurrenceRule.h"

#include "MorvaneCore/IcsArchives/ICalendar.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Text.h"
#include "MorvanePlatform/CalendarColumns.h"

#include <algorithm>
#include <unicode/utf8.h>

namespace morvane {
namespace {

using Frequency = RecurrenceRule::Frequency;
using Day = RecurrenceRule::Day;

constexpr std::int64_t endOfDaySeconds = 86399;

std::optional<Frequency> frequencyOf(std::int64_t code) {
    if (code < 1 || code > 4) return std::nullopt;
    return static_cast<Frequency>(code);
}

std::string_view frequencyName(Frequency frequency) {
    switch (frequency) {
    case Frequency::daily: return "DAILY";
    case Frequency::weekly: return "WEEKLY";
    case Frequency::monthly: return "MONTHLY";
    case Frequency::yearly: return "YEARLY";
    }
    return "DAILY";
}

std::optional<std::int64_t> weekdayOf(std::string_view code) { return calendarColumns::weekdayOfCode(code); }

std::vector<std::int64_t> integers(const std::vector<std::string_view>& items) {
    std::vector<std::int64_t> values;
    for (const auto item : items) {
        if (const auto value = text::integer(item)) values.push_back(*value);
    }
    return values;
}

void sortLists(RecurrenceRule& rule) {
    std::sort(rule.daysOfWeek.begin(), rule.daysOfWeek.end());
    for (auto* list :
         {&rule.daysOfMonth, &rule.monthsOfYear, &rule.weeksOfYear, &rule.daysOfYear, &rule.setPositions}) {
        std::sort(list->begin(), list->end());
    }
}

std::optional<std::string> joined(const std::vector<std::string>& parts, std::string_view separator) {
    if (parts.empty()) return std::nullopt;
    std::string result = parts.front();
    for (size_t i = 1; i < parts.size(); ++i)
        result.append(separator).append(parts[i]);
    return result;
}

// A day of BYDAY: an optional week, then a code in any case. The code is the last two
// characters (code points), so a stray multi-byte character can't be cut in half.
std::optional<Day> rruleDay(std::string_view item) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(item.data());
    int32_t codeStart = static_cast<int32_t>(item.size());
    for (int back = 0; back < 2 && codeStart > 0; ++back)
        U8_BACK_1(bytes, 0, codeStart);
    const auto split = static_cast<size_t>(codeStart);
    const auto weekday = weekdayOf(text::uppercased(item.substr(split)));
    if (!weekday) return std::nullopt;
    const auto prefix = item.substr(0, split);
    if (prefix.empty()) return Day{*weekday, 0};
    const auto week = text::integer(prefix);
    if (!week) return std::nullopt;
    return Day{*weekday, *week};
}

std::string joinedIntegers(const std::vector<std::int64_t>& values) {
    std::string result;
    for (size_t i = 0; i < values.size(); ++i) {
        if (i > 0) result.push_back(',');
        result.append(std::to_string(values[i]));
    }
    return result;
}

json::Ordered integerList(const std::vector<std::int64_t>& values) {
    auto list = json::Ordered::array();
    for (const auto value : values)
        list.push_back(value);
    return list;
}

const json::Ordered& arrayAt(const json::ObjectReader& reader, std::string_view key) {
    return json::array(reader.required(key), reader.pathOf(key));
}

std::vector<std::int64_t> integerListAt(const json::ObjectReader& reader, std::string_view key) {
    const auto& list = arrayAt(reader, key);
    const auto path = reader.pathOf(key);
    std::vector<std::int64_t> values;
    values.reserve(list.size());
    for (size_t i = 0; i < list.size(); ++i)
        values.push_back(json::integer(list[i], json::indexPath(path, i)));
    return values;
}

RecurrenceRule::End endFromJson(const json::Ordered& value, json::DateEncoding dates, const std::string& path) {
    const json::ObjectReader reader(value, path);
    const bool hasCount = reader.object().contains("count");
    const bool hasUntil = reader.object().contains("until");
    if (hasCount == hasUntil) {
        throw json::DecodingError(json::DecodingError::Case::typeMismatch, path,
                                  "Invalid number of keys found, expected one.");
    }
    const auto key = hasCount ? "count" : "until";
    const json::ObjectReader payload(reader.object().at(key), reader.pathOf(key));
    const auto& inner = payload.required("_0");
    if (hasCount) return RecurrenceRule::End::count(json::integer(inner, payload.pathOf("_0")));
    return RecurrenceRule::End::until(json::date(inner, dates, payload.pathOf("_0")));
}

} // namespace

const std::map<std::string, std::int64_t, std::less<>>& RecurrenceRule::dayCodes() {
    static const auto codes = [] {
        std::map<std::string, std::int64_t, std::less<>> made;
        for (std::int64_t weekday = 1; weekday <= 7; ++weekday)
            made.emplace(calendarColumns::weekdayCode(weekday), weekday);
        return made;
    }();
    return codes;
}

RecurrenceRule::RecurrenceRule(Frequency frequencyOfRule, std::int64_t intervalOfRule)
    : frequency(frequencyOfRule), interval(std::max<std::int64_t>(intervalOfRule, 1)) {}

std::optional<RecurrenceRule> RecurrenceRule::fromDatabase(std::int64_t dbFrequency, std::int64_t interval,
                                                           std::int64_t count, std::optional<double> endDate,
                                                           std::optional<std::string_view> specifier) {
    // The event store reads its rows through the same reader: a row gives the same rule either way.
    const auto reading = calendarColumns::readRecurrence(dbFrequency, interval, count, endDate, specifier);
    if (!reading) return std::nullopt;
    auto rule = fromEK(reading->rule);
    rule.unparsed = joined(reading->unreadPieces, ";");
    return rule;
}

RecurrenceRule RecurrenceRule::fromEK(const EKRecurrenceRule& ek) {
    // The platform counts frequencies from 0, the database from 1; anything else reads as daily.
    const auto frequency = frequencyOf(static_cast<std::int64_t>(ek.frequency) + 1).value_or(Frequency::daily);
    RecurrenceRule rule(frequency, ek.interval);
    for (const auto& day : ek.daysOfTheWeek.value_or(std::vector<EKRecurrenceDayOfWeek>{}))
        rule.daysOfWeek.push_back(Day{day.dayOfTheWeek, day.weekNumber});
    const std::pair<const std::optional<std::vector<int>>*, std::vector<std::int64_t>*> lists[] = {
        {&ek.daysOfTheMonth, &rule.daysOfMonth}, {&ek.monthsOfTheYear, &rule.monthsOfYear},
        {&ek.weeksOfTheYear, &rule.weeksOfYear}, {&ek.daysOfTheYear, &rule.daysOfYear},
        {&ek.setPositions, &rule.setPositions},
    };
    for (const auto& [from, to] : lists) {
        if (*from) to->assign((*from)->begin(), (*from)->end());
    }
    if (ek.recurrenceEnd) {
        if (ek.recurrenceEnd->occurrenceCount >= 1) {
            rule.end = End::count(ek.recurrenceEnd->occurrenceCount);
        } else if (ek.recurrenceEnd->endDate) {
            rule.end = End::until(Date{*ek.recurrenceEnd->endDate});
        }
    }
    sortLists(rule);
    return rule;
}

EKRecurrenceRule RecurrenceRule::ekRule() const {
    if (unparsed) throw RestoreError("unsupported recurrence part " + *unparsed);
    EKRecurrenceRule ek;
    ek.frequency = static_cast<EKRecurrenceFrequency>(static_cast<std::int64_t>(frequency) - 1);
    ek.interval = static_cast<int>(interval);
    if (!daysOfWeek.empty()) {
        ek.daysOfTheWeek.emplace();
        for (const auto& day : daysOfWeek) {
            if (day.weekday < 1 || day.weekday > 7) throw RestoreError("bad weekday " + std::to_string(day.weekday));
            ek.daysOfTheWeek->push_back(
                EKRecurrenceDayOfWeek::dayOfWeek(static_cast<int>(day.weekday), static_cast<int>(day.week)));
        }
    }
    // The store treats an empty list as a constraint that nothing meets on some platforms; absent
    // is the only safe way to say "no constraint".
    const std::pair<const std::vector<std::int64_t>*, std::optional<std::vector<int>>*> lists[] = {
        {&daysOfMonth, &ek.daysOfTheMonth}, {&monthsOfYear, &ek.monthsOfTheYear}, {&weeksOfYear, &ek.weeksOfTheYear},
        {&daysOfYear, &ek.daysOfTheYear},   {&setPositions, &ek.setPositions},
    };
    for (const auto& [from, to] : lists) {
        if (!from->empty()) to->emplace(from->begin(), from->end());
    }
    if (end) {
        if (const auto* count = std::get_if<End::Count>(&end->value)) {
            ek.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(static_cast<int>(count->value));
        } else {
            ek.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithEndDate(std::get<End::Until>(end->value).date.seconds);
        }
    }
    return ek;
}

std::optional<RecurrenceRule> RecurrenceRule::fromRRule(std::string_view rrule, std::optional<std::string_view> tzid) {
    std::map<std::string, std::string> values;
    for (const auto piece : text::nonEmptyPieces(rrule, ';')) {
        const auto sides = text::splittingOnce(piece, '=');
        if (sides.size() != 2) continue;
        values.insert_or_assign(text::uppercased(sides[0]), std::string(sides[1]));
    }
    auto valueOf = [&](std::string_view key) -> const std::string* {
        const auto found = values.find(std::string(key));
        return found == values.end() ? nullptr : &found->second;
    };

    const auto* frequencyText = valueOf("FREQ");
    if (!frequencyText) return std::nullopt;
    const auto name = text::uppercased(*frequencyText);
    std::optional<Frequency> frequency;
    if (name == "DAILY")
        frequency = Frequency::daily;
    else if (name == "WEEKLY")
        frequency = Frequency::weekly;
    else if (name == "MONTHLY")
        frequency = Frequency::monthly;
    else if (name == "YEARLY")
        frequency = Frequency::yearly;
    else
        return std::nullopt;

    std::int64_t interval = 1;
    if (const auto* intervalText = valueOf("INTERVAL")) interval = text::integer(*intervalText).value_or(1);
    RecurrenceRule rule(*frequency, interval);

    std::vector<std::string> unparsed;
    if (const auto* byDay = valueOf("BYDAY")) {
        for (const auto item : text::nonEmptyPieces(*byDay, ',')) {
            if (const auto day = rruleDay(item)) {
                rule.daysOfWeek.push_back(*day);
            } else {
                unparsed.push_back("BYDAY=" + std::string(item));
            }
        }
    }
    const std::pair<std::string_view, std::vector<std::int64_t>*> lists[] = {
        {"BYMONTHDAY", &rule.daysOfMonth}, {"BYMONTH", &rule.monthsOfYear},  {"BYWEEKNO", &rule.weeksOfYear},
        {"BYYEARDAY", &rule.daysOfYear},   {"BYSETPOS", &rule.setPositions},
    };
    for (const auto& [key, list] : lists) {
        if (const auto* items = valueOf(key)) *list = integers(text::nonEmptyPieces(*items, ','));
    }

    const auto* countText = valueOf("COUNT");
    if (const auto count = countText ? text::integer(*countText) : std::nullopt) {
        rule.end = End::count(*count);
    } else if (const auto* untilText = valueOf("UNTIL")) {
        if (const auto until = ICalDate::parse(*untilText, tzid)) {
            rule.end = End::until(until->isDateOnly ? Date{until->date.seconds + endOfDaySeconds} : until->date);
        }
    }

    static constexpr std::string_view known[] = {"FREQ",      "INTERVAL", "BYDAY", "BYMONTHDAY", "BYMONTH", "BYWEEKNO",
                                                 "BYYEARDAY", "BYSETPOS", "COUNT", "UNTIL",      "WKST"};
    for (const auto& [key, value] : values) {
        if (std::find(std::begin(known), std::end(known), key) == std::end(known)) {
            unparsed.push_back(key + "=" + value);
        }
    }
    rule.unparsed = joined(unparsed, ";");
    sortLists(rule);
    return rule;
}

std::string RecurrenceRule::description() const {
    std::vector<std::string> parts;
    parts.push_back("FREQ=" + std::string(frequencyName(frequency)));
    if (interval != 1) parts.push_back("INTERVAL=" + std::to_string(interval));
    if (!daysOfWeek.empty()) {
        std::string days;
        for (const auto& day : daysOfWeek) {
            if (!days.empty()) days.push_back(',');
            if (day.week != 0) days.append(std::to_string(day.week));
            const auto code = calendarColumns::weekdayCode(day.weekday);
            days.append(code.empty() ? "?" : code);
        }
        parts.push_back("BYDAY=" + days);
    }
    const std::pair<std::string_view, const std::vector<std::int64_t>*> lists[] = {
        {"BYMONTHDAY", &daysOfMonth}, {"BYMONTH", &monthsOfYear},  {"BYWEEKNO", &weeksOfYear},
        {"BYYEARDAY", &daysOfYear},   {"BYSETPOS", &setPositions},
    };
    for (const auto& [key, list] : lists) {
        if (!list->empty()) parts.push_back(std::string(key) + "=" + joinedIntegers(*list));
    }
    if (end) {
        if (const auto* until = std::get_if<End::Until>(&end->value)) {
            parts.push_back("UNTIL=" + dates::iso8601(until->date));
        } else {
            parts.push_back("COUNT=" + std::to_string(std::get<End::Count>(end->value).value));
        }
    }
    if (unparsed) parts.push_back("X-UNPARSED=" + *unparsed);
    return *joined(parts, ";");
}

json::Ordered RecurrenceRule::json(json::DateEncoding dates) const {
    json::Ordered object = json::Ordered::object();
    object["frequency"] = static_cast<std::int64_t>(frequency);
    object["interval"] = interval;
    auto days = json::Ordered::array();
    for (const auto& day : daysOfWeek) {
        json::Ordered entry = json::Ordered::object();
        entry["weekday"] = day.weekday;
        entry["week"] = day.week;
        days.push_back(std::move(entry));
    }
    object["daysOfWeek"] = std::move(days);
    object["daysOfMonth"] = integerList(daysOfMonth);
    object["monthsOfYear"] = integerList(monthsOfYear);
    object["weeksOfYear"] = integerList(weeksOfYear);
    object["daysOfYear"] = integerList(daysOfYear);
    object["setPositions"] = integerList(setPositions);
    if (end) {
        json::Ordered payload = json::Ordered::object();
        if (const auto* until = std::get_if<End::Until>(&end->value)) {
            payload["_0"] = json::date(until->date, dates);
            object["end"] = json::Ordered{{"until", std::move(payload)}};
        } else {
            payload["_0"] = std::get<End::Count>(end->value).value;
            object["end"] = json::Ordered{{"count", std::move(payload)}};
        }
    }
    if (unparsed) object["unparsed"] = *unparsed;
    return object;
}

RecurrenceRule RecurrenceRule::fromJson(const json::Ordered& value, json::DateEncoding dates, const std::string& path) {
    const json::ObjectReader reader(value, path);
    const auto code = json::integer(reader.required("frequency"), reader.pathOf("frequency"));
    const auto frequency = frequencyOf(code);
    if (!frequency) {
        throw json::DecodingError(json::DecodingError::Case::dataCorrupted, reader.pathOf("frequency"),
                                  "No frequency has the value " + std::to_string(code) + ".");
    }
    RecurrenceRule rule(*frequency, 1);
    rule.interval = json::integer(reader.required("interval"), reader.pathOf("interval"));

    const auto& days = arrayAt(reader, "daysOfWeek");
    for (size_t i = 0; i < days.size(); ++i) {
        const json::ObjectReader day(days[i], json::indexPath(reader.pathOf("daysOfWeek"), i));
        rule.daysOfWeek.push_back(Day{json::integer(day.required("weekday"), day.pathOf("weekday")),
                                      json::integer(day.required("week"), day.pathOf("week"))});
    }
    rule.daysOfMonth = integerListAt(reader, "daysOfMonth");
    rule.monthsOfYear = integerListAt(reader, "monthsOfYear");
    rule.weeksOfYear = integerListAt(reader, "weeksOfYear");
    rule.daysOfYear = integerListAt(reader, "daysOfYear");
    rule.setPositions = integerListAt(reader, "setPositions");
    if (const auto* end = reader.optional("end")) rule.end = endFromJson(*end, dates, reader.pathOf("end"));
    if (const auto* unparsed = reader.optional("unparsed")) {
        rule.unparsed = json::string(*unparsed, reader.pathOf("unparsed"));
    }
    return rule;
}

} // namespace morvane

size_t std::hash<morvane::RecurrenceRule>::operator()(const morvane::RecurrenceRule& rule) const noexcept {
    size_t seed = 0;
    auto combine = [&seed](size_t value) { seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2); };
    auto combineInt = [&](std::int64_t value) { combine(std::hash<std::int64_t>()(value)); };
    combineInt(static_cast<std::int64_t>(rule.frequency));
    combineInt(rule.interval);
    combine(rule.daysOfWeek.size());
    for (const auto& day : rule.daysOfWeek) {
        combineInt(day.weekday);
        combineInt(day.week);
    }
    for (const auto* list :
         {&rule.daysOfMonth, &rule.monthsOfYear, &rule.weeksOfYear, &rule.daysOfYear, &rule.setPositions}) {
        combine(list->size());
        for (const auto value : *list)
            combineInt(value);
    }
    combine(rule.end.has_value());
    if (rule.end) {
        combine(rule.end->value.index());
        if (const auto* until = std::get_if<morvane::RecurrenceRule::End::Until>(&rule.end->value)) {
            combine(std::hash<double>()(until->date.seconds));
        } else {
            combineInt(std::get<morvane::RecurrenceRule::End::Count>(rule.end->value).value);
        }
    }
    combine(rule.unparsed.has_value());
    if (rule.unparsed) combine(std::hash<std::string>()(*rule.unparsed));
    return seed;
}
