#include "RunCommandLine.h"
#include "morvane/CommandLine.h"
#include "morvane/Documentation.h"
#include "morvane/TerminalOutput.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/SQLiteDB.h"
#include "MorvanePlatform/Files.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/CalendarGenerator.h"
#include "Support/Deadline.h"
#include "Support/EventStoreSnapshots.h"
#include "Support/Fakes.h"
#include "Support/SavedEvents.h"
#include "Support/TemporaryDirectory.h"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace morvane {
namespace {

using cli::ColorChoice;
using testing::HasSubstr;
using testing::holds;
using ::testing::Not;
using testing::runCommandLine;
namespace fs = std::filesystem;

class CommandLineTest : public ::testing::Test {
protected:
    testing::TemporaryUser user;
    testing::Installed<testing::RecordingToolLauncher> tools;
};

TEST_F(CommandLineTest, BackupsListsNewestFirstWithUndatedLastOrSaysThereIsNothingToRestoreFrom) {
    const auto none = runCommandLine({"backups"});
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.out, "Nothing to restore from: no restore points, copies or Time Machine backups.\n");
    EXPECT_EQ(nlohmann::json::parse(runCommandLine({"backups", "--json"}).out),
              (nlohmann::json{{"sources", nlohmann::json::array()}, {"notes", nlohmann::json::array()}}));

