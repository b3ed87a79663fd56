#include "MorvanePlatform/TerminalEcho.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace morvane {
namespace {

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
