#pragma once

#include <iosfwd>

// The command-line front end: parses the arguments, calls the core and prints. Each command
// lives in a file of its own; this one only holds the table and the dispatch.
namespace morvane::cli {

// Exit statuses of the program.
enum ExitStatus : int {
    exitSuccess = 0,
    exitFailure = 1, // the work asked for failed; the reason is on standard error
    exitUsage = 2,   // the command line was wrong
};

// Runs the program with its arguments, writing results to `out` and messages to `err`. Never
// throws: whatever escapes a command ends it with exitFailure and one line on `err`.
int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

} // namespace morvane::cli
