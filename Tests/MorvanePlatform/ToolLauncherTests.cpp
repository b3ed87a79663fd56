#include "MorvanePlatform/ToolLauncher.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

LaunchResult shell(const std::string& script) { return ToolLauncher::system().launch("/bin/sh", {"-c", script}); }

TEST(ToolLauncher, MixesStandardOutputAndErrorInOnePipeWithStandardInputEmpty) {
    const auto result = shell("echo first; echo second >&2; wc -c");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "first\nsecond\n0\n");
}

TEST(ToolLauncher, PassesArgumentsWithoutAShell) {
    const auto result = ToolLauncher::system().launch("/bin/echo", {"a b", "$HOME", "*", "'q'"});
    EXPECT_EQ(result.output, "a b $HOME * 'q'\n");
}

TEST(ToolLauncher, ReportsExitStatusAndSignal) {
    EXPECT_EQ(shell("exit 3").status, 3);
    EXPECT_EQ(shell("kill -TERM $$").status, 15);
}

TEST(ToolLauncher, ReadsOutputLargerThanThePipeBeforeWaiting) {
    // Four megabytes: far more than a pipe buffers, so waiting first would hang.
    const auto result = shell("head -c 4194304 /dev/zero; echo done >&2");
    EXPECT_EQ(result.status, 0);
    ASSERT_EQ(result.output.size(), 4194304u + 5);
    EXPECT_EQ(result.output.substr(result.output.size() - 5), "done\n");
}

TEST(ToolLauncher, MissingOrRelativeToolFailsToLaunchWithItsReason) {
    const auto missing = ToolLauncher::system().launch("/usr/bin/tmutil-is-not-here", {"listbackups"});
    EXPECT_EQ(missing.status, -1);
    EXPECT_EQ(missing.output, "Couldn't launch /usr/bin/tmutil-is-not-here: No such file or directory");

    const auto relative = ToolLauncher::system().launch("sh", {"-c", "true"});
    EXPECT_EQ(relative.status, -1);
    EXPECT_NE(relative.output.find("Couldn't launch sh"), std::string::npos);

    const auto notExecutable = ToolLauncher::system().launch("/etc/hostname", {});
    EXPECT_EQ(notExecutable.status, -1);
    EXPECT_TRUE(notExecutable.output.starts_with("Couldn't launch /etc/hostname: ")) << notExecutable.output;
}

} // namespace
} // namespace morvane
