#include "RunCommandLine.h"
#include "morvane/CommandLine.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/SHA256.h"
#include "Support/Deadline.h"
#include "Support/Fakes.h"
#include "Support/Pinned.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>

namespace morvane {
namespace {

using testing::holds;
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
    EXPECT_TRUE(holds(list[0], {{"writable", true}, {"colorHex", "#1BADF8"}}));
    EXPECT_EQ(runCommandLine({"calendars"}).out, "Other\n  Calendar (On My Mac)  local  " +
                                                     EKEventStore().defaultCalendarForNewEvents()->calendarIdentifier +
                                                     "\n");
    EXPECT_EQ(runCommandLine({"events", "--from", "2024-01-01", "--to", "2024-02-01", "--json"}).out, "[]\n");
}

TEST_F(CalendarCommandsTest, EventsListsOccurrencesOfTheRangeByStartOncePerOccurrence) {
    EKEventStore store;
    const EKRecurrenceRule yearly{.frequency = EKRecurrenceFrequency::yearly};
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
    EXPECT_TRUE(holds(list[1], {{"timeZone", nullptr},
                                {"uid", *newYear->calendarItemExternalIdentifier()},
                                {"occurrenceKey", static_cast<std::int64_t>(utc(2024, 1, 1, 9))},
                                {"isDetached", false},
                                {"calendarTitle", "Calendar"},
                                {"end", "2024-01-01T18:00:00Z"}}));
    EXPECT_EQ(list[2]["timeZone"], "Europe/Berlin");
    EXPECT_EQ(list[3]["isAllDay"], true);

    const auto text = runCommandLine({"events", "--from", "2024-07-04", "--to", "2024-07-05"});
    EXPECT_EQ(text.out, "2024-07-04 00:00 \u2013 2024-07-04 01:00  Berlin call  [Calendar]\n"
                        "2024-07-04 (all day)  Holiday  [Calendar]\n");
}

// Events that begin where no date can be told cost no more than others, and show at the nearest
// date that can.
TEST_F(CalendarCommandsTest, EventsOfDatesBeyondAnyYearEndQuicklyAndShowClamped) {
    EKEventStore store;
    for (int index = 0; index < 5; ++index)
        saveEvent(store, "Ancient", -1e300, -1e300 + 3600, "UTC",
                  testing::repeating(EKRecurrenceFrequency::daily, 1000000));
    saveEvent(store, "Always", -1e300, 1e300, "UTC");

    const testing::Deadline deadline(std::chrono::seconds(60), "listing events that begin before any year");
    const auto result = runCommandLine({"events", "--from", "2024-01-01", "--to", "2034-01-01", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto list = nlohmann::json::parse(result.out);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_TRUE(
        holds(list[0], {{"title", "Always"}, {"start", "0001-01-01T00:00:00Z"}, {"end", "9999-12-31T23:59:59Z"}}));
}

TEST_F(CalendarCommandsTest, EventsRefusesDatesItCannotRead) {
    const auto bad = runCommandLine({"events", "--from", "2024-03-01", "--to", "2024-02-30"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_EQ(bad.err, "morvane: --to takes YYYY-MM-DD or an ISO 8601 date-time such as 2024-03-01T09:00:00Z or "
                       "2024-03-01T09:00:00+01:00, not '2024-02-30'.\n");
    EXPECT_EQ(runCommandLine({"events", "--from", "2024-03-01", "--to", "2024-03-01"}).status, 2);
    EXPECT_EQ(runCommandLine({"events", "--from", "2024-03-01"}).status, 2);
    EXPECT_FALSE(std::filesystem::exists(BackupLocator::liveDBPath()));

    // A range that every repeating event would have to be expanded over for ten thousand years.
    const auto endless = runCommandLine({"events", "--from", "0001-01-01", "--to", "9999-12-31"});
    EXPECT_EQ(endless.status, 2);
    EXPECT_EQ(endless.err, "morvane: the range may span at most 100 years: every year of it expands each repeating "
                           "event again.\n");
    EXPECT_FALSE(std::filesystem::exists(BackupLocator::liveDBPath()));
}

// However another program left the live files, a command that only reads changes none of them:
// it doesn't fold the log into the database, delete the log or its index, or roll back a journal.
TEST_F(CalendarCommandsTest, ReadingLeavesTheLiveFilesByteForByte) {
    namespace fs = std::filesystem;
    const fs::path live = BackupLocator::liveDBPath();
    const auto with = [&live](const char* suffix) { return fs::path(live.string() + suffix); };
    const auto pending = user.root().makeFolder("pending");
    const auto settled = user.root().makeFolder("settled");
    {
        EKEventStore writer;
        saveEvent(writer, "Walk", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17), "America/Los_Angeles");
        // Taken while the writer is open: the event is in the log only.
        for (const char* suffix : {"", "-wal", "-shm"})
            fs::copy_file(with(suffix), pending / with(suffix).filename());
    }
    fs::copy_file(live, settled / live.filename());

    struct Layout {
        const char* name;
        fs::path from;
        std::vector<const char*> companions;
        std::optional<std::string> journal;
    };
    const std::vector<Layout> layouts = {
        {"a log with its index", pending, {"-wal", "-shm"}, std::nullopt},
        {"a log without its index", pending, {"-wal"}, std::nullopt},
        {"the database alone", settled, {}, std::nullopt},
        {"a leftover journal", settled, {}, std::string(512, '\x5a')},
    };
    // Text and JSON differ only in how they print what was read.
    const std::vector<std::vector<const char*>> commands = {
        {"calendars", "--json"},
        {"events", "--from", "2024-06-01", "--to", "2024-07-01"},
    };
    const auto files = [&] {
        std::map<std::string, std::string> found;
        for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
            if (fs::exists(with(suffix))) found[suffix] = SHA256::hex(SHA256::of(files::read(with(suffix))));
        }
        return found;
    };
    for (const auto& layout : layouts) {
        for (const char* suffix : {"", "-wal", "-shm", "-journal"})
            fs::remove(with(suffix));
        fs::copy_file(layout.from / live.filename(), live);
        for (const char* suffix : layout.companions)
            fs::copy_file(layout.from / with(suffix).filename(), with(suffix));
        if (layout.journal) files::write(with("-journal"), *layout.journal);

        const auto before = files();
        for (const auto& command : commands) {
            const auto result = runCommandLine(command);
            EXPECT_EQ(result.status, 0) << layout.name << ": " << result.err;
            if (command.front() == std::string("events")) {
                EXPECT_THAT(result.out, testing::HasSubstr("Walk")) << layout.name;
            }
            EXPECT_EQ(files(), before) << layout.name << ", " << command.front();
        }
        EXPECT_TRUE(fs::is_empty(user.temporary())) << layout.name;
    }
}

} // namespace
} // namespace morvane
