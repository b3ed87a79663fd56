#include "morvane/TerminalOutput.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <unistd.h>

namespace morvane::cli {
namespace {

// One run at a time per process; the in-process tests run the program one after another.
ColorChoice colorChoice = ColorChoice::automatic;

} // namespace

bool wantsColor(ColorChoice choice, bool terminal, const char* noColor, const char* term) {
    switch (choice) {
    case ColorChoice::always: return true;
    case ColorChoice::never: return false;
    case ColorChoice::automatic: break;
    }
    // NO_COLOR set to the empty string doesn't count.
    if (noColor && *noColor) return false;
    if (term && std::strcmp(term, "dumb") == 0) return false;
    return terminal;
}

void setColorChoice(ColorChoice choice) { colorChoice = choice; }

bool isTerminal(const std::ostream& stream) {
    if (&stream == &std::cout) return isatty(STDOUT_FILENO) == 1;
    if (&stream == &std::cerr) return isatty(STDERR_FILENO) == 1;
    return false;
}

bool colored(const std::ostream& stream) {
    return wantsColor(colorChoice, isTerminal(stream), std::getenv("NO_COLOR"), std::getenv("TERM"));
}

std::string failurePrefix(const std::ostream& err) { return colored(err) ? "\033[1;31mmorvane:\033[0m " : "morvane: "; }

} // namespace morvane::cli
