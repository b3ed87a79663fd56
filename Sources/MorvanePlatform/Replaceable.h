#pragma once

#include <atomic>

namespace morvane {

// The seam between the core and the operating system. Each platform service is an interface
// deriving from Replaceable<Service> with a static `system()` that returns the real
// implementation; the core always reaches a service through `Service::current()`.
//
// A test swaps in its own implementation for a scope with ScopedReplacement. Replacements are
// meant to be installed before the work under test starts threads, and removed after.
//
// Threads: `current()` may be called on any thread at any time; the slot is atomic. Whether the
// service itself may be called concurrently is each service's own contract, which a replacement
// keeps for the threads the work under test calls it from.
template <typename Service> class Replaceable {
public:
    static Service& current() {
        Service* replacement = slot().load(std::memory_order_acquire);
        return replacement != nullptr ? *replacement : Service::system();
    }

private:
    template <typename> friend class ScopedReplacement;

    static std::atomic<Service*>& slot() {
        static std::atomic<Service*> installed{nullptr};
        return installed;
    }
};

// Installs `replacement` as Service::current() until the end of the scope, then restores
// whatever was current before. The replacement is borrowed and must outlive the scope.
template <typename Service> class ScopedReplacement {
public:
    explicit ScopedReplacement(Service& replacement) : previous_(Replaceable<Service>::slot().exchange(&replacement)) {}
    ~ScopedReplacement() { Replaceable<Service>::slot().store(previous_); }

    ScopedReplacement(const ScopedReplacement&) = delete;
    ScopedReplacement& operator=(const ScopedReplacement&) = delete;

private:
    Service* const previous_;
};

} // namespace morvane
