#pragma once

#include "morvane/TerminalOutput.h"

#include <functional>
#include <iosfwd>
#include <memory>

namespace CLI {
class App;
}

// The program's parser, for the dispatch and for what is generated from it (the manual page and
// the shell completions), so that neither can drift from the commands that exist.
namespace morvane::cli {

// What runs a command once its arguments are parsed.
using Runner = std::function<int(std::ostream&, std::ostream&)>;

// The options of the program itself, which hold before and after a command's name.
struct ProgramOptions {
    ColorChoice color = ColorChoice::automatic;
};

// The whole command line: the program's options and one subcommand per row of the command table.
// Parsing fills `program` and sets `selected` to the chosen command's runner; both must outlive
// the parse.
std::unique_ptr<CLI::App> makeProgram(ProgramOptions& program, Runner& selected);

} // namespace morvane::cli
