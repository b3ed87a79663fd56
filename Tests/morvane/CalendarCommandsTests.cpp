#include "RunCommandLine.h"
#include "morvane/CommandLine.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvanePlatform/EventKit.h"
#include "Support/Fakes.h"
#include "Support/Pinned.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace morvane {
namespace {

using testing::runCommandLine;
using testing::utc;

using testing::saveEvent;

class CalendarCommandsTest : public ::testing::Test {
protected:
    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
};

TEST_F(CalendarCommandsTest, OnAFreshMachineTheStoreIsCreatedWithOneWritableCalendar) {
    const auto result = runCommandLine({"calendars", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(std::filesystem::exists(BackupLocator::liveDBPath()));
    const auto list = nlohmann::json::parse(result.out);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["title"], "Calendar");
    EXPECT_EQ(list[0]["source"], "On My Mac");
    EXPECT_EQ(list[0]["type"], "local");
    EXPECT_EQ(list[0]["writable"], true);
    EXPECT_EQ(list[0]["colorHex"], "#1BADF8");
    EXPECT_EQ(list[0]["identifier"], EKEventStore().defaultCalendarForNewEvents()->calendarIdentifier);

    const auto text = runCommandLine({"calendars"});
    EXPECT_EQ(list[0]["group"], "Other");
    EXPECT_EQ(text.out, "Other\n  Calendar (On My Mac)  local  " + list[0]["identifier"].get<std::string>() + "\n");
    EXPECT_EQ(runCommandLine({"events", "--from", "2024-01-01", "--to", "2024-02-01", "--json"}).out, "[]\n");
}

TEST_F(CalendarCommandsTest, EventsListsOccurrencesOfTheRangeByStartOncePerOccurrence) {
    EKEventStore store;
    EKRecurrenceRule yearly;
    yearly.frequency = EKRecurrenceFrequency::yearly;
    // 1 January at 09:00 floating: every occurrence sits on a seam between two yearly fetches.
    const auto newYear = saveEvent(store, "New Year walk", utc(2023, 1, 1, 9) + 8 * 3600,
                                   utc(2023, 1, 1, 10) + 8 * 3600, std::nullopt, yearly);
    auto holiday = saveEvent(store, "Holiday", utc(2024, 7, 4, 7), utc(2024, 7, 5, 7), std::nullopt);
    holiday->allDay = true;
    store.saveEvent(*holiday, EKSpan::thisEvent, true);
    saveEvent(store, "Berlin call", utc(2024, 7, 4, 7), utc(2024, 7, 4, 8), "Europe/Berlin");

    const auto result = runCommandLine({"events", "--from", "2023-01-01", "--to", "2025-01-01T08:00:00Z", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto list = nlohmann::json::parse(result.out);
    std::vector<std::string> titles;
    for (const auto& item : list)
        titles.push_back(item["title"].get<std::string>() + " " + item["start"].get<std::string>());
    EXPECT_EQ(titles,
              (std::vector<std::string>{"New Year walk 2023-01-01T17:00:00Z", "New Year walk 2024-01-01T17:00:00Z",
                                        "Berlin call 2024-07-04T07:00:00Z", "Holiday 2024-07-04T07:00:00Z"}));
    const auto& walk = list[1];
    EXPECT_EQ(walk["timeZone"], nullptr);
    EXPECT_EQ(walk["uid"], *newYear->calendarItemExternalIdentifier());
    EXPECT_EQ(walk["occurrenceKey"], static_cast<std::int64_t>(utc(2024, 1, 1, 9)));
    EXPECT_EQ(walk["isDetached"], false);
    EXPECT_EQ(walk["calendarTitle"], "Calendar");
    EXPECT_EQ(walk["end"], "2024-01-01T18:00:00Z");
    EXPECT_EQ(list[2]["timeZone"], "Europe/Berlin");
    EXPECT_EQ(list[3]["isAllDay"], true);

    const auto text = runCommandLine({"events", "--from", "2024-07-04", "--to", "2024-07-05"});
    EXPECT_EQ(text.out, "2024-07-04 00:00 \u2013 2024-07-04 01:00  Berlin call  [Calendar]\n"
                        "2024-07-04 (all day)  Holiday  [Calendar]\n");
}

TEST_F(CalendarCommandsTest, EventsRefusesDatesItCannotRead) {
    const auto bad = runCommandLine({"events", "--from", "2024-03-01", "--to", "2024-02-30"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_EQ(bad.err, "morvane: --to takes YYYY-MM-DD or an ISO 8601 date-time such as 2024-03-01T09:00:00Z or "
                       "2024-03-01T09:00:00+01:00, not '2024-02-30'.\n");
    EXPECT_EQ(runCommandLine({"events", "--from", "2024-03-01", "--to", "2024-03-01"}).status, 2);
    EXPECT_EQ(runCommandLine({"events", "--from", "2024-03-01"}).status, 2);
    EXPECT_FALSE(std::filesystem::exists(BackupLocator::liveDBPath()));

    // A fraction of any length is still a date-time.
    const auto longFraction = "2024-03-01T09:00:00." + std::string(400, '0') + "1Z";
    const auto read = runCommandLine({"events", "--from", longFraction.c_str(), "--to", "2024-03-02", "--json"});
    EXPECT_EQ(read.status, 0) << read.err;
    EXPECT_EQ(read.out, "[]\n");
}

} // namespace
} // namespace morvane
