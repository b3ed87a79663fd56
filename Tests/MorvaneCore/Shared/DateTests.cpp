#include "MorvaneCore/Shared/Date.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/EventKeys.h"
#include "Support/Pinned.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

namespace morvane {
namespace {

using testing::ScopedLocale;
using testing::ScopedTimeZone;

TEST(OccurrenceKey, RoundsHalvesAwayFromZeroAndSaturatesInsteadOfOverflowing) {
    constexpr auto max = std::numeric_limits<std::int64_t>::max();
    constexpr auto min = std::numeric_limits<std::int64_t>::min();
    const std::pair<double, std::int64_t> cases[] = {
        {0.5, 1},
        {-0.5, -1},
        {1.4999, 1},
        {-1.5, -2},
        {730944000.4, 730944000},
        {-978307200.5, -978307201},
        {1e300, max},
        {-1e300, min},
        {std::numeric_limits<double>::infinity(), max},
        {std::nan(""), 0},
        {-9223372036854775808.0, min},
    };
    for (const auto& [seconds, key] : cases)
        EXPECT_EQ(Date{seconds}.occurrenceKey(), key) << seconds;
}

TEST(SeriesKey, CutsBeforeTheFirstOccurrenceMarker) {
    EXPECT_EQ(seriesKey("ABC-123"), "ABC-123");
    EXPECT_EQ(seriesKey("ABC-123/RID=730944000"), "ABC-123");
    EXPECT_EQ(seriesKey("a/RID=1/RID=2"), "a");
    EXPECT_EQ(seriesKey("/RID=5"), "");
    EXPECT_EQ(occurrenceIdentifier("ABC-123", -42), "ABC-123/RID=-42");
}

TEST(Stamp, IsLocalWallClockTimeInTheCurrentZone) {
    const auto date = Date::fromSecondsSince1970(1709316900); // 2024-03-01 18:15:00 UTC
    EXPECT_EQ(dates::stamp(date), "2024-03-01-101500");
    EXPECT_EQ(dates::parseStamp("2024-03-01-101500"), date);
    {
        ScopedTimeZone berlin("Europe/Berlin");
        EXPECT_EQ(dates::stamp(date), "2024-03-01-191500");
        EXPECT_EQ(dates::parseStamp("2024-03-01-191500"), date);
    }
    // Whole seconds only: the fraction is dropped, not rounded up.
    EXPECT_EQ(dates::stamp(Date{date.seconds + 0.9}), "2024-03-01-101500");
}

TEST(Stamp, ParsingIsStrict) {
    for (const char* text : {"", "Snapshot dates for disk /:", "2024-03-01-1015", "2024-03-01-101500.local",
                             " 2024-03-01-101500", "2024-03-01-101500 ", "2024-13-01-101500", "2024-02-30-101500",
                             "2024-03-01-251500", "2024-03-01 101500", "2024-03-01-10:15:00"}) {
        EXPECT_EQ(dates::parseStamp(text), std::nullopt) << '"' << text << '"';
    }
    EXPECT_TRUE(dates::parseStamp("2024-02-29-235959").has_value());
}

TEST(ISO8601, IsUTCWithWholeSeconds) {
    const auto date = Date::fromSecondsSince1970(1709316900.75);
    EXPECT_EQ(dates::iso8601(date), "2024-03-01T18:15:00Z");
    EXPECT_EQ(dates::iso8601(Date{0}), "2001-01-01T00:00:00Z");
    EXPECT_EQ(dates::parseISO8601("2024-03-01T18:15:00Z"), Date::fromSecondsSince1970(1709316900));
    // Read as strictly as ICU reads it, and to the same moment, Julian years before 1583 included.
    const std::pair<const char*, std::optional<double>> texts[] = {
        {"2024-02-29T23:59:59Z", 1709251199},    {"2000-02-29T12:00:00Z", 951825600},
        {"1900-01-01T00:00:00Z", -2208988800},   {"9999-12-31T23:59:59Z", 253402300799},
        {"1000-01-01T00:00:00Z", -30610224000},  {"2023-02-29T00:00:00Z", std::nullopt},
        {"1900-02-29T12:00:00Z", std::nullopt},  {"2024-13-01T00:00:00Z", std::nullopt},
        {"2024-03-01T24:00:00Z", std::nullopt},  {"2024-03-01T18:15:60Z", std::nullopt},
        {" 2024-03-01T18:15:00Z", std::nullopt}, {"2024-3-01T18:15:00Z", std::nullopt},
        {"2024-03-01t18:15:00Z", std::nullopt},  {"2024-03-01T18:15:00", std::nullopt},
    };
    for (const auto& [text, seconds] : texts) {
        const auto parsed = dates::parseISO8601(text);
        EXPECT_EQ(parsed ? std::optional<double>(parsed->secondsSince1970()) : std::nullopt, seconds) << text;
    }
}

TEST(AbbreviatedDateTime, FollowsTheUserLocaleAndZone) {
    const auto date = Date::fromSecondsSince1970(1709316900);
    EXPECT_EQ(dates::abbreviatedDateTime(date), "Mar 1, 2024, 10:15\u202FAM");
    {
        ScopedLocale german("de_DE");
        EXPECT_EQ(dates::abbreviatedDateTime(date), "01.03.2024, 10:15");
    }
    ScopedTimeZone tokyo("Asia/Tokyo");
    EXPECT_EQ(dates::abbreviatedDateTime(date), "Mar 2, 2024, 3:15\u202FAM");
}

} // namespace
} // namespace morvane