    tools->answer("/usr/bin/tmutil listlocalsnapshotdates /",
                  {0, testing::recordedOutput("tools/tmutil-listlocalsnapshotdates.txt")});
    tools->answer("/usr/bin/tmutil listbackups", {0, testing::recordedOutput("tools/tmutil-listbackups.txt")});
    const auto result = runCommandLine({"backups", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto document = nlohmann::json::parse(result.out);
    EXPECT_EQ(document["notes"], nlohmann::json::array());
    const auto& sources = document["sources"];
    ASSERT_EQ(sources.size(), 7u);
    EXPECT_EQ(sources[0], (nlohmann::json{{"id", "snap:com.apple.TimeMachine.2024-03-01-111522.local"},
                                          {"kind", "localSnapshot"},
                                          {"title", "Mar 1, 2024, 11:15\u202FAM"},
                                          {"subtitle", "Local snapshot"},
                                          {"date", "2024-03-01T19:15:22Z"}}));
    EXPECT_EQ(sources[4]["kind"], "timeMachine");
    EXPECT_EQ(sources[6]["date"], nullptr);
    EXPECT_EQ(sources[6]["title"], sources[6]["id"]);

    tools->answer("/usr/bin/tmutil listlocalsnapshotdates /", {0, "Snapshot dates for disk /:\n2024-03-01-101500\n"});
    tools->answer("/usr/bin/tmutil listbackups", {0, "No machine directory found for host.\n"});
    const auto text = runCommandLine({"backups"});
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.out, "Mar 1, 2024, 10:15\u202FAM  localSnapshot  Local snapshot\n"
                        "The Time Machine backup disk isn't connected; only local snapshots are listed.\n");
}

TEST_F(CommandLineTest, InspectReportsWhatADatabaseHoldsFromAStagedCopy) {
    // A copied home folder: the database lies at its usual place inside.
    const auto folder = user.root().path() / "picked";
    const auto file = folder / std::string(BackupLocator::relativeDBPath);
    {
        testing::CalendarDatabaseBuilder db(file);
        const auto calendar = db.addCalendar({.store = db.addStore({}), .title = "DEFAULT_CALENDAR_NAME"});
        const auto series = db.addItem({.calendar = calendar,
                                        .summary = "Standup",
                                        .start = 730944000.0,
                                        .end = 730945800.0,
                                        .uniqueIdentifier = "S-1"});
        db.addRecurrence({.owner = series, .frequency = std::int64_t{1}});
        db.addAlarm({.owner = series, .triggerInterval = std::int64_t{-900}});
        db.addExceptionDate(series, 731116800.0);
        db.addItem({.calendar = calendar,
                    .uniqueIdentifier = "S-1/RID=731030400",
                    .origItemID = series,
                    .origDate = 731030400.0});
        db.setOccurrenceWindow(730000000, 760000000, "America/Los_Angeles");
        db.close();
    }
    const auto result = runCommandLine({"inspect", folder.c_str(), "--events", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto report = nlohmann::json::parse(result.out);
    EXPECT_EQ(report["fingerprint"].get<std::string>().size(), 64u);
    EXPECT_TRUE(holds(report, {{"eventCount", 1}}));
    EXPECT_EQ(report["calendars"][0]["displayName"], "Calendar (On My Mac)");
    EXPECT_EQ(report["occurrenceWindow"]["start"], "2024-02-19T01:46:40Z");
    ASSERT_EQ(report["events"].size(), 2u);
    EXPECT_TRUE(holds(report["events"][0], {{"title", "Standup"},
                                            {"start", 730944000.0},
                                            {"recurrence", "FREQ=DAILY"},
                                            {"alarms", {"15m before"}},
                                            {"exceptionDates", {731116800.0}},
                                            {"masterRowID", nullptr}}));
    EXPECT_TRUE(holds(report["events"][1], {{"masterRowID", 1}, {"originalDate", 731030400.0}}));
    // Only a staged copy was opened, and it is gone.
    EXPECT_TRUE(std::filesystem::is_empty(user.temporary()));

    const auto text = runCommandLine({"inspect", file.c_str()});
    EXPECT_EQ(text.status, 0);
    EXPECT_THAT(text.out, HasSubstr("Events: 1\n"));
}

TEST_F(CommandLineTest, InspectReadsEventStoreRestorePointsAndFoldersOfIcsFiles) {
    const auto& root = user.root();
    const auto calevents = root.path() / "2024-03-02-120000.calevents";
    {
        EKEventStore store(root.path() / "live/Calendar.sqlitedb");
        testing::saveEvent(store, "Dentist", 760000000.0, 760003600.0);
        testing::writeEventStoreSnapshot(store, calevents, Date{760100000.0});
    }
    const auto document = runCommandLine({"inspect", calevents.c_str()});
    ASSERT_EQ(document.status, 0) << document.err;
    EXPECT_TRUE(document.out.starts_with("Fingerprint: ek:")) << document.out;
    EXPECT_THAT(document.out, HasSubstr("Events: 1\n"));
    EXPECT_THAT(document.out, HasSubstr("  1  Calendar (On My Mac)  (store type 0)\n"));

    root.write("ics/home/displayname", "Home");
    root.write("ics/home/walk.ics", "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:walk\r\nDTSTART:20240301T090000Z\r\n"
                                    "SUMMARY:Walk\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
    const auto latin1 = root.write("ics/home/old.ics", "SUMMARY:Caf\xE9\r\n");
    const auto hourly = root.write("ics/home/hourly.ics", "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:pings\r\n"
                                                          "DTSTART:20240301T090000Z\r\nRRULE:FREQ=HOURLY\r\n"
                                                          "END:VEVENT\r\nEND:VCALENDAR\r\n");
    const auto archive = runCommandLine({"inspect", (root.path() / "ics").c_str(), "--events", "--json"});
    ASSERT_EQ(archive.status, 0) << archive.err;
    const auto report = nlohmann::json::parse(archive.out);
    EXPECT_TRUE(holds(report, {{"fingerprint", nullptr}, {"eventCount", 1}, {"occurrenceWindow", nullptr}}));
    EXPECT_EQ(report["calendars"][0]["displayName"], "Home (archive)");
    EXPECT_EQ(report["events"][0]["uniqueIdentifier"], "walk");
    EXPECT_EQ(report["unreadableFiles"], nlohmann::json::array({latin1.string()}));
    EXPECT_EQ(report["skipped"], nlohmann::json::parse(R"([{"file": ")" + hourly.string() + R"(", "uid": "pings",
        "reason": "it repeats hourly (FREQ=HOURLY), which a calendar event can't"}])"));
    EXPECT_TRUE(std::filesystem::is_empty(user.temporary()));
}

// What a careless user or an attacker may hand `inspect`: each gets its reason in words at once,
// nothing is read without end or waited for, and nothing stays staged.
TEST_F(CommandLineTest, InspectOfHostilePathsFailsAtOnceWithTheReason) {
    const auto& root = user.root();
    const auto pipe = root.path() / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const auto zero = root.path() / "zero";
    std::filesystem::create_symlink("/dev/zero", zero);
    const auto withPipedLog = root.write("piped/Calendar.sqlitedb", "main");
    ASSERT_EQ(::mkfifo((withPipedLog.string() + "-wal").c_str(), 0600), 0);
    const auto locked = root.makeFolder("locked");
    std::filesystem::permissions(locked, std::filesystem::perms::none);
    // A page of the events' table overwritten.
    const auto damaged = root.path() / "damaged.sqlitedb";
    testing::generateCalendarFile(damaged, 300, 1);
    std::int64_t page = 0;
    std::int64_t pageSize = 0;
    {
        SQLiteDB db(damaged.string());
        db.query("SELECT pageno FROM dbstat WHERE name = 'CalendarItem' AND pagetype = 'leaf' ORDER BY pageno",
                 [&page](const SQLiteDB::Row& row) { page = *row.integer(0); });
        db.query("PRAGMA page_size", [&pageSize](const SQLiteDB::Row& row) { pageSize = *row.integer(0); });
    }
    ASSERT_GT(page, 1);
    auto bytes = files::read(damaged);
    files::write(damaged, bytes.replace(static_cast<size_t>((page - 1) * pageSize), static_cast<size_t>(pageSize),
                                        std::string(static_cast<size_t>(pageSize), '\x7f')));

    const auto notCalendar = " isn't a calendar database: ";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {pipe, "Copy failed: Couldn't read " + pipe.string() + ": it is a named pipe, not a file"},
        {zero, "Copy failed: Couldn't read " + zero.string() + ": it is a device, not a file"},
        {"/dev/zero", "Copy failed: Couldn't read /dev/zero: it is a device, not a file"},
        {withPipedLog, "Copy failed: Couldn't read " + withPipedLog.string() + "-wal: it is a named pipe, not a file"},
        {root.makeFolder("folder"), "No Calendar.sqlitedb found under " + (root.path() / "folder").string()},
        {root.path() / "missing",
         "No Calendar.sqlitedb found under " + (root.path() / "missing").string() + ": No such file or directory"},
        {root.write("empty.sqlitedb"), (root.path() / "empty.sqlitedb").string() + notCalendar + "the file is empty"},
        {root.write("notes.txt", std::string(4096, 'x')),
         (root.path() / "notes.txt").string() + notCalendar + "the file holds something else (file is not a database)"},
        {damaged, damaged.string() + notCalendar + "the file is damaged (database disk image is malformed)"},
    };
    testing::Deadline deadline(std::chrono::seconds(60), "inspect of hostile paths");
    for (const auto& [path, reason] : cases) {
        const auto result = runCommandLine({"inspect", path.c_str()});
        EXPECT_EQ(result.status, cli::exitFailure) << path;
        EXPECT_EQ(result.err, "morvane: " + reason + "\n") << path;
        EXPECT_TRUE(std::filesystem::is_empty(user.temporary())) << path;
    }
    // Permissions don't hold root back.
    if (::geteuid() != 0) {
        EXPECT_EQ(runCommandLine({"inspect", locked.c_str()}).err,
                  "morvane: No Calendar.sqlitedb found under " + locked.string() + ": Permission denied\n");
    }
    const auto empty = runCommandLine({"inspect", ""});
    EXPECT_EQ(empty.status, cli::exitUsage);
    EXPECT_THAT(empty.err, HasSubstr("can't be empty"));
}

TEST_F(CommandLineTest, AnythingThrownOutOfACommandEndsItWithOneLineAndStatusOne) {
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[] { throw std::runtime_error("stoi\nat line 3"); }, "morvane: stoi at line 3\n"},
        {[] { throw std::bad_alloc(); }, "morvane: out of memory.\n"},
        {[] { throw 42; }, "morvane: the command failed for an unknown reason.\n"},
    };
    for (const auto& [failure, message] : cases) {
        tools->simulate("/usr/bin/tmutil", [&](const std::vector<std::string>&) -> LaunchResult {
            failure();
            return {};
        });
        const auto result = runCommandLine({"backups"});
        EXPECT_EQ(result.status, cli::exitFailure);
        EXPECT_EQ(result.err, message);
    }
}

