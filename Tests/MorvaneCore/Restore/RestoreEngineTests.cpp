#include "MorvaneCore/Restore/RestoreEngine.h"

#include "MorvaneCore/Shared/Errors.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/ErrorText.h"
#include "Support/Fakes.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

TEST(RestoreEngine, ListsCalendarsBySyncingAccountThenTitleInNaturalOrderWithOtherLast) {
    testing::TemporaryUser user;
    {
        testing::CalendarDatabaseBuilder builder(EKEventStore::defaultDatabasePath());
        const auto local = builder.addStore({});
        builder.addCalendar({.store = local, .title = "Work", .uuid = "WORK"});
        builder.addCalendar({.store = local, .title = "Aardvark", .uuid = "AARDVARK", .color = nullptr});
        const auto cloud = builder.addStore({.name = "iCloud", .type = std::int64_t{2}});
        builder.addCalendar({.store = cloud, .title = "Team 10", .uuid = "T10"});
        builder.addCalendar({.store = cloud, .title = "Team 2", .uuid = "T2", .color = "#FF000080"});
        const auto exchange = builder.addStore({.name = "Acme", .type = std::int64_t{1}});
        builder.addCalendar({.store = exchange, .title = "Rota", .uuid = "ROTA"});
        const auto subscribed = builder.addStore({.name = "Subscribed Calendars", .type = std::int64_t{4}});
        builder.addCalendar({.store = subscribed, .title = "Holidays", .uuid = "HOLIDAYS"});
    }
    RestoreEngine engine;
    std::vector<std::string> order;
    for (const auto& calendar : engine.calendarList())
        order.push_back(calendar.group + "/" + calendar.title + (calendar.writable ? "" : " (read-only)") + " " +
                        calendar.colorHex.value_or("no colour"));
    EXPECT_EQ(order, (std::vector<std::string>{"Acme/Rota #1BADF8", "iCloud/Team 2 #FF0000", "iCloud/Team 10 #1BADF8",
                                               "Other/Aardvark no colour", "Other/Holidays (read-only) #1BADF8",
                                               "Other/Work #1BADF8"}));
    const auto writable = engine.writableCalendars();
    ASSERT_EQ(writable.size(), 5u);
    EXPECT_EQ(writable.front(), (std::pair<std::string, std::string>{"WORK", "Work (On My Mac)"}));
}

TEST(RestoreEngine, WithoutALoadedBackupNothingIsPlannedOrCompared) {
    testing::TemporaryUser user;
    RestoreEngine engine;
    for (const auto& attempt : std::vector<std::function<void()>>{
             [&] { engine.compare(false); },
             [&] { engine.plans({1}, std::nullopt); },
             [&] { engine.restore({1}, std::nullopt); },
         }) {
        EXPECT_EQ(testing::errorText<RestoreError>(attempt), "No backup loaded.");
    }
}

} // namespace
} // namespace morvane
