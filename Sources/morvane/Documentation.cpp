// The command table is walked through the parser that the program runs, so a command or option
// added to the table shows in the manual page and the completions at the next build.

#include "morvane/Documentation.h"

#include "morvane/CommandTable.h"

#include <CLI/CLI.hpp>
#include <map>
#include <ostream>
#include <set>
#include <sstream>

namespace morvane::cli::documentation {
namespace {

// What a value is completed with; the value's name in the table says which.
enum class Completion { nothing, calendars, backups, files, folders, colorChoices };

Completion completionOf(const std::string& value) {
    static const std::map<std::string, Completion> byName = {
        {"CALENDAR", Completion::calendars}, {"BACKUP", Completion::backups},    {"PATH", Completion::files},
        {"FOLDER", Completion::folders},     {"WHEN", Completion::colorChoices},
    };
    const auto found = byName.find(value);
    return found == byName.end() ? Completion::nothing : found->second;
}

constexpr std::string_view colorChoices = "auto always never";

std::vector<const CLI::App*> namedSubcommands(const CLI::App& app) {
    std::vector<const CLI::App*> named;
    // Option groups are nameless subcommands of the parser's own.
    for (const auto* subcommand : app.get_subcommands([](const CLI::App* candidate) {
             return !candidate->get_name().empty() && !candidate->get_group().empty();
         }))
        named.push_back(subcommand);
    return named;
}

Argument argumentOf(const CLI::Option& option) {
    Argument argument;
    argument.positional = !option.nonpositional();
    argument.name = argument.positional ? option.get_name(true) : "--" + option.get_lnames().front();
    if (!argument.positional && option.get_type_size() > 0) {
        // The full type name carries the validators' descriptions after a colon.
        const auto type = option.get_type_name();
        argument.value = type.substr(0, type.find(':'));
    }
    argument.help = option.get_description();
    argument.required = option.get_required();
    argument.repeats = option.get_items_expected_max() > 1;
    return argument;
}

void collect(const CLI::App& app, const std::string& path, std::vector<Command>& into) {
    Command command{.path = path, .summary = app.get_description()};
    for (const auto* option : app.get_options()) {
        if (option->get_group().empty() || (option->get_lnames().empty() && option->nonpositional())) continue;
        command.arguments.push_back(argumentOf(*option));
    }
    const auto subcommands = namedSubcommands(app);
    for (const auto* subcommand : subcommands)
        command.subcommands.push_back(subcommand->get_name());
    into.push_back(std::move(command));
    for (const auto* subcommand : subcommands)
        collect(*subcommand, path.empty() ? subcommand->get_name() : path + " " + subcommand->get_name(), into);
}

bool isHelp(const Argument& argument) { return argument.name == "--help"; }

// Text for roff: backslashes escaped, and a line that would start with a control character
// guarded.
std::string roff(std::string_view text) {
    std::string escaped;
    bool lineStart = true;
    for (const char c : text) {
        if (lineStart && (c == '.' || c == '\'')) escaped += "\\&";
        if (c == '\\') {
            escaped += "\\e";
        } else {
            escaped += c;
        }
        lineStart = c == '\n';
    }
    return escaped;
}

// A name or synopsis, whose hyphens are minus signs to be typed as such.
std::string roffName(std::string_view text) {
    std::string escaped;
    for (const char c : roff(text)) {
        if (c == '-') escaped += '\\';
        escaped += c;
    }
    return escaped;
}

std::string sentence(std::string text) {
    if (!text.empty() && text.back() != '.') text += '.';
    return text;
}

void writeArguments(const Command& command, std::ostream& out) {
    for (const auto& argument : command.arguments) {
        if (isHelp(argument)) continue;
        out << ".TP\n";
        if (argument.positional) {
            out << ".I " << roffName(argument.name) << (argument.repeats ? " ..." : "") << '\n';
        } else if (argument.value.empty()) {
            out << ".B " << roffName(argument.name) << '\n';
        } else {
            out << ".BI " << roffName(argument.name) << " \" " << roffName(argument.value) << "\"\n";
        }
        out << roff(sentence(argument.help)) << '\n';
    }
}

void replace(std::string& text, std::string_view placeholder, const std::string& by) {
    if (const auto at = text.find(placeholder); at != std::string::npos) text.replace(at, placeholder.size(), by);
}

// What every shell's script needs from the table: each command's words and its first positional's
// completion, and the options that take a value with theirs.
struct CompletionTable {
    std::vector<Command> commands;
    std::map<std::string, Completion> valueOptions; // by option name

