#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <type_traits>
#include <utility>

namespace morvane::testing {

namespace detail {
// The service a fake stands in for, found through its Replaceable<Service> base.
template <typename Service> std::type_identity<Service> serviceOf(const Replaceable<Service>*);
} // namespace detail

// A fake that is the current implementation of its service for as long as this object lives:
// the fake and its ScopedReplacement in one, so that neither can outlive the other.
//
//     testing::Installed<testing::RecordingToolLauncher> tools;
//     tools->answer("/usr/bin/tmutil listbackups", {0, ""});
//
// Constructor arguments go to the fake. Install before the code under test starts threads.
template <typename Fake> class Installed {
public:
    using Service = typename decltype(detail::serviceOf(static_cast<const Fake*>(nullptr)))::type;

    template <typename... Arguments>
    explicit Installed(Arguments&&... arguments) : fake_(std::forward<Arguments>(arguments)...), replacement_(fake_) {}

    Installed(const Installed&) = delete;
    Installed& operator=(const Installed&) = delete;

    Fake& operator*() { return fake_; }
    const Fake& operator*() const { return fake_; }
    Fake* operator->() { return &fake_; }
    const Fake* operator->() const { return &fake_; }

private:
    Fake fake_;
    ScopedReplacement<Service> replacement_;
};

} // namespace morvane::testing
