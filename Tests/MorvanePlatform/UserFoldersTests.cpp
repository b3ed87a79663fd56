#include "MorvanePlatform/UserFolders.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace morvane {
namespace {

// Sets an environment variable for the scope, restoring the old value after.
class ScopedVariable {
public:
    ScopedVariable(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ~ScopedVariable() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

private:
    const char* name_;
    std::optional<std::string> old_;
};

TEST(UserFolders, HomeAndTemporaryFolderComeFromTheEnvironment) {
    ScopedVariable home("HOME", "/home/jane");
    EXPECT_EQ(UserFolders::system().applicationSupport(), "/home/jane/Library/Application Support");
    {
        ScopedVariable tmp("TMPDIR", "/var/tmp/jane");
        EXPECT_EQ(UserFolders::system().temporary(), "/var/tmp/jane");
    }
    ScopedVariable tmp("TMPDIR", nullptr);
    EXPECT_EQ(UserFolders::system().temporary(), "/tmp");
}

TEST(UserFolders, HomeFallsBackToThePasswordDatabase) {
    ScopedVariable home("HOME", nullptr);
    EXPECT_FALSE(UserFolders::system().home().empty());
    const auto own = UserFolders::system().homeOf(UserFolders::system().userName());
    ASSERT_TRUE(own.has_value());
    EXPECT_EQ(UserFolders::system().home(), *own);
    EXPECT_EQ(UserFolders::system().homeOf("no-such-user-here"), std::nullopt);
}

} // namespace
} // namespace morvane
