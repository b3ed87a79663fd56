#include "MorvanePlatform/TerminalEcho.h"
#include "MorvanePlatform/ToolLauncher.h"
#include "MorvanePlatform/UserFolders.h"
#include "MorvanePlatform/Volumes.h"

#include "Support/Pinned.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mntent.h>
#include <stdexcept>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace morvane {
namespace {

LaunchResult shell(const std::string& script) { return ToolLauncher::system().launch("/bin/sh", {"-c", script}); }

TEST(ToolLauncher, MixesOutputAndErrorInOnePipeAndPassesArgumentsWithoutAShell) {
    // Standard input is empty: wc counts nothing.
    EXPECT_EQ(shell("echo first; echo second >&2; wc -c").output, "first\nsecond\n0\n");
    EXPECT_EQ(ToolLauncher::system().launch("/bin/echo", {"a b", "$HOME", "*", "'q'"}).output, "a b $HOME * 'q'\n");
    EXPECT_EQ(shell("exit 3").status, 3);
    EXPECT_EQ(shell("kill -TERM $$").status, 15);
    // Four megabytes: far more than a pipe buffers, so waiting first would hang.
    const auto large = shell("head -c 4194304 /dev/zero; echo done >&2");
    EXPECT_EQ(large.status, 0);
    ASSERT_EQ(large.output.size(), 4194304u + 5);
    EXPECT_EQ(large.output.substr(large.output.size() - 5), "done\n");
}

TEST(ToolLauncher, MissingRelativeOrNonExecutableToolsFailToLaunchWithTheirReason) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/usr/bin/tmutil-is-not-here", "Couldn't launch /usr/bin/tmutil-is-not-here: No such file or directory"},
        {"sh", "Couldn't launch sh"},
        {"/etc/hostname", "Couldn't launch /etc/hostname: "},
    };
    for (const auto& [tool, reason] : cases) {
        const auto result = ToolLauncher::system().launch(tool, {"-c", "true"});
        EXPECT_EQ(result.status, -1) << tool;
        EXPECT_TRUE(result.output.starts_with(reason)) << result.output;
    }
}

TEST(Volumes, GivesTheSourceOfTheFileSystemHoldingAPathOrNothing) {
    // The mount source of "/" as the mount table lists it last.
    std::string rootSource;
    FILE* table = ::setmntent("/proc/self/mounts", "r");
    while (const mntent* entry = ::getmntent(table)) {
        if (std::string(entry->mnt_dir) == "/") rootSource = entry->mnt_fsname;
    }
    ::endmntent(table);
    EXPECT_EQ(Volumes::system().deviceOf("/"), rootSource);
    // /proc is a mount of its own: the longest matching mount point wins.
    EXPECT_EQ(Volumes::system().deviceOf("/proc/self"), std::optional<std::string>("proc"));
    EXPECT_EQ(Volumes::system().deviceOf("/no/such/volume"), std::nullopt);
}

// HOME and TMPDIR themselves are what the program started by the restore point tests runs in.
TEST(UserFolders, TheTemporaryFolderAndHomeFallBackToTmpAndThePasswordDatabase) {
    testing::ScopedVariable tmp("TMPDIR", nullptr);
    EXPECT_EQ(UserFolders::system().temporary(), "/tmp");
    testing::ScopedVariable home("HOME", nullptr);
    EXPECT_FALSE(UserFolders::system().home().empty());
    EXPECT_EQ(UserFolders::system().homeOf(UserFolders::system().userName()), UserFolders::system().home());
    EXPECT_EQ(UserFolders::system().homeOf("no-such-user-here"), std::nullopt);
}

// A pseudo-terminal pair: the guard works on the terminal side while the test reads its mode.
class PseudoTerminal {
public:
    PseudoTerminal() {
        controller_ = ::posix_openpt(O_RDWR | O_NOCTTY);
        if (controller_ < 0 || ::grantpt(controller_) != 0 || ::unlockpt(controller_) != 0) return;
        const char* name = ::ptsname(controller_);
        if (name != nullptr) terminal_ = ::open(name, O_RDWR | O_NOCTTY);
    }
    ~PseudoTerminal() {
        if (terminal_ >= 0) ::close(terminal_);
        if (controller_ >= 0) ::close(controller_);
    }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    int fd() const { return terminal_; }
    bool echoes() const {
        termios mode{};
        ::tcgetattr(terminal_, &mode);
        return (mode.c_lflag & ECHO) != 0;
    }

private:
    int controller_ = -1;
    int terminal_ = -1;
};

TEST(EchoOff, TheEchoComesBackWhenTheScopeUnwindsAndWhenCtrlCEndsTheProcess) {
    PseudoTerminal terminal;
    if (terminal.fd() < 0) GTEST_SKIP() << "no pseudo-terminal on this machine";
    ASSERT_TRUE(terminal.echoes());
    struct sigaction before {};
    ::sigaction(SIGINT, nullptr, &before);
    try {
        const EchoOff silent(terminal.fd());
        EXPECT_FALSE(terminal.echoes());
        throw std::runtime_error("typing failed");
    } catch (const std::runtime_error&) {
    }
    EXPECT_TRUE(terminal.echoes());
    struct sigaction after {};
    ::sigaction(SIGINT, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const EchoOff silent(terminal.fd());
        ::raise(SIGINT);
        // Only reached when the signal didn't end the process.
        std::_Exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
    EXPECT_TRUE(terminal.echoes());
}

} // namespace
} // namespace morvane
