#pragma once

#include "MorvanePlatform/Error.h"

#include <optional>
#include <string>
#include <utility>

namespace morvane::testing {

// What errorText gives when the work returned instead of throwing.
inline constexpr const char* nothingThrown = "(nothing thrown)";

// The description() of the `Wanted` error that `work` throws, or `nothingThrown` when it returns,
// so that a test compares the text and fails as well when nothing was thrown. An error of another
// type passes through and fails the test with its own text.
template <typename Wanted = Error, typename Work> std::string errorText(Work&& work) {
    try {
        std::forward<Work>(work)();
    } catch (const Wanted& error) {
        return error.description();
    }
    return nothingThrown;
}

// The `Wanted` error that `work` throws, for a test that looks at more than its text (its case,
// its coding path); nothing when `work` returns.
template <typename Wanted, typename Work> std::optional<Wanted> caught(Work&& work) {
    try {
        std::forward<Work>(work)();
    } catch (const Wanted& error) {
        return error;
    }
    return std::nullopt;
}

} // namespace morvane::testing
