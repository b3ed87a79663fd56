#pragma once

#include <iosfwd>
#include <string>

namespace morvane::cli {

struct InspectOptions {
    std::string path;
    bool events = false;
    bool json = false;
};

// `morvane inspect PATH [--events] [--json]`: what a calendar database holds, read from a staged
// copy (the file itself is never opened). Fails, with the reason on `err`, for a database that
// can't be found, copied, opened or trusted.
int runInspect(const InspectOptions& options, std::ostream& out, std::ostream& err);

} // namespace morvane::cli
