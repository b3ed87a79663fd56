#pragma once

#include <functional>
#include <iterator>
#include <type_traits>
#include <vector>

namespace morvane::testing {

// What `project` (a function or a member pointer) gives for each element of `range`, in order:
// the list a test compares in one expectation instead of building it in a loop.
template <typename Range, typename Project> auto mapped(const Range& range, Project project) {
    using Element = decltype(*std::begin(range));
    std::vector<std::decay_t<std::invoke_result_t<Project&, Element>>> result;
    for (const auto& element : range)
        result.push_back(std::invoke(project, element));
    return result;
}

} // namespace morvane::testing
