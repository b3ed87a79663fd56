#pragma once

// The `lzfse` command: compresses or decompresses one file or standard stream, with the
// arguments of the common LZFSE command-line tool, so that scripts can run either on the same
// files:
//
//     lzfse -encode|-decode [-i IN] [-o OUT] [-v]
//
// Standard input and output serve when -i or -o is missing. Output goes to OUT only once the
// whole result is ready, by an atomic replace, so a failure leaves no partial file. -v reports
// sizes and speed on standard error.

#include <iosfwd>

namespace morvane::lzfsetool {

// Exit statuses.
constexpr int success = 0;
constexpr int failure = 1;      // the input couldn't be read, decoded or written
constexpr int usageFailure = 2; // a wrong command line

int run(int argc, const char* const* argv, std::ostream& err);

} // namespace morvane::lzfsetool
