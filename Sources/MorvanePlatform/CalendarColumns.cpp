#include "MorvanePlatform/CalendarColumns.h"

#include "MorvanePlatform/TextPieces.h"

#include <algorithm>
#include <limits>

namespace morvane::calendarColumns {
namespace {

constexpr std::string_view weekdayCodes[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};

// The platform's rule holds 32-bit numbers: a larger one is as unreadable as "x".
std::optional<int> smallInteger(std::string_view text) {
    const auto value = text::integer(text);
    if (!value || *value < std::numeric_limits<int>::min() || *value > std::numeric_limits<int>::max()) {
        return std::nullopt;
    }
    return static_cast<int>(*value);
}

// A day of the specifier: "{week}{code}", the week obligatory, the code in upper case.
std::optional<EKRecurrenceDayOfWeek> specifierDay(std::string_view item) {
    if (item.size() < 3) return std::nullopt;
    const auto weekday = weekdayOfCode(item.substr(item.size() - 2));
    const auto week = smallInteger(item.substr(0, item.size() - 2));
    if (!weekday || !week) return std::nullopt;
    return EKRecurrenceDayOfWeek::dayOfWeek(*weekday, *week);
}

std::optional<std::vector<int>> integers(const std::vector<std::string_view>& items) {
    std::vector<int> values;
    for (const auto item : items) {
        if (const auto value = smallInteger(item)) values.push_back(*value);
    }
    if (values.empty()) return std::nullopt;
    return values;
}

} // namespace

std::optional<std::string> zoneOf(std::optional<std::string> stored) {
    if (!stored || stored->empty() || *stored == floatingZone) return std::nullopt;
    return stored;
}

std::string_view weekdayCode(std::int64_t weekday) {
    if (weekday < 1 || weekday > 7) return {};
    return weekdayCodes[weekday - 1];
}

std::optional<int> weekdayOfCode(std::string_view code) {
    const auto* found = std::find(std::begin(weekdayCodes), std::end(weekdayCodes), code);
    if (found == std::end(weekdayCodes)) return std::nullopt;
    return static_cast<int>(found - std::begin(weekdayCodes)) + 1;
}

std::optional<RecurrenceReading> readRecurrence(std::int64_t frequency, std::int64_t interval, std::int64_t count,
                                                std::optional<double> endDate,
                                                std::optional<std::string_view> specifier) {
    if (frequency < 1 || frequency > 4) return std::nullopt;
    RecurrenceReading reading;
    auto& rule = reading.rule;
    rule.frequency = static_cast<EKRecurrenceFrequency>(frequency - 1);
    // An interval or count beyond these is damage, and would only make expansion crawl.
    rule.interval = static_cast<int>(std::clamp<std::int64_t>(interval, 1, 1'000'000));
    if (count >= 1) {
        rule.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(
            static_cast<int>(std::min<std::int64_t>(count, 1'000'000'000)));
    } else if (endDate) {
        rule.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithEndDate(*endDate);
    }

    std::vector<EKRecurrenceDayOfWeek> days;
    for (const auto piece : text::nonEmptyPieces(specifier.value_or(""), ';')) {
        const auto sides = text::splittingOnce(piece, '=');
        if (sides.size() != 2) {
            reading.unreadPieces.emplace_back(piece);
            continue;
        }
        const auto key = sides[0];
        const auto items = text::nonEmptyPieces(sides[1], ',');
        if (key == "D") {
            for (const auto item : items) {
                if (const auto day = specifierDay(item)) {
                    days.push_back(*day);
                } else {
                    reading.unreadPieces.push_back("D=" + std::string(item));
                }
            }
        } else if (key == "M") {
            rule.daysOfTheMonth = integers(items);
        } else if (key == "O") {
            rule.monthsOfTheYear = integers(items);
        } else if (key == "W") {
            rule.weeksOfTheYear = integers(items);
        } else if (key == "Y") {
            rule.daysOfTheYear = integers(items);
        } else if (key == "S") {
            rule.setPositions = integers(items);
        } else {
            reading.unreadPieces.emplace_back(piece);
        }
    }
    if (!days.empty()) rule.daysOfTheWeek = std::move(days);
    return reading;
}

std::optional<std::string> specifierText(const EKRecurrenceRule& rule) {
    std::string text;
    auto add = [&text](std::string_view key, const std::string& items) {
        if (items.empty()) return;
        text.append(text.empty() ? "" : ";").append(key).append("=").append(items);
    };
    std::string days;
    for (const auto& weekday : rule.daysOfTheWeek.value_or(std::vector<EKRecurrenceDayOfWeek>{})) {
        days.append(days.empty() ? "" : ",")
            .append(std::to_string(weekday.weekNumber))
            .append(weekdayCode(weekday.dayOfTheWeek));
    }
    add("D", days);
    auto list = [](const std::optional<std::vector<int>>& values) {
        std::string items;
        for (const int value : values.value_or(std::vector<int>{}))
            items.append(items.empty() ? "" : ",").append(std::to_string(value));
        return items;
    };
    add("M", list(rule.daysOfTheMonth));
    add("O", list(rule.monthsOfTheYear));
    add("W", list(rule.weeksOfTheYear));
    add("Y", list(rule.daysOfTheYear));
    add("S", list(rule.setPositions));
    if (text.empty()) return std::nullopt;
    return text;
}

std::optional<std::string> locationText(const std::optional<std::string>& title,
                                        const std::optional<std::string>& address) {
    const auto name = text::trimmingWhitespaceAndNewlines(title ? std::string_view(*title) : std::string_view());
    auto place = text::trimmingWhitespaceAndNewlines(address ? std::string_view(*address) : std::string_view());
    if (!name.empty() && place.starts_with(name)) {
        // Addresses often repeat the place's name first: "Work, Main Street 1".
        place = text::trimmingWhitespaceAndNewlines(place.substr(name.size()));
        while (!place.empty() && (place.front() == ',' || place.back() == ',')) {
            place = text::trimmingWhitespaceAndNewlines(text::trimming(place, ","));
        }
    }
    if (name.empty() && place.empty()) return std::nullopt;
    if (name.empty()) return std::string(place);
    if (place.empty()) return std::string(name);
    return std::string(name) + "\n" + std::string(place);
}

std::optional<std::vector<double>> colorComponents(const std::optional<std::string>& stored) {
    if (!stored || (stored->size() != 7 && stored->size() != 9) || (*stored)[0] != '#') return std::nullopt;
    std::vector<double> components;
    for (size_t at = 1; at < stored->size(); at += 2) {
        int value = 0;
        for (const char digit : stored->substr(at, 2)) {
            const int nibble = (digit >= '0' && digit <= '9')   ? digit - '0'
                               : (digit >= 'a' && digit <= 'f') ? digit - 'a' + 10
                               : (digit >= 'A' && digit <= 'F') ? digit - 'A' + 10
                                                                : -1;
            if (nibble < 0) return std::nullopt;
            value = value * 16 + nibble;
        }
        components.push_back(value / 255.0);
    }
    if (components.size() == 3) components.push_back(1.0);
    return components;
}

} // namespace morvane::calendarColumns