TEST_F(CommandLineTest, UsageErrorsExitWithTwoAndSuggestTheNearestName) {
    // At any depth, options too, whatever the case of what was typed.
    const std::vector<std::pair<std::vector<const char*>, std::string>> typos = {
        {{"bakups"}, "unknown command 'bakups'. Did you mean 'backups'?"},
        {{"INSPECT", "x"}, "unknown command 'INSPECT'. Did you mean 'inspect'?"},
        {{"timemachine", "pendng"}, "unknown command 'timemachine pendng'. Did you mean 'timemachine pending'?"},
        {{"backups", "--JSON"}, "unknown option '--JSON' for 'backups'. Did you mean '--json'?"},
        {{"timemachine", "pending", "--jsn"},
         "unknown option '--jsn' for 'timemachine pending'. Did you mean '--json'?"},
    };
    for (const auto& [arguments, complaint] : typos) {
        const auto result = runCommandLine(arguments);
        EXPECT_EQ(result.status, cli::exitUsage) << complaint;
        EXPECT_TRUE(result.err.starts_with("morvane: " + complaint + "\n")) << result.err;
    }

    const auto unrelated = runCommandLine({"frobnicate"});
    EXPECT_EQ(unrelated.status, cli::exitUsage);
    EXPECT_THAT(unrelated.err, Not(HasSubstr("Did you mean")));

    EXPECT_EQ(runCommandLine({}).status, cli::exitUsage);
    EXPECT_EQ(runCommandLine({"backups", "--jsn"}).status, cli::exitUsage);
    // A value that happens to look like a command is the option's.
    EXPECT_EQ(runCommandLine({"events", "--from", "backups", "--to", "2024-01-01"}).status, cli::exitUsage);
    EXPECT_TRUE(tools->commandLines().empty());

    const auto version = runCommandLine({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(version.out.starts_with("morvane ")) << version.out;

    const auto help = runCommandLine({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, HasSubstr("backups"));
}

// The real program, interrupted as a user or the system would interrupt it.
class InterruptionTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        shared = new testing::TemporaryDirectory;
        database = shared->path() / "Calendar.sqlitedb";
        testing::generateCalendarFile(database, 3000, 7);
    }
    static void TearDownTestSuite() {
        delete shared;
        shared = nullptr;
    }

    static inline testing::TemporaryDirectory* shared = nullptr;
    static inline fs::path database;
    testing::TemporaryDirectory folder;
    const fs::path home = folder.makeFolder("home");
    const fs::path temporary = folder.makeFolder("tmp");
};

TEST_F(InterruptionTest, ASignalDuringInspectRemovesTheStagedCopyAndEndsWithItsStatus) {
    testing::Deadline deadline(std::chrono::seconds(120), "interrupting morvane");
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const pid_t child = testing::startProgram({"inspect", database.string(), "--events"}, home, temporary);
        ASSERT_GT(child, 0);
        // As soon as the user's calendars lie in a staged copy.
        int status = 0;
        bool ended = false;
        while (fs::is_empty(temporary) && !ended) {
            ended = ::waitpid(child, &status, WNOHANG) == child;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        ASSERT_FALSE(ended) << "inspect ended before it could be interrupted";
        ASSERT_EQ(::kill(child, signal), 0);
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status)) << "signal " << signal << " killed it without cleaning up";
        EXPECT_EQ(WEXITSTATUS(status), 128 + signal);
        EXPECT_TRUE(fs::is_empty(temporary)) << fs::directory_iterator(temporary)->path();
    }
}

