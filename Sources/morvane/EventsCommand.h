#pragma once

#include <iosfwd>
#include <string>

namespace morvane::cli {

struct EventsOptions {
    // "YYYY-MM-DD" (the start of that day in the local zone) or an ISO 8601 date-time.
    std::string from;
    std::string to;
    bool json = false;
};

// `morvane events --from DATE --to DATE [--json]`: the live occurrences that meet the range,
// repeating events expanded, sorted by start. A date that doesn't read, or a range that ends
// before it starts, is a wrong command line (exit status 2).
int runEvents(const EventsOptions& options, std::ostream& out, std::ostream& err);

} // namespace morvane::cli
