#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "RunCommandLine.h"
#include "Support/Fakes.h"
#include "Support/Pinned.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace morvane {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::restorePoint;
using testing::runCommandLine;
using testing::utc;

class TimelineCommandTest : public ::testing::Test {
protected:
    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
    EKEventStore store;
};

TEST_F(TimelineCommandTest, ShowsALostOccurrenceThatRestoreBringsBack) {
    EKRecurrenceRule daily;
    daily.frequency = EKRecurrenceFrequency::daily;
    daily.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(3);
    const auto walk = testing::saveEvent(store, "Walk", utc(2024, 6, 3, 15), utc(2024, 6, 3, 16),
                                         std::string(testing::pinnedZone), daily);
    const auto backup = restorePoint();
    for (const auto& found : store.eventsMatchingPredicate(
             store.predicateForEvents(utc(2024, 6, 4, 15), utc(2024, 6, 4, 16), std::nullopt))) {
        if (found->calendarItemIdentifier() == walk->calendarItemIdentifier())
            store.removeEvent(*found, EKSpan::thisEvent, true);
    }

    const auto page = user.home() / "week.html";
    const auto before = runCommandLine(
        {"timeline", backup.c_str(), "--from", "2024-06-03", "--to", "2024-06-06", "--html", page.c_str()});
    ASSERT_EQ(before.status, 0) << before.err;
    EXPECT_THAT(before.out, HasSubstr("2 unchanged, 1 deleted, 0 changed (0 moved), 0 added\nThe page is in " +
                                      page.string() + ".\n"));
    EXPECT_EQ(std::filesystem::status(page).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_THAT(files::read(page), HasSubstr("data-state=\"deleted\""));
    const auto items = json::parse(
        runCommandLine({"timeline", backup.c_str(), "--from", "2024-06-03", "--to", "2024-06-06", "--json"}).out);
    std::string lost;
    for (const auto& item : items) {
        if (item["state"] == "deleted") {
            lost = item["id"];
            EXPECT_TRUE(item["restoreID"].is_null());
        }
    }
    ASSERT_FALSE(lost.empty()) << items;

    const auto restored = runCommandLine({"restore", backup.c_str(), "--occurrence", lost.c_str(), "--yes"});
    EXPECT_EQ(restored.status, 0) << restored.out << restored.err;
    const auto after = runCommandLine({"timeline", backup.c_str(), "--from", "2024-06-03", "--to", "2024-06-06"});
    EXPECT_THAT(after.out, HasSubstr("3 unchanged, 0 deleted"));
    EXPECT_EQ(runCommandLine({"restore", backup.c_str(), "--occurrence", "nobody", "--yes"}).status, 1);
}

TEST_F(TimelineCommandTest, RefusesARangeBackwardsOrOverTenYears) {
    for (const auto& [from, to] : std::vector<std::pair<const char*, const char*>>{
             {"2024-06-05", "2024-06-03"}, {"2014-01-01", "2024-01-02"}, {"soon", "2024-01-02"}}) {
        SCOPED_TRACE(from);
        EXPECT_EQ(runCommandLine({"timeline", "x", "--from", from, "--to", to}).status, 2);
    }
    EXPECT_EQ(runCommandLine({"restore", "x", "1", "--occurrence", "a|1", "--yes"}).status, 2);
}

} // namespace
} // namespace morvane