    static CompletionTable make() {
        CompletionTable table{.commands = documentation::commands()};
        for (const auto& command : table.commands)
            for (const auto& argument : command.arguments)
                if (!argument.positional && !argument.value.empty())
                    table.valueOptions.emplace(argument.name, completionOf(argument.value));
        return table;
    }
};

std::string words(const Command& command) {
    std::string joined;
    for (const auto& name : command.subcommands)
        joined += (joined.empty() ? "" : " ") + name;
    for (const auto& argument : command.arguments)
        if (!argument.positional) joined += (joined.empty() ? "" : " ") + argument.name;
    return joined;
}

Completion firstPositional(const Command& command) {
    for (const auto& argument : command.arguments)
        if (argument.positional) return completionOf(argument.name);
    return Completion::nothing;
}

std::string parentOf(const std::string& path) {
    const auto space = path.rfind(' ');
    return space == std::string::npos ? "" : path.substr(0, space);
}

std::string lastWord(const std::string& path) {
    const auto space = path.rfind(' ');
    return space == std::string::npos ? path : path.substr(space + 1);
}

// Patterns "parent:name" of every command, for the scripts' walk over the words typed so far.
std::string commandPatterns(const CompletionTable& table, std::string_view separator) {
    std::string patterns;
    for (const auto& command : table.commands) {
        if (command.path.empty()) continue;
        if (!patterns.empty()) patterns += separator;
        patterns += "'" + parentOf(command.path) + ":" + lastWord(command.path) + "'";
    }
    return patterns;
}

// zsh takes no blanks around the bars of a pattern.
std::string valueOptionPatterns(const CompletionTable& table, std::string_view separator) {
    std::string patterns;
    for (const auto& [name, completion] : table.valueOptions)
        patterns += (patterns.empty() ? "" : std::string(separator)) + name;
    return patterns;
}

std::string optionsCompleting(const CompletionTable& table, Completion wanted, std::string_view separator = " | ") {
    std::string patterns;
    for (const auto& [name, completion] : table.valueOptions)
        if (completion == wanted) patterns += (patterns.empty() ? "" : std::string(separator)) + name;
    return patterns;
}

const char* kindName(Completion completion) {
    switch (completion) {
    case Completion::backups: return "backup";
    case Completion::files: return "path";
    default: return "";
    }
}

void writeBash(std::ostream& out) {
    const auto table = CompletionTable::make();
    out << R"sh(# bash completion for morvane, generated from its command table.

# Adds each line of $1 that starts with $2 to COMPREPLY, quoted for the shell.
_morvane_matching() {
    local line
    while IFS= read -r line; do
        [[ -n $line && $line == "$2"* ]] && COMPREPLY+=("$(printf '%q' "$line")")
    done <<<"$1"
}

_morvane() {
    COMPREPLY=()
    # The line is split here rather than taken from COMP_WORDS, which breaks source ids at their
    # colons. Without -r, a backslash keeps a blank inside a word, as the shell would.
    local line=${COMP_LINE:0:COMP_POINT} typed
    # shellcheck disable=SC2162
    read -a typed <<<"$line"
    [[ $line == *[[:space:]] || ${#typed[@]} -eq 0 ]] && typed+=("")
    local cur=${typed[-1]} prev=""
    ((${#typed[@]} > 1)) && prev=${typed[-2]}

    local command="" positionals=0 i word
    for ((i = 1; i < ${#typed[@]} - 1; i++)); do
        word=${typed[i]}
        case "$command:$word" in
        )sh"
        << commandPatterns(table, " | ") << R"sh()
            command=${command:+$command }$word
            positionals=0
            continue
            ;;
        esac
        case "$word" in
        )sh"
        << valueOptionPatterns(table, " | ") << R"sh() i=$((i + 1)) ;;
        -*) ;;
        *) positionals=$((positionals + 1)) ;;
        esac
    done

    case "$prev" in
)sh";
    if (const auto options = optionsCompleting(table, Completion::calendars); !options.empty())
        out << "    " << options << ") _morvane_matching \"$(morvane calendars --labels 2>/dev/null)\" \"$cur\" ;;\n";
    if (const auto options = optionsCompleting(table, Completion::folders); !options.empty())
        out << "    " << options << ") mapfile -t COMPREPLY < <(compgen -d -- \"$cur\") ;;\n";
    if (const auto options = optionsCompleting(table, Completion::colorChoices); !options.empty())
        out << "    " << options << ") mapfile -t COMPREPLY < <(compgen -W \"" << colorChoices
            << "\" -- \"$cur\") ;;\n";
    if (const auto options = optionsCompleting(table, Completion::nothing); !options.empty())
        out << "    " << options << ") ;;\n";
    out << R"sh(    *)
        local words="" argument=""
        case "$command" in
)sh";
    for (const auto& command : table.commands) {
        out << "        '" << command.path << "') words='" << words(command) << "'";
        if (const auto* kind = kindName(firstPositional(command)); *kind) out << " argument=" << kind;
        out << " ;;\n";
    }
    out << R"sh(        esac
        if [[ $cur != -* && $positionals -eq 0 && $argument == backup ]]; then
            _morvane_matching "$(morvane backups --ids 2>/dev/null)" "$cur"
        elif [[ $cur != -* && $positionals -eq 0 && $argument == path ]]; then
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        else
            mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
        fi
        ;;
    esac

    # Bash takes the word to complete as what follows the last colon.
    if [[ $cur == *:* && $COMP_WORDBREAKS == *:* ]]; then
        local before=${cur%"${cur##*:}"}
        COMPREPLY=("${COMPREPLY[@]#"$before"}")
    fi
}
complete -F _morvane morvane
)sh";
}

void writeZsh(std::ostream& out) {
    const auto table = CompletionTable::make();
    out << R"sh(#compdef morvane
# zsh completion for morvane, generated from its command table.

_morvane() {
    local command="" word i value=0 positionals=0
    for ((i = 2; i < CURRENT; i++)); do
        word=${words[i]}
        if ((value)); then
            value=0
            continue
        fi
        case "$command:$word" in
        ()sh"
        << commandPatterns(table, "|") << R"sh()
            command=${command:+$command }$word
            positionals=0
            continue
            ;;
        esac
        case $word in
        ()sh"
        << valueOptionPatterns(table, "|") << R"sh() value=1 ;;
        (-*) ;;
        (*) positionals=$((positionals + 1)) ;;
        esac
    done

    local -a found
    case ${words[CURRENT-1]} in
)sh";
    if (const auto options = optionsCompleting(table, Completion::calendars, "|"); !options.empty())
        out << "    (" << options
            << ")\n        found=(\"${(@f)$(morvane calendars --labels 2>/dev/null)}\")\n"
               "        compadd -a found\n        return\n        ;;\n";
    if (const auto options = optionsCompleting(table, Completion::folders, "|"); !options.empty())
        out << "    (" << options << ")\n        _directories\n        return\n        ;;\n";
    if (const auto options = optionsCompleting(table, Completion::colorChoices, "|"); !options.empty())
        out << "    (" << options << ")\n        compadd " << colorChoices << "\n        return\n        ;;\n";
    if (const auto options = optionsCompleting(table, Completion::nothing, "|"); !options.empty())
        out << "    (" << options << ")\n        return\n        ;;\n";
    out << R"sh(    esac

    local argument=""
    local -a candidates
    case $command in
)sh";
    for (const auto& command : table.commands) {
        out << "    ('" << command.path << "') candidates=(" << words(command) << ")";
        if (const auto* kind = kindName(firstPositional(command)); *kind) out << " argument=" << kind;
        out << " ;;\n";
    }
    out << R"sh(    esac
    if [[ ${words[CURRENT]} != -* && $positionals -eq 0 && $argument == backup ]]; then
        found=("${(@f)$(morvane backups --ids 2>/dev/null)}")
        compadd -a found
    elif [[ ${words[CURRENT]} != -* && $positionals -eq 0 && $argument == path ]]; then
        _files
    else
        compadd -a candidates
    fi
}

if [[ $zsh_eval_context[-1] == loadautofunc ]]; then
    _morvane "$@"
else
    compdef _morvane morvane
fi
)sh";
}

std::string fishQuoted(std::string_view text) {
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted + "'";
}

// The condition under which fish offers what belongs to `command`: every word of its path typed,
// and none of its own subcommands yet.
std::string fishCondition(const Command& command) {
    std::string condition;
    if (command.path.empty()) {
        condition = "__fish_use_subcommand";
    } else {
        std::istringstream path(command.path);
        for (std::string word; path >> word;)
            condition += (condition.empty() ? "" : "; and ") + std::string("__fish_seen_subcommand_from ") + word;
        if (!command.subcommands.empty()) {
            condition += "; and not __fish_seen_subcommand_from";
            for (const auto& name : command.subcommands)
                condition += " " + name;
        }
    }
    return fishQuoted(condition);
}

void writeFish(std::ostream& out) {
    const auto table = CompletionTable::make();
    out << "# fish completion for morvane, generated from its command table.\n\n"
           "complete -c morvane -f\n";
    for (const auto& command : table.commands) {
        const auto condition = fishCondition(command);
        out << '\n';
        for (const auto& argument : command.arguments) {
            if (argument.positional) {
                switch (completionOf(argument.name)) {
                case Completion::backups:
                    out << "complete -c morvane -n " << condition << " -a '(morvane backups --ids 2>/dev/null)'\n";
                    break;
                case Completion::files: out << "complete -c morvane -n " << condition << " -F\n"; break;
                default: break;
                }
                continue;
            }
            out << "complete -c morvane -n " << condition << " -l " << argument.name.substr(2);
            switch (argument.value.empty() ? Completion::nothing : completionOf(argument.value)) {
            case Completion::calendars: out << " -x -a '(morvane calendars --labels 2>/dev/null)'"; break;
            case Completion::folders: out << " -x -a '(__fish_complete_directories)'"; break;
            case Completion::colorChoices: out << " -x -a " << fishQuoted(colorChoices); break;
            default:
                if (!argument.value.empty()) out << " -x";
                break;
            }
            out << " -d " << fishQuoted(argument.help) << '\n';
        }
        for (const auto& row : table.commands)
            if (!row.path.empty() && parentOf(row.path) == command.path)
                out << "complete -c morvane -n " << condition << " -a " << lastWord(row.path) << " -d "
                    << fishQuoted(row.summary) << '\n';
    }
}

} // namespace