TEST(TerminalOutputTest, ColourFollowsTheChoiceThenNoColorThenTheTerminal) {
    struct Case {
        ColorChoice choice;
        bool terminal;
        const char* noColor;
        const char* term;
        bool colored;
    };
    const std::vector<Case> cases = {
        {ColorChoice::always, false, "1", "dumb", true}, // asked for: the environment doesn't count
        {ColorChoice::never, true, nullptr, "xterm", false},
        {ColorChoice::automatic, true, nullptr, "xterm", true},
        {ColorChoice::automatic, true, nullptr, nullptr, true},
        {ColorChoice::automatic, false, nullptr, "xterm", false},
        {ColorChoice::automatic, true, "1", "xterm", false},
        {ColorChoice::automatic, true, "", "xterm", true}, // NO_COLOR set but empty doesn't count
        {ColorChoice::automatic, true, nullptr, "dumb", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(cli::wantsColor(c.choice, c.terminal, c.noColor, c.term), c.colored)
            << static_cast<int>(c.choice) << ' ' << c.terminal << ' ' << (c.noColor ? c.noColor : "unset") << ' '
            << (c.term ? c.term : "unset");
}

TEST(TerminalOutputTest, ColorIsAnOptionOfTheProgramBeforeOrAfterTheCommand) {
    testing::TemporaryUser user;
    const std::vector<std::pair<std::vector<const char*>, std::string>> cases = {
        {{"--color", "always", "inspect", "/nonexistent/Calendar.sqlitedb"}, "\033[1;31mmorvane:\033[0m "},
        {{"inspect", "/nonexistent/Calendar.sqlitedb", "--color=always"}, "\033[1;31mmorvane:\033[0m "},
        {{"inspect", "/nonexistent/Calendar.sqlitedb", "--color", "never"}, "morvane: "},
        // Text caught in a string isn't a terminal.
        {{"inspect", "/nonexistent/Calendar.sqlitedb"}, "morvane: "},
    };
    for (const auto& [arguments, prefix] : cases) {
        const auto result = runCommandLine(arguments);
        EXPECT_EQ(result.status, cli::exitFailure) << result.err;
        EXPECT_TRUE(result.err.starts_with(prefix)) << result.err;
    }
    const auto wrong = runCommandLine({"--color", "sometimes", "calendars"});
    EXPECT_EQ(wrong.status, cli::exitUsage);
    EXPECT_THAT(wrong.err, testing::HasSubstr("sometimes"));
}

TEST(DocumentationTest, SynopsesShowPositionalsThenRequiredThenOptionalOptions) {
    const auto all = cli::documentation::commands();
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "morvane COMMAND [--color WHEN]"},
        {"plan", "morvane plan BACKUP ID... [--into CALENDAR] [--json]"},
        {"restore", "morvane restore BACKUP [ID...] [--occurrence ITEM_ID] [--into CALENDAR] [--yes] [--json]"},
        {"timeline", "morvane timeline BACKUP --from DATE --to DATE [--json] [--html FILE]"},
        {"copies enable", "morvane copies enable --folder FOLDER"},
        // Options only for the completions stay out of sight.
        {"backups", "morvane backups [--json] [--no-time-machine] [--summaries]"},
    };
    for (const auto& [path, expected] : cases) {
        const auto found =
            std::find_if(all.begin(), all.end(), [&](const auto& command) { return command.path == path; });
        ASSERT_NE(found, all.end()) << path;
        EXPECT_EQ(cli::documentation::synopsis(*found), expected);
    }
}

} // namespace
} // namespace morvane
