// The saved mode lives in plain globals because the signal handler may only read memory and make
// async-signal-safe calls (tcsetattr, sigaction and raise are).
#include "MorvanePlatform/TerminalEcho.h"

#include "MorvanePlatform/Error.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <termios.h>

namespace morvane {
namespace {

constexpr std::array<int, 4> caught = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

int guardedFD = -1;
termios savedMode{};
std::array<struct sigaction, caught.size()> previous{};

void restoreHandlers() {
    for (size_t i = 0; i < caught.size(); ++i)
        ::sigaction(caught[i], &previous[i], nullptr);
}

extern "C" void restoreAndRaise(int signal) {
    ::tcsetattr(guardedFD, TCSANOW, &savedMode);
    restoreHandlers();
    // Blocked until the handler returns, then handled as before the guard.
    ::raise(signal);
}

} // namespace

EchoOff::EchoOff(int fd) {
    termios mode{};
    if (::tcgetattr(fd, &mode) != 0) throw PlatformError("The terminal can't be read: " + errnoText(errno) + ".");
    guardedFD = fd;
    savedMode = mode;
    struct sigaction handler {};
    handler.sa_handler = restoreAndRaise;
    sigemptyset(&handler.sa_mask);
    for (size_t i = 0; i < caught.size(); ++i) {
        ::sigaction(caught[i], nullptr, &previous[i]);
        if (previous[i].sa_handler != SIG_IGN) ::sigaction(caught[i], &handler, nullptr);
    }
    mode.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    mode.c_lflag |= ICANON;
    if (::tcsetattr(fd, TCSAFLUSH, &mode) != 0) {
        const int code = errno;
        restoreHandlers();
        throw PlatformError("The terminal's echo can't be turned off: " + errnoText(code) + ".");
    }
}

EchoOff::~EchoOff() {
    ::tcsetattr(guardedFD, TCSAFLUSH, &savedMode);
    restoreHandlers();
}

} // namespace morvane
