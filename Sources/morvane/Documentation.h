#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

// The manual page and the shell completions, written from the command table itself, so that
// every command and option that exists is documented and completed, and nothing else is.
namespace morvane::cli::documentation {

// One argument of a command, as the parser knows it.
struct Argument {
    std::string name;  // "--json", or a positional's "BACKUP"
    std::string value; // what an option takes ("DATE"); empty for a flag and a positional
    std::string help;
    bool positional = false;
    bool required = false;
    bool repeats = false;

    friend bool operator==(const Argument&, const Argument&) = default;
};

// The program itself (empty `path`) or one command ("copies enable"), hidden options left out.
struct Command {
    std::string path;
    std::string summary;
    std::vector<Argument> arguments;
    std::vector<std::string> subcommands; // the names of the commands below it
};

// Every command in the table's order, each followed by its own subcommands; the program first.
std::vector<Command> commands();

// "morvane plan BACKUP ID... [--into CALENDAR] [--json]": the command's usage in one line.
std::string synopsis(const Command& command);

// The manual page: `pageTemplate` with the line "{{COMMANDS}}" replaced by a section per command and
// the line "{{OPTIONS}}" by the program's own options, in roff.
void writeManPage(std::string_view pageTemplate, std::ostream& out);

enum class Shell { bash, zsh, fish };

// The completion script of `shell`: commands and options, `--into` completing the labels of the
// calendars that can be written and BACKUP the ids of the sources (both asked of the program
// itself, which must be on the PATH), PATH and FOLDER completing files and folders.
void writeCompletion(Shell shell, std::ostream& out);

} // namespace morvane::cli::documentation
