#include "MorvanePlatform/SystemLog.h"

#include <syslog.h>

namespace morvane {
namespace {

class Syslog final : public SystemLog {
public:
    void write(const std::string& line) override { ::syslog(LOG_NOTICE, "%s", line.c_str()); }
};

} // namespace

SystemLog& SystemLog::system() {
    static Syslog log;
    return log;
}

} // namespace morvane
