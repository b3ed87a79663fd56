#include "MorvanePlatform/Clock.h"

#include "MorvanePlatform/CalendarDates.h"

#include <chrono>
#include <thread>

namespace morvane {
namespace {

class SystemClock final : public Clock {
public:
    double now() const override {
        using namespace std::chrono;
        return duration<double>(system_clock::now().time_since_epoch()).count() - secondsFrom1970To2001;
    }
    void sleep(double seconds) override { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }
};

} // namespace

Clock& Clock::system() {
    static SystemClock clock;
    return clock;
}

} // namespace morvane
