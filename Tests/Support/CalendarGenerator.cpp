#include "Support/CalendarGenerator.h"

#include "MorvanePlatform/EventStore/RecurrenceExpansion.h"
#include "MorvanePlatform/EventStore/ZoneOffsets.h"

#include <array>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace morvane::testing {

GeneratedCalendar generateCalendarFile(const std::filesystem::path& path, std::int64_t events, std::uint64_t seed,
                                       CalendarDatabaseBuilder::Journal journal, bool keepLog) {
    CalendarDatabaseBuilder builder(path, journal);
    const auto made = generateCalendar(builder, events, seed);
    builder.close(keepLog);
    return made;
}

namespace {

constexpr double day = 86400;
constexpr double tenYearsFrom2016 = 473385600; // 2016-01-01 in seconds since 2001
constexpr double windowStart = 757382400;      // 2025-01-01
constexpr double windowEnd = 788918400;        // 2026-01-01

constexpr std::array<const char*, 12> titles = {
    "Team meeting", "Dentist", "Lunch with Sam", "Yoga",      "Project review",  "Flight to Lisbon",
    "Piano lesson", "1:1",     "School run",     "Book club", "Budget planning", "Call with Rosa"};
constexpr std::array<const char*, 5> zones = {"America/Los_Angeles", "Europe/Berlin", "America/New_York", "Asia/Tokyo",
                                              "_float"};

} // namespace

