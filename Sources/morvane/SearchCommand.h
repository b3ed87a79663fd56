#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace morvane::cli {

struct SearchOptions {
    std::vector<std::string> words;
    bool noTimeMachine = false;
    bool json = false;
};

// `morvane search WORDS... [--no-time-machine] [--json]`: the events whose title or place holds
// the words (joined by single spaces, case ignored) across the whole list of backups, one line
// each, with the command that compares against the first backup holding it. A progress line goes
// to `err` while searching when that is a terminal. Backups that can't be read are named, not
// fatal, so this always succeeds.
int runSearch(const SearchOptions& options, std::ostream& out, std::ostream& err);

} // namespace morvane::cli
