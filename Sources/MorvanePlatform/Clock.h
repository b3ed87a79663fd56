#pragma once

#include "MorvanePlatform/Replaceable.h"

namespace morvane {

// The wall clock of the machine, and waiting on it. Moments are seconds since 2001-01-01 00:00:00
// UTC, the unit of the calendar database; tests pin the clock by replacing this service, and a
// test's clock passes a wait by moving its own time on, without waiting.
//
// Threads: any thread, concurrently; the real clock holds no state.
class Clock : public Replaceable<Clock> {
public:
    virtual ~Clock() = default;

    virtual double now() const = 0;
    // Blocks the calling thread for `seconds`.
    virtual void sleep(double seconds) = 0;

    // The system clock.
    static Clock& system();
};

} // namespace morvane
