#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <string>

namespace morvane {

// The system log, for the few lines a program writes where no user reads them at once.
//
// Threads: any thread, concurrently; each line goes to the log whole, as one message.
class SystemLog : public Replaceable<SystemLog> {
public:
    virtual ~SystemLog() = default;
    virtual void write(const std::string& line) = 0;

    // The real log: syslog.
    static SystemLog& system();
};

} // namespace morvane
