#pragma once

#include <iosfwd>
#include <optional>
#include <string>

namespace morvane::cli {

struct TimelineOptions {
    std::string backup;
    // As `events` takes them.
    std::string from;
    std::string to;
    bool json = false;
    // Where to write the page that draws the range, besides printing.
    std::optional<std::string> html;
};

// `morvane timeline BACKUP --from DATE --to DATE [--json]`: every occurrence of the range as the
// backup and the live calendars hold it, one line each by start, with a legend and counts per
// state at the end. A date that doesn't read, a range that ends before it starts or one over ten
// years is a wrong command line (exit 2); throws, for the command table to report, what loading
// the backup throws. With `html`, also writes the range drawn as one self-contained page to that
// file (mode 0600, replaced whole or not at all) and says where it is, after the list.
int runTimeline(const TimelineOptions& options, std::ostream& out, std::ostream& err);

} // namespace morvane::cli
