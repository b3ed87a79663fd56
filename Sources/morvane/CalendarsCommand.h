#pragma once

#include <iosfwd>

namespace morvane::cli {

struct CalendarsOptions {
    bool json = false;
};

// `morvane calendars [--json]`: every event calendar of the live store, in the store's order,
// with its identifier, title, account, kind, whether it can be written and its colour. Opening
// the store creates it on a machine that has none. Throws, for the command table to report, when
// calendar access is refused or the store can't be opened.
int runCalendars(const CalendarsOptions& options, std::ostream& out);

} // namespace morvane::cli
