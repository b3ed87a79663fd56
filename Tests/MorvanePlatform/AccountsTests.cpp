#include "MorvanePlatform/Accounts.h"

#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "Support/ErrorText.h"
#include "Support/Fakes.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::errorText;

constexpr const char* secret = "s3cret-Pa55";

unsigned modeOf(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 0777;
}

AccountList twoAccounts() {
    AccountList list;
    list.accounts.push_back({"work", "https://dav.example.com/", "jane", secret, fs::path("/etc/ca.pem"), false});
    list.accounts.push_back({"home", "http://127.0.0.1:5232/", "jane", "other \"quoted\"\n", std::nullopt, true});
    list.live = "home";
    return list;
}

class AccountsTest : public ::testing::Test {
protected:
    testing::TemporaryUser user;
};

TEST_F(AccountsTest, RoundTripsPrivatelyAndAtomicallyOverALooserFolder) {
    EXPECT_EQ(accounts::load(), AccountList{});
    EXPECT_TRUE(accounts::localStoreIsLive());

    // A folder made by other work with the umask's mode is narrowed before a password goes in.
    files::createDirectories(accounts::file().parent_path());
    files::setPermissions(accounts::file().parent_path(), 0755);
    ::umask(0);
    accounts::save(twoAccounts());
    ::umask(022);
    EXPECT_EQ(accounts::load(), twoAccounts());
    EXPECT_EQ(modeOf(accounts::file()), 0600u);
    EXPECT_EQ(modeOf(accounts::file().parent_path()), 0700u);
    EXPECT_FALSE(accounts::localStoreIsLive());
    EXPECT_EQ(accounts::load().liveAccount()->name, "home");

    auto local = twoAccounts();
    local.live = AccountList::localName;
    accounts::save(local);
    EXPECT_TRUE(accounts::localStoreIsLive());
    // Nothing but the file: no temporary stays beside it.
    EXPECT_EQ(std::distance(fs::directory_iterator(accounts::file().parent_path()), fs::directory_iterator()), 1);
}

TEST_F(AccountsTest, AFileOthersCouldReadOrThatIsntAListIsRefusedWithoutItsPasswords) {
    const auto path = accounts::file().string();
    const std::string chmod = "Make it yours alone with: chmod 600 '" + path + "'";
    const struct {
        const char* name;
        unsigned mode;
        std::string content;
        std::string wanted; // a part of the error's text
    } cases[] = {
        {"readable by all", 0644, "", chmod},
        {"readable by the group", 0640, "", chmod},
        {"writable by others", 0602, "", chmod},
        {"not JSON", 0600, std::string("{\"password\": \"") + secret, "isn't a list of accounts"},
        {"live account missing", 0600,
         std::string(R"({"live": "gone", "accounts": [{"name": "work", "url": "u", "user": "j", "password": ")") +
             secret + "\"}]}",
         "isn't a list of accounts"},
    };
    for (const auto& c : cases) {
        accounts::save(twoAccounts());
        if (!c.content.empty()) files::write(path, c.content);
        files::setPermissions(path, c.mode);
        const auto text = errorText<AccountsError>([] { accounts::load(); });
        EXPECT_NE(text.find(c.wanted), std::string::npos) << c.name << ": " << text;
        EXPECT_EQ(text.find(secret), std::string::npos) << c.name;
        // Nothing falls back to the local calendars, and opening the store says why.
        EXPECT_FALSE(accounts::localStoreIsLive()) << c.name;
        EXPECT_EQ(errorText<EventStoreError>([] { EKEventStore store; }), text) << c.name;
        EXPECT_FALSE(fs::exists(EKEventStore::defaultDatabasePath())) << c.name;
    }
}

TEST_F(AccountsTest, TheDefaultStoreIsTheLiveAccountsNeverTheLocalDatabase) {
    AccountList list;
    // Nothing listens on the discard port: opening the account fails, and says which one.
    list.accounts.push_back({"work", "http://127.0.0.1:9/", "jane", secret, std::nullopt, false});
    list.live = "work";
    accounts::save(list);
    const auto text = errorText<EventStoreError>([] { EKEventStore store; });
    EXPECT_NE(text, testing::nothingThrown);
    EXPECT_EQ(text.find(secret), std::string::npos) << text;
    EXPECT_FALSE(fs::exists(EKEventStore::defaultDatabasePath()));

    list.live = AccountList::localName;
    accounts::save(list);
    EKEventStore local;
    EXPECT_EQ(local.databasePath(), EKEventStore::defaultDatabasePath());
}

} // namespace
} // namespace morvane
