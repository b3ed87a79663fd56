#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

// What the program writes only for a person at a terminal: colour and progress lines.
namespace morvane::cli {

enum class ColorChoice { automatic, always, never };

// Whether to colour: `always` and `never` decide alone (an explicit choice beats the
// environment); otherwise only on a terminal, and neither when NO_COLOR is set to anything
// (https://no-color.org) nor when TERM is "dumb". `noColor` and `term` are those variables, null
// when unset.
bool wantsColor(ColorChoice choice, bool terminal, const char* noColor, const char* term);

// The choice of this run (`--color`); `automatic` until the command line is parsed.
void setColorChoice(ColorChoice choice);

// Whether what goes to `stream` is coloured in this run: only the process's own standard output
// and error count as terminals, so text captured in a string stream is plain unless colour is
// asked for.
bool colored(const std::ostream& stream);

// Whether `stream` is the process's standard output or error and that is a terminal: where a
// progress line that redraws itself belongs.
bool isTerminal(const std::ostream& stream);

// The prefix of a failure line on `err`: "morvane: ", in bold red when coloured.
std::string failurePrefix(const std::ostream& err);

} // namespace morvane::cli
