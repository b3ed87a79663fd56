#include "RunCommandLine.h"

#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "Support/Fakes.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"
#include "morvane/SnapshotCommand.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::runCommandLine;
using testing::utc;

constexpr const char* systemctl = "/usr/bin/systemctl --user ";

class RestorePointCommandsTest : public ::testing::Test {
protected:
    static void saveOneEvent(const char* title) {
        EKEventStore live;
        testing::saveEvent(live, title, utc(2025, 8, 1, 16), utc(2025, 8, 1, 17));
    }

    testing::TemporaryUser user;
    testing::Installed<testing::RecordingToolLauncher> tools;
    testing::Installed<testing::FixedClock> clock{utc(2025, 8, 15, 19)}; // noon in the pinned zone
    testing::Installed<testing::FakeMachine> laptop{"LAPTOP-ID", "Laptop"};
};

TEST_F(RestorePointCommandsTest, OnAFreshHomeASecondSnapshotFindsTheFirstUnchangedAndBackupsListsIt) {
    const auto first = runCommandLine({"snapshot"});
    ASSERT_EQ(first.status, 0) << first.err;
    EXPECT_EQ(first.out, "Saved restore point 2025-08-15-120000 (0 events).\n");

    clock->set(clock->now() + 3600);
    EXPECT_EQ(runCommandLine({"snapshot"}).out, "Unchanged since 2025-08-15-120000.\n");
    EXPECT_EQ(runCommandLine({"snapshot", "--quiet"}).out, "");
    const auto json = nlohmann::json::parse(runCommandLine({"snapshot", "--json"}).out);
    EXPECT_TRUE(testing::holds(json, {{"result", "unchanged"}, {"copies", nullptr}}));
    EXPECT_EQ(json["entry"]["stamp"], "2025-08-15-120000");

    const auto listed = runCommandLine({"backups", "--no-time-machine"});
    EXPECT_EQ(listed.status, 0);
    EXPECT_EQ(listed.out, "Aug 15, 2025, 12:00\u202FPM  appSnapshot  Morvane snapshot\n");
    EXPECT_TRUE(tools->commandLines().empty());
}

TEST_F(RestorePointCommandsTest, ASecondComputerSeesTheFirstOnesCopiesAndReadsThem) {
    const auto folder = user.root().makeFolder("Nextcloud/Morvane");
    saveOneEvent("Dentist");
    ASSERT_EQ(runCommandLine({"snapshot"}).status, 0);
    const auto enabled = runCommandLine({"copies", "enable", "--folder", folder.c_str()});
    ASSERT_EQ(enabled.status, 0) << enabled.err;
    EXPECT_EQ(enabled.out, "Copies are on: restore points go to " + folder.string() +
                               ".\nCopies: 1 copied, 0 removed, 1 in " + folder.string() + ".\n");
    EXPECT_EQ(
        runCommandLine({"copies", "status"}).out,
        "Copies:        on\nFolder:        " + folder.string() +
            "\nLast synced:   Aug 15, 2025, 12:00\u202FPM\nThis computer: 1 copy, " +
            cli::byteCount(static_cast<std::int64_t>(fs::file_size(folder / "Laptop" / "2025-08-15-120000.calsnap"))) +
            "\nComputers:     Laptop (this computer)\n");

    // Another home on another computer, whose calendars are empty.
    testing::TemporaryUser otherUser;
    testing::Installed<testing::FakeMachine> desktop{"DESKTOP-ID", "Desktop"};
    ASSERT_EQ(runCommandLine({"copies", "enable", "--folder", folder.c_str()}).status, 0);
    const auto listed = runCommandLine({"backups", "--no-time-machine"});
    EXPECT_EQ(listed.out, "Aug 15, 2025, 12:00\u202FPM  iCloudSnapshot  iCloud \u00B7 Laptop\n");
    const auto copy = folder / "Laptop" / "2025-08-15-120000.calsnap";
    const auto inspected = runCommandLine({"inspect", copy.c_str(), "--json"});
    ASSERT_EQ(inspected.status, 0) << inspected.err;
    EXPECT_EQ(nlohmann::json::parse(inspected.out)["eventCount"], 1);

    // Removing takes this computer's copies only.
    EXPECT_EQ(
        runCommandLine({"copies", "remove"}).out,
        "Removed this computer's copies (0) from " + (folder / "Desktop").string() +
            ".\nCopies are still on, so the next snapshot copies again; morvane copies disable turns them off.\n");
    EXPECT_TRUE(fs::exists(copy));
    EXPECT_EQ(runCommandLine({"copies", "list"}).out,
              "Aug 15, 2025, 12:00\u202FPM  Laptop  1 events, " +
                  cli::byteCount(static_cast<std::int64_t>(fs::file_size(copy))) + "  " + copy.string() + "\n");
}

TEST_F(RestorePointCommandsTest, CopiesAndTheTimerSayWhatIsMissing) {
    const auto off = runCommandLine({"copies", "sync"});
    EXPECT_EQ(off.status, 1);
    EXPECT_EQ(off.err, "morvane: copies are off; turn them on with: morvane copies enable --folder PATH\n");
    const auto nowhere = runCommandLine({"copies", "enable", "--folder", "/no/such/folder"});
    EXPECT_EQ(nowhere.status, 1);
    EXPECT_EQ(nowhere.err, "morvane: There is no folder at /no/such/folder; name an existing folder that a sync tool "
                           "keeps in step.\n");

    // A session without a systemd user instance to talk to.
    tools->answerPrefix(systemctl, {1, "Failed to connect to bus: No medium found\n"});
    const auto noBus = runCommandLine({"schedule", "enable"});
    EXPECT_EQ(noBus.status, 1);
    EXPECT_EQ(noBus.err, "morvane: There is no systemd user instance for this session (systemctl --user can't reach "
                         "it), so the hourly timer can't be turned on; run morvane snapshot from another scheduler "
                         "(such as cron) instead.\n");

    tools->answer(std::string(systemctl) + "show morvane-snapshot.timer --property=LoadState --property=UnitFileState "
                                           "--property=ActiveState --property=NextElapseUSecRealtime",
                  {0, "LoadState=loaded\nUnitFileState=enabled\nActiveState=active\n"
                      "NextElapseUSecRealtime=Fri 2025-08-15 13:00:00 PDT\n"});
    EXPECT_EQ(runCommandLine({"schedule", "status"}).out,
              "A restore point is taken every hour; the next at Fri 2025-08-15 13:00:00 PDT.\n");
}

TEST_F(RestorePointCommandsTest, TwoProgramsAtOnceSaveOneRestorePointBetweenThem) {
    saveOneEvent("Dentist");
    std::vector<std::pair<pid_t, fs::path>> programs;
    for (const char* out : {"first.json", "second.json"}) {
        const auto path = user.root().path() / out;
        programs.emplace_back(testing::startProgram({"snapshot", "--json"}, user.home(), user.temporary(), path), path);
    }
    // One compared after the other had written: it found the same calendars, already saved.
    std::multiset<std::string> results;
    for (const auto& [pid, out] : programs) {
        int status = -1;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_EQ(status, 0);
        results.insert(nlohmann::json::parse(files::read(out))["result"].get<std::string>());
    }
    EXPECT_EQ(results, (std::multiset<std::string>{"saved", "unchanged"}));
    const auto entries = CalendarArchive::shared()->entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_TRUE(fs::exists(CalendarArchive::shared()->fileURL(entries[0])));
}

} // namespace
} // namespace morvane
