#pragma once

#include "morvane/CommandLine.h"

#include <sstream>
#include <string>
#include <vector>

namespace morvane::testing {

// What one run of the program printed, and its exit status.
struct Outcome {
    int status;
    std::string out;
    std::string err;
};

// Runs the program in-process with `arguments` (without the program's name).
inline Outcome runCommandLine(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "morvane");
    std::ostringstream out;
    std::ostringstream err;
    const int status = cli::run(static_cast<int>(arguments.size()), arguments.data(), out, err);
    return {status, out.str(), err.str()};
}

} // namespace morvane::testing