GeneratedCalendar generateCalendar(CalendarDatabaseBuilder& builder, std::int64_t events, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    auto chance = [&random](double probability) { return std::bernoulli_distribution(probability)(random); };
    auto pick = [&random](std::int64_t count) {
        return std::uniform_int_distribution<std::int64_t>(0, count - 1)(random);
    };

    builder.execute("BEGIN");
    const auto local = builder.addStore({.name = "Default", .type = std::int64_t{0}});
    const auto cloud = builder.addStore({.name = "iCloud",
                                         .type = std::int64_t{2},
                                         .defaultAlarmOffset = std::int64_t{-900},
                                         .defaultAllDayAlarmOffset = std::int64_t{-54000}});
    const auto exchange = builder.addStore({.name = "Work Exchange", .type = std::int64_t{1}});
    const auto subscribed = builder.addStore({.name = "Subscribed Calendars", .type = std::int64_t{4}});
    const auto birthdays = builder.addStore({.name = "Other", .type = std::int64_t{5}});
    const std::vector<std::int64_t> calendars = {
        builder.addCalendar({.store = local, .title = "DEFAULT_CALENDAR_NAME"}),
        builder.addCalendar({.store = cloud, .title = "Home", .color = "#34C759FF"}),
        builder.addCalendar({.store = cloud, .title = "Family", .color = "#FF9500FF"}),
        builder.addCalendar({.store = exchange, .title = "Calendar", .color = "#007AFFFF"}),
        builder.addCalendar({.store = subscribed, .title = "Holidays", .color = "#CC73E1FF"}),
        builder.addCalendar({.store = birthdays, .title = "Birthdays", .color = "#8E8E93FF"}),
    };
    builder.setOccurrenceWindow(windowStart, windowEnd, "America/Los_Angeles");

    GeneratedCalendar made;
    std::map<std::string, ZoneOffsets> zoneOffsets;
    // The cache holds true moments: a floating occurrence at its wall-clock reading in the
    // cache's zone.
    ZoneOffsets cacheZone("America/Los_Angeles");
    for (std::int64_t index = 0; index < events; ++index) {
        const bool allDay = chance(0.15);
        const double start = allDay ? tenYearsFrom2016 + static_cast<double>(pick(3650)) * day
                                    : tenYearsFrom2016 + static_cast<double>(pick(3650 * 96)) * 900;
        const double length = allDay ? day : 900.0 * static_cast<double>(1 + pick(8));
        const bool repeating = chance(0.2);
        const std::string uid = "GEN-" + std::to_string(seed) + "-" + std::to_string(index);

        SQLValue location = nullptr;
        if (chance(0.4)) {
            location = builder.addLocation(
                {.title = "Room " + std::to_string(pick(40)),
                 .address = chance(0.5) ? SQLValue("Main Street " + std::to_string(pick(200))) : SQLValue(nullptr)});
        }
        const SQLValue zone = allDay ? SQLValue("_float") : SQLValue(zones[static_cast<size_t>(pick(zones.size()))]);
        const bool floating = std::get<std::string>(zone) == "_float";
        const auto calendar = calendars[static_cast<size_t>(pick(static_cast<std::int64_t>(calendars.size())))];
        const auto item = builder.addItem({
            .calendar = calendar,
            .summary = std::string(titles[static_cast<size_t>(pick(titles.size()))]) + " " + std::to_string(index % 97),
            .start = start,
            .end = start + length,
            .startTZ = zone,
            .allDay = std::int64_t{allDay ? 1 : 0},
            .uniqueIdentifier = uid,
            .hasRecurrences = std::int64_t{repeating ? 1 : 0},
            .lastModified = start - 7 * day,
            .description = chance(0.3) ? SQLValue("Notes for " + uid) : SQLValue(nullptr),
            .url = chance(0.05) ? SQLValue("https://example.com/" + uid) : SQLValue(nullptr),
            .locationID = location,
            .hasAttendees = std::int64_t{chance(0.2) ? 1 : 0},
        });
        ++made.events;
        if (chance(0.5)) {
            builder.addAlarm({.owner = item,
                              .triggerInterval = std::int64_t{-300 * (1 + pick(12))},
                              .defaultAlarm = std::int64_t{chance(0.3) ? 1 : 0}});
        }

        std::vector<double> moments = {start};
        if (repeating) {
            ++made.series;
            const std::int64_t frequency = 1 + pick(4);
            const std::int64_t count = chance(0.3) ? 2 + pick(30) : 0;
            builder.addRecurrence({.owner = item,
                                   .frequency = frequency,
                                   .count = count,
                                   .specifier = frequency == 2 ? SQLValue("D=0MO,0WE") : SQLValue(nullptr)});
            // The occurrences the event store itself generates, so that every exception date and
            // every edited occurrence stands on one of them, as on a real calendar.
            EKRecurrenceRule rule;
            rule.frequency = static_cast<EKRecurrenceFrequency>(frequency - 1);
            if (frequency == 2) rule.daysOfTheWeek = {{2, 0}, {4, 0}};
            if (count > 0)
                rule.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(static_cast<int>(count));
            const std::string zoneID = std::get<std::string>(zone);
            auto* offsets = zoneID == "_float" ? nullptr : &zoneOffsets.try_emplace(zoneID, zoneID).first->second;
            const auto wallClock = [&](double moment) { return offsets ? offsets->wallClock(moment) : moment; };
            const double until = count > 0 ? start + 40 * 366 * day : windowEnd;
            moments.clear();
            recurrence::expand(rule, wallClock(start), std::nullopt, wallClock(start), wallClock(until) + 1,
                               [&](double occurrence) {
                                   const double moment = offsets ? offsets->moment(occurrence) : occurrence;
                                   if (moment <= until) moments.push_back(moment);
                                   return moments.size() < 4000;
                               });

            for (std::int64_t i = pick(4); i > 0 && moments.size() > 2; --i) {
                const auto removed = static_cast<size_t>(1 + pick(static_cast<std::int64_t>(moments.size()) - 1));
                builder.addExceptionDate(item, moments[removed]);
                moments.erase(moments.begin() + static_cast<std::ptrdiff_t>(removed));
                ++made.exceptions;
            }
            // Detached occurrences take their original moment's place in the cache, moved by an hour.
            for (std::int64_t i = pick(3); i > 0 && moments.size() > 2; --i) {
                const auto moved = static_cast<size_t>(1 + pick(static_cast<std::int64_t>(moments.size()) - 1));
                const double original = moments[moved];
                const auto detached = builder.addItem({
                    .calendar = calendar,
                    .summary = "Moved occurrence",
                    .start = original + 3600,
                    .end = original + 3600 + length,
                    .startTZ = zone,
                    .uniqueIdentifier = uid + "/RID=" + std::to_string(static_cast<std::int64_t>(original)),
                    .origItemID = item,
                    .origDate = original,
                });
                moments.erase(moments.begin() + static_cast<std::ptrdiff_t>(moved));
                if (original >= windowStart && original < windowEnd) {
                    builder.addOccurrence(detached, floating ? cacheZone.moment(original + 3600) : original + 3600);
                    ++made.occurrences;
                }
                ++made.detached;
            }
        }
        for (const double moment : moments) {
            if (moment >= windowStart && moment < windowEnd) {
                builder.addOccurrence(item, floating ? cacheZone.moment(moment) : moment);
                ++made.occurrences;
            }
        }
    }
    builder.execute("COMMIT");
    return made;
}

} // namespace morvane::testing