std::vector<Command> commands() {
    ProgramOptions program;
    Runner selected;
    const auto app = makeProgram(program, selected);
    std::vector<Command> all;
    collect(*app, "", all);
    return all;
}

std::string synopsis(const Command& command) {
    std::string line = "morvane";
    if (!command.path.empty()) line += " " + command.path;
    if (!command.subcommands.empty()) line += " COMMAND";
    // Positionals first, as they are typed; then required options, then the rest.
    for (const int pass : {0, 1, 2}) {
        for (const auto& argument : command.arguments) {
            if (isHelp(argument) || argument.name == "--version") continue;
            const int wanted = argument.positional ? 0 : argument.required ? 1 : 2;
            if (wanted != pass) continue;
            auto text = argument.name + (argument.value.empty() ? "" : " " + argument.value);
            if (argument.repeats) text += "...";
            line += " " + (argument.required ? text : "[" + text + "]");
        }
    }
    return line;
}

void writeManPage(std::string_view pageTemplate, std::ostream& out) {
    const auto all = commands();
    std::ostringstream commandsSection;
    for (const auto& command : all) {
        if (command.path.empty()) continue;
        commandsSection << ".SS " << roffName(synopsis(command)) << '\n' << roff(sentence(command.summary)) << '\n';
        if (!command.subcommands.empty()) {
            commandsSection << "Its commands:";
            for (const auto& name : command.subcommands)
                commandsSection << " \\%" << roffName(name) << (&name == &command.subcommands.back() ? "." : ",");
            commandsSection << '\n';
        }
        writeArguments(command, commandsSection);
    }
    std::ostringstream optionsSection;
    for (const auto& argument : all.front().arguments) {
        optionsSection << ".TP\n";
        if (argument.value.empty()) {
            optionsSection << ".B " << roffName(argument.name) << '\n';
        } else {
            optionsSection << ".BI " << roffName(argument.name) << " \" " << roffName(argument.value) << "\"\n";
        }
        optionsSection << roff(sentence(argument.help)) << '\n';
    }
    std::string page(pageTemplate);
    replace(page, "{{COMMANDS}}\n", commandsSection.str());
    replace(page, "{{OPTIONS}}\n", optionsSection.str());
    out << page;
}

void writeCompletion(Shell shell, std::ostream& out) {
    switch (shell) {
    case Shell::bash: writeBash(out); break;
    case Shell::zsh: writeZsh(out); break;
    case Shell::fish: writeFish(out); break;
    }
}

} // namespace morvane::cli::documentation
