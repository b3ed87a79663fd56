#include "RunCommandLine.h"

#include "MorvanePlatform/Accounts.h"
#include "MorvanePlatform/Files.h"
#include "Support/Fakes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::runCommandLine;

constexpr const char* secret = "s3cret-Pa55";

class AccountsCommandTest : public ::testing::Test {
protected:
    AccountsCommandTest() {
        files::writePrivately(passwordFile, std::string(secret) + "\n");
        AccountList list;
        list.accounts.push_back({"work", "https://dav.example.com/cal/", "jane", secret, std::nullopt, false});
        accounts::save(list);
    }

    // Runs the command and checks that the password shows nowhere in what it printed.
    testing::Outcome run(std::vector<const char*> arguments) {
        auto outcome = runCommandLine(std::move(arguments));
        EXPECT_EQ(outcome.out.find(secret), std::string::npos) << outcome.out;
        EXPECT_EQ(outcome.err.find(secret), std::string::npos) << outcome.err;
        return outcome;
    }

    testing::TemporaryUser user;
    const fs::path passwordFile = user.root().path() / "password";
};

TEST_F(AccountsCommandTest, ListUseAndRemoveChooseTheLiveStore) {
    auto listed = run({"accounts", "list"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_EQ(listed.out, "* local  the calendars on this computer\n"
                          "  work   https://dav.example.com/cal/  jane\n");

    auto used = run({"accounts", "use", "work"});
    EXPECT_EQ(used.status, 0) << used.err;
    EXPECT_EQ(used.out, "The live calendars are those of \"work\" (https://dav.example.com/cal/).\n");
    EXPECT_FALSE(accounts::localStoreIsLive());
    const auto json = nlohmann::json::parse(run({"accounts", "list", "--json"}).out);
    EXPECT_EQ(json["live"], "work");
    EXPECT_EQ(json["accounts"][0]["live"], true);
    EXPECT_EQ(json["accounts"][0]["user"], "jane");
    EXPECT_FALSE(json["accounts"][0].contains("password"));

    auto removed = run({"accounts", "remove", "work"});
    EXPECT_EQ(removed.status, 0) << removed.err;
    EXPECT_EQ(removed.out, "Removed \"work\". The live calendars are the local ones again.\n");
    EXPECT_EQ(accounts::load(), AccountList{});
    EXPECT_EQ(run({"accounts", "use", "local"}).out, "The live calendars are the local ones.\n");
}

TEST_F(AccountsCommandTest, UninstallSaysItTakesTheAccountsAndTheirPasswordsAndDoes) {
    const auto removed = run({"uninstall", "--yes"});
    EXPECT_EQ(removed.status, 0) << removed.err;
    EXPECT_NE(removed.out.find("The CalDAV accounts and their passwords (" + accounts::file().string() + ")"),
              std::string::npos)
        << removed.out;
    EXPECT_FALSE(fs::exists(accounts::file()));
    EXPECT_EQ(run({"uninstall", "--yes"}).out.find("CalDAV accounts"), std::string::npos) << "none left to name";
}

TEST_F(AccountsCommandTest, BadInputIsRefusedAndLeavesTheAccountsAsTheyWere) {
    const auto loose = user.root().path() / "loose";
    files::write(loose, secret);
    files::setPermissions(loose, 0644);
    const auto pw = passwordFile.c_str();
    const struct {
        std::vector<const char*> arguments;
        int status;
        std::string wanted; // a part of standard error
    } cases[] = {
        {{"accounts", "use", "nobody"}, 1, "there is no account named \"nobody\""},
        {{"accounts", "remove", "local"}, 1, "there is no account named \"local\""},
        {{"accounts", "add", "caldav", "ftp://dav.example.com/", "--user", "jane", "--password-file", pw},
         2,
         "isn't the address of a CalDAV server"},
        {{"accounts", "add", "caldav", "https://jane:pw@dav.example.com/", "--user", "jane", "--password-file", pw},
         2,
         "without a user or password in it"},
        {{"accounts", "add", "caldav", "http://dav.example.com/", "--user", "jane", "--password-file", pw},
         2,
         "add --allow-http for a network you trust"},
        {{"accounts", "add", "caldav", "https://dav.example.org/", "--user", "jane", "--name", "local",
          "--password-file", pw},
         2,
         "'local' can't name an account"},
        {{"accounts", "add", "caldav", "https://dav.example.org/", "--user", "jane", "--name", "work",
          "--password-file", pw},
         1,
         "there is an account named \"work\" already"},
        {{"accounts", "add", "caldav", "https://dav.example.org/", "--user", "jane", "--password-file", loose.c_str()},
         1,
         "can be read by other users (mode 644); make it yours alone with: chmod 600"},
        // Nothing listens on the discard port.
        {{"accounts", "add", "caldav", "http://127.0.0.1:9/", "--user", "jane", "--password-file", pw},
         1,
         "the account couldn't be opened, so it wasn't saved: "},
        {{"accounts", "add", "caldav", "https://dav.example.org/", "--user", "jane", "--ca-file", "/nonexistent.pem",
          "--password-file", pw},
         1,
         "there is no certificate file at /nonexistent.pem"},
    };
    const auto before = files::read(accounts::file());
    for (const auto& c : cases) {
        const auto outcome = run(c.arguments);
        EXPECT_EQ(outcome.status, c.status) << c.wanted << ": " << outcome.err;
        EXPECT_NE(outcome.err.find(c.wanted), std::string::npos) << outcome.err;
        EXPECT_EQ(outcome.out, "") << c.wanted;
        EXPECT_EQ(files::read(accounts::file()), before) << c.wanted;
    }
    // Typing the password takes a terminal; a test run from one would wait for it.
    if (::isatty(STDIN_FILENO) == 0) {
        const auto typed = run({"accounts", "add", "caldav", "https://dav.example.org/", "--user", "jane"});
        EXPECT_EQ(typed.status, 1);
        EXPECT_NE(typed.err.find("standard input isn't a terminal"), std::string::npos) << typed.err;
    }
}

} // namespace
} // namespace morvane
