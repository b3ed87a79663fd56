#pragma once

#include <iosfwd>

namespace morvane::cli {

struct CalendarsOptions {
    bool json = false;
    bool labels = false; // only the labels of the writable calendars, one per line
};

// `morvane calendars [--json]`: every event calendar of the live store by group (an account that
// syncs, or "Other" last) and title, with its identifier, title, account, kind, whether it can be
// written, its colour and its group; the text groups the calendars under their group's name. Opening
// the store creates it on a machine that has none. Throws, for the command table to report, when
// calendar access is refused or the store can't be opened.
int runCalendars(const CalendarsOptions& options, std::ostream& out);

} // namespace morvane::cli
