#pragma once

// Typing a secret on a terminal.
namespace morvane {

// Turns a terminal's echo off for the guard's life. The echo comes back when the guard goes,
// however its scope is left, and also when SIGINT, SIGTERM, SIGHUP or SIGQUIT arrives meanwhile:
// the handler puts the terminal back, then the signal does what it did before (usually ending
// the process). Signals the process ignores stay ignored. One guard at a time per process; the
// guard lives on the thread that made it.
class EchoOff {
public:
    // Throws PlatformError (the system's reason) when `fd` isn't a terminal or its mode can't be
    // set; nothing is changed then.
    explicit EchoOff(int fd);
    ~EchoOff();
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;
};

} // namespace morvane
