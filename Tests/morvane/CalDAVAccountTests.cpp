#include "MorvanePlatform/Accounts.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "RunCommandLine.h"
#include "Support/Fakes.h"
#include "Support/Radicale.h"
#include "Support/UTC.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::Radicale;
using testing::runCommandLine;
using testing::utc;

std::string resource(const std::string& events) {
    return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Morvane tests//EN\r\n" + events + "END:VCALENDAR\r\n";
}

// Weekly six times from 14 March, 21 March left out, 4 April an hour later in another room.
const std::string choir = resource("BEGIN:VEVENT\r\nUID:choir\r\nDTSTAMP:20240101T000000Z\r\n"
                                   "DTSTART:20240314T170000Z\r\nDTEND:20240314T180000Z\r\nSUMMARY:Choir\r\n"
                                   "RRULE:FREQ=WEEKLY;COUNT=6\r\nEXDATE:20240321T170000Z\r\nEND:VEVENT\r\n"
                                   "BEGIN:VEVENT\r\nUID:choir\r\nDTSTAMP:20240101T000000Z\r\n"
                                   "RECURRENCE-ID:20240404T170000Z\r\nDTSTART:20240404T180000Z\r\n"
                                   "DTEND:20240404T190000Z\r\nSUMMARY:Choir\r\nLOCATION:Hall B\r\nEND:VEVENT\r\n");
std::string walk(const std::string& exceptions) {
    return resource("BEGIN:VEVENT\r\nUID:walk\r\nDTSTAMP:20240101T000000Z\r\nDTSTART:20240603T150000Z\r\n"
                    "DTEND:20240603T160000Z\r\nSUMMARY:Walk\r\nRRULE:FREQ=DAILY;COUNT=3\r\n" +
                    exceptions + "END:VEVENT\r\n");
}
const std::string dentist = resource("BEGIN:VEVENT\r\nUID:dentist\r\nDTSTAMP:20240101T000000Z\r\n"
                                     "DTSTART:20240603T160000Z\r\nDTEND:20240603T170000Z\r\nSUMMARY:Dentist\r\n"
                                     "END:VEVENT\r\n");

json liveEvents(const char* from, const char* to) {
    const auto listed = runCommandLine({"events", "--from", from, "--to", to, "--json"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    return json::parse(listed.out);
}

// The whole road on a real server: the account added and made live, a restore point of it, events
// deleted on the server behind Morvane's back, found by compare and brought back.
TEST(CalDAVAccountTest, ARestorePointOfTheAccountBringsBackWhatTheServerLost) {
    const auto& server = Radicale::shared();
    if (server.skipReason()) GTEST_SKIP() << "no CalDAV server to test against: " << *server.skipReason();
    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};

    const auto calendar = server.makeCalendar("road", "Road");
    ASSERT_EQ(server.put(calendar + "choir.ics", choir) / 100, 2);
    ASSERT_EQ(server.put(calendar + "walk.ics", walk("")) / 100, 2);
    ASSERT_EQ(server.put(calendar + "dentist.ics", dentist) / 100, 2);

    const auto passwordFile = user.root().path() / "password";
    files::writePrivately(passwordFile, Radicale::password() + "\n");
    const auto account = server.account();
    const auto user_ = Radicale::user();
    const auto added = runCommandLine({"accounts", "add", "caldav", account.url.c_str(), "--user", user_.c_str(),
                                       "--name", "work", "--password-file", passwordFile.c_str()});
    ASSERT_EQ(added.status, 0) << added.err;
    EXPECT_TRUE(added.out.starts_with("Added \"work\" (")) << added.out;
    ASSERT_EQ(runCommandLine({"accounts", "use", "work"}).status, 0);
    const auto choirBefore = liveEvents("2024-03-01", "2024-05-01");
    ASSERT_EQ(choirBefore.size(), 5u) << choirBefore;

    const auto taken = runCommandLine({"snapshot", "--json"});
    ASSERT_EQ(taken.status, 0) << taken.err;
    EXPECT_EQ(json::parse(taken.out)["entry"]["format"], "eventkit");
    const std::string backup =
        json::parse(runCommandLine({"backups", "--json", "--no-time-machine"}).out)["sources"].back()["id"];

    // Behind Morvane's back: the series and the single event deleted, one walk left out.
    EXPECT_EQ(server.remove(calendar + "choir.ics") / 100, 2);
    EXPECT_EQ(server.remove(calendar + "dentist.ics") / 100, 2);
    EXPECT_EQ(server.put(calendar + "walk.ics", walk("EXDATE:20240604T150000Z\r\n")) / 100, 2);

    const auto compared = runCommandLine({"compare", backup.c_str(), "--json"});
    ASSERT_EQ(compared.status, 0) << compared.err;
    const auto missing = json::parse(compared.out)["missing"];
    std::string choirID;
    std::set<std::string> titles;
    for (const auto& event : missing) {
        titles.insert(event["title"].get<std::string>());
        if (event["title"] == "Choir") choirID = std::to_string(event["id"].get<std::int64_t>());
    }
    EXPECT_EQ(titles, (std::set<std::string>{"Choir", "Dentist"})) << missing;
    ASSERT_FALSE(choirID.empty());

    const auto restored = runCommandLine({"restore", backup.c_str(), choirID.c_str(), "--yes"});
    ASSERT_EQ(restored.status, 0) << restored.err;
    const auto choirAfter = liveEvents("2024-03-01", "2024-05-01");
    ASSERT_EQ(choirAfter.size(), choirBefore.size()) << choirAfter;
    for (size_t i = 0; i < choirAfter.size(); ++i)
        for (const auto* field : {"title", "start", "end", "occurrenceKey", "isDetached"})
            EXPECT_EQ(choirAfter[i][field], choirBefore[i][field]) << i << " " << field;

    const auto items = json::parse(
        runCommandLine({"timeline", backup.c_str(), "--from", "2024-06-03", "--to", "2024-06-06", "--json"}).out);
    std::string lost;
    for (const auto& item : items)
        if (item["state"] == "deleted" && item["title"] == "Walk") lost = item["id"];
    ASSERT_FALSE(lost.empty()) << items;
    const auto brought = runCommandLine({"restore", backup.c_str(), "--occurrence", lost.c_str(), "--yes"});
    EXPECT_EQ(brought.status, 0) << brought.out << brought.err;
    std::size_t walks = 0;
    for (const auto& event : liveEvents("2024-06-03", "2024-06-06"))
        walks += event["title"] == "Walk" ? 1 : 0;
    EXPECT_EQ(walks, 3u);

    // All of it went through the account: the local calendars were never made.
    EXPECT_FALSE(fs::exists(EKEventStore::defaultDatabasePath()));
}

} // namespace
} // namespace morvane
