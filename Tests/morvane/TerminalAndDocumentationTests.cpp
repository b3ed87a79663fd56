#include "RunCommandLine.h"
#include "morvane/Documentation.h"
#include "morvane/TerminalOutput.h"

#include "Support/Fakes.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace morvane {
namespace {

using cli::ColorChoice;
using testing::runCommandLine;

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
        {"copies", "morvane copies COMMAND"},
        {"copies enable", "morvane copies enable --folder FOLDER"},
        // Options only for the completions stay out of sight.
        {"backups", "morvane backups [--json] [--no-time-machine] [--summaries]"},
        {"calendars", "morvane calendars [--json]"},
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
