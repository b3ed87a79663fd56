#include "MorvaneCore/Shared/DateInput.h"

#include <gtest/gtest.h>
#include <string>

namespace morvane {
namespace {

// 2024-03-01 09:00:00 UTC.
constexpr double nineUTC = 1709283600.0;

TEST(ParseDayOrDateTime, ReadsDaysAndDateTimesAndRefusesEverythingElse) {
    struct Case {
        std::string text;
        std::optional<double> secondsSince1970;
    };
    const Case cases[] = {
        // A day starts at local midnight, in the pinned zone (America/Los_Angeles).
        {"2024-03-01", 1709280000.0},
        {"2024-02-29", 1709193600.0},
        {"2023-02-29", std::nullopt},
        {"2024-02-30", std::nullopt},
        {"2024-13-01", std::nullopt},
        {"2024-00-10", std::nullopt},
        {"2024-3-01", std::nullopt},
        {"99999999999-03-01", std::nullopt},
        {"2024-03-01T09:00:00Z", nineUTC},
        {"2024-03-01T09:00:00.5Z", nineUTC + 0.5},
        {"2024-03-01T09:00:00." + std::string(400, '0') + "1Z", nineUTC},
        {"2024-03-01T09:00:00." + std::string(400, '9') + "Z", nineUTC + 1},
        {"2024-03-01T09:00:00.25+01:00", nineUTC - 3600 + 0.25},
        {"2024-03-01T09:00:00-0130", nineUTC + 5400},
        {"2024-03-01T09:00:00+23:59", nineUTC - 86340},
        {"2024-03-01T09:00:00+24:00", std::nullopt},
        {"2024-03-01T09:00:00+01:60", std::nullopt},
        {"2024-03-01T09:00:00+1:00", std::nullopt},
        {"2024-03-01T09:00:00+01:000", std::nullopt},
        {"2024-03-01T09:00:00+99999999999:00", std::nullopt},
        {"2024-03-01T24:00:00Z", std::nullopt},
        {"2024-03-01T09:60:00Z", std::nullopt},
        {"2024-02-30T09:00:00Z", std::nullopt},
        {"2024-03-01T09:00:00", std::nullopt},
        {"2024-03-01T09:00:00.Z", std::nullopt},
        {"2024-03-01T09:00:00.5x", std::nullopt},
        {"2024-03-01T09:00Z", std::nullopt},
        {"2024-03-01 09:00:00Z", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [text, expected] : cases) {
        const auto parsed = dates::parseDayOrDateTime(text);
        const auto shown = text.substr(0, 40);
        ASSERT_EQ(parsed.has_value(), expected.has_value()) << shown;
        if (expected) {
            EXPECT_DOUBLE_EQ(parsed->secondsSince1970(), *expected) << shown;
        }
    }
}

} // namespace
} // namespace morvane
