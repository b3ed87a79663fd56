#pragma once

#include <iosfwd>
#include <string>

namespace morvane::cli {

struct TimelineOptions {
    std::string backup;
    // As `events` takes them.
    std::string from;
    std::string to;
    bool json = false;
};

// `morvane timeline BACKUP --from DATE --to DATE [--json]`: every occurrence of the range as the
// backup and the live calendars hold it, one line each by start, with a legend and counts per
// state at the end. A date that doesn't read, a range that ends before it starts or one over ten
// years is a wrong command line (exit 2); throws, for the command table to report, what loading
// the backup throws.
int runTimeline(const TimelineOptions& options, std::ostream& out, std::ostream& err);

} // namespace morvane::cli
