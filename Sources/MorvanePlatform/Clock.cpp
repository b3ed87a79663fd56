#include "MorvanePlatform/Clock.h"

#include "MorvanePlatform/CalendarDates.h"

#include <chrono>

namespace morvane {
namespace {

class SystemClock final : public Clock {
public:
    double now() const override {
        using namespace std::chrono;
        return duration<double>(system_clock::now().time_since_epoch()).count() - secondsFrom1970To2001;
    }
};

} // namespace

Clock& Clock::system() {
    static SystemClock clock;
    return clock;
}

} // namespace morvane
