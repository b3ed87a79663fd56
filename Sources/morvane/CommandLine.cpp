#include "morvane/CommandLine.h"

#include "MorvaneCore/LiveCalendars/YearByYearFetch.h"
#include "MorvanePlatform/Error.h"
#include "morvane/AccountsCommand.h"
#include "morvane/BackupsCommand.h"
#include "morvane/CalendarsCommand.h"
#include "morvane/CommandTable.h"
#include "morvane/CompareCommand.h"
#include "morvane/CopiesCommand.h"
#include "morvane/EventsCommand.h"
#include "morvane/InspectCommand.h"
#include "morvane/PlanCommand.h"
#include "morvane/RestoreCommand.h"
#include "morvane/ScheduleCommand.h"
#include "morvane/SearchCommand.h"
#include "morvane/SnapshotCommand.h"
#include "morvane/StorageCommand.h"
#include "morvane/TerminalOutput.h"
#include "morvane/TimeMachineCommand.h"
#include "morvane/TimelineCommand.h"
#include "morvane/UninstallCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace morvane::cli {
namespace {

// One row of the command table: its name, its one-line help, and how it adds its options to
// the parser, giving back what runs it once parsing is done.
struct Command {
    const char* name;
    const char* summary;
    std::function<Runner(CLI::App&)> attach;
};

std::vector<Command> commands() {
    return {
        {"accounts", "Add, list or remove CalDAV accounts, and choose which calendars are live",
         [](CLI::App& command) {
             using Action = AccountsOptions::Action;
             auto options = std::make_shared<AccountsOptions>();
             command.require_subcommand(1);
             auto* add = command.add_subcommand("add", "Add an account, once its calendars could be listed");
             add->require_subcommand(1);
             auto* caldav = add->add_subcommand("caldav", "Add a CalDAV account; the password is typed without echo");
             caldav->add_option("URL", options->url, "The server, or its address of the user's calendars (https://...)")
                 ->required();
             caldav->add_option("--user", options->user, "The user name on the server")->required();
             caldav->add_option("--name", options->name, "The account's name here (default: the server's host name)");
             caldav->add_option("--password-file", options->passwordFile,
                                "Read the password from this file, of mode 600, instead of the terminal");
             caldav->add_option("--ca-file", options->caFile,
                                "Trust this certificate authority (PEM) too, for a server with a private one");
             caldav->add_flag("--allow-http", options->allowHTTP,
                              "Allow plain HTTP to another machine: the password crosses the network unencrypted");
             caldav->callback([options] { options->action = Action::add; });
             auto* list = command.add_subcommand("list", "List the accounts, the live one marked with *");
             list->add_flag("--json", options->json, "Print as JSON (passwords are never printed)");
             list->callback([options] { options->action = Action::list; });
             auto* remove = command.add_subcommand(
                 "remove", "Forget an account and its password; if it was live, the local calendars are");
             remove->add_option("NAME", options->chosen, "The account's name, as list shows it")->required();
             remove->callback([options] { options->action = Action::remove; });
             auto* use = command.add_subcommand(
                 "use", "Choose the live calendars, which every command, the helper and the timer use");
             use->add_option("NAME", options->chosen, "An account's name, or local for this computer's calendars")
                 ->required();
             use->callback([options] { options->action = Action::use; });
             return [options](std::ostream& out, std::ostream& err) { return runAccounts(*options, out, err); };
         }},
        {"backups", "List everything that can be restored from: restore points, copies, Time Machine",
         [](CLI::App& command) {
             auto options = std::make_shared<BackupsOptions>();
             command.add_flag("--json", options->json, "Print the list as JSON");
             command.add_flag("--no-time-machine", options->noTimeMachine,
                              "Leave out Time Machine's backups and snapshots (no tool runs)");
             command.add_flag("--summaries", options->summaries,
                              "Show how many events were deleted and changed since each backup, where no mount is "
                              "needed");
             // For shell completion, so not in the help: one source id per line.
             command.add_flag("--ids", options->ids, "Print only the sources' ids")->group("");
             return [options](std::ostream& out, std::ostream&) { return runBackups(*options, out); };
         }},
        {"calendars", "List the calendars of the live event store",
         [](CLI::App& command) {
             auto options = std::make_shared<CalendarsOptions>();
             command.add_flag("--json", options->json, "Print the list as JSON");
             // For shell completion, so not in the help: what --into takes, one per line.
             command
                 .add_flag("--labels", options->labels, "Print only the labels of the calendars that can be written")
                 ->group("");
             return [options](std::ostream& out, std::ostream&) { return runCalendars(*options, out); };
         }},
        {"compare", "Show what is gone or different in the calendars since a backup",
         [](CLI::App& command) {
             auto options = std::make_shared<CompareOptions>();
             command
                 .add_option("BACKUP", options->backup,
                             "Anything inspect takes, or a source's id from 'morvane backups --json'")
                 ->required();
             command.add_flag("--json", options->json, "Print as JSON");
             return [options](std::ostream& out, std::ostream&) { return runCompare(*options, out); };
         }},
        {"copies", "Copy the restore points to a folder shared with your other computers",
         [](CLI::App& command) {
             using Action = CopiesOptions::Action;
             auto options = std::make_shared<CopiesOptions>();
             command.require_subcommand(1);
             auto* enable = command.add_subcommand("enable", "Name the shared folder, turn copies on and copy now");
             enable->add_option("--folder", options->folder, "An existing folder that a sync tool keeps in step")
                 ->type_name("FOLDER")
                 ->required();
             enable->callback([options] { options->action = Action::enable; });
             command.add_subcommand("disable", "Turn copies off; the copies made stay")->callback([options] {
                 options->action = Action::disable;
             });
             command.add_subcommand("sync", "Copy now")->callback([options] { options->action = Action::sync; });
             auto* status = command.add_subcommand("status", "Show the setting, the last sync and the computers");
             status->add_flag("--json", options->json, "Print as JSON");
             status->callback([options] { options->action = Action::status; });
             auto* list = command.add_subcommand("list", "List every computer's copies, newest first");
             list->add_flag("--json", options->json, "Print as JSON");
             list->callback([options] { options->action = Action::list; });
             command.add_subcommand("remove", "Delete this computer's copies; other computers' stay")
                 ->callback([options] { options->action = Action::remove; });
             return [options](std::ostream& out, std::ostream& err) { return runCopies(*options, out, err); };
         }},
        {"events", "List the live events of a date range, repeating events expanded, by start",
         [](CLI::App& command) {
             auto options = std::make_shared<EventsOptions>();
             command.add_option("--from", options->from, "YYYY-MM-DD (local midnight) or an ISO 8601 date-time")
                 ->type_name("DATE")
                 ->required();
             command
                 .add_option("--to", options->to,
                             "End of the range, in the same forms; at most " + std::to_string(longestSpanYears) +
                                 " years after --from")
                 ->type_name("DATE")
                 ->required();
             command.add_flag("--json", options->json, "Print as JSON");
             return [options](std::ostream& out, std::ostream& err) { return runEvents(*options, out, err); };
         }},
        {"inspect", "Show what a backup holds: fingerprint, calendars, occurrence cache, events",
         [](CLI::App& command) {
             auto options = std::make_shared<InspectOptions>();
             command
                 .add_option("PATH", options->path,
                             "A Calendar.sqlitedb or a folder holding one, a .calsnap or .calevents restore point, a "
                             "folder of .ics files, a Time Machine backup")
                 ->required()
                 ->check([](const std::string& path) {
                     return path.empty() ? std::string("can't be empty: name a backup, a database or a folder")
                                         : std::string();
                 });
             command.add_flag("--events", options->events, "List every event too");
             command.add_flag("--json", options->json, "Print as JSON");
             return [options](std::ostream& out, std::ostream&) { return runInspect(*options, out); };
         }},
        {"plan", "Show what restoring events of a backup would do, writing nothing",
         [](CLI::App& command) {
             auto options = std::make_shared<PlanOptions>();
             command.add_option("BACKUP", options->backup, "What compare takes")->required();
             command.add_option("ID", options->ids, "Event ids as compare shows them, in brackets")->required();
             command
                 .add_option("--into", options->into,
                             "A calendar's identifier, its label 'Title (Account)' or a title only it has")
                 ->type_name("CALENDAR");
             command.add_flag("--json", options->json, "Print as JSON");
             return [options](std::ostream& out, std::ostream& err) { return runPlan(*options, out, err); };
         }},
        {"restore", "Bring events of a backup back into the calendars",
         [](CLI::App& command) {
             auto options = std::make_shared<RestoreOptions>();
             command.add_option("BACKUP", options->backup, "What compare takes")->required();
             command.add_option("ID", options->ids, "Event ids as compare shows them, in brackets");
             command
                 .add_option("--occurrence", options->occurrence,
                             "An item id as timeline shows it: that one occurrence comes back as a plain event")
                 ->type_name("ITEM_ID");
             command
                 .add_option("--into", options->into,
                             "A calendar's identifier, its label 'Title (Account)' or a title only it has")
                 ->type_name("CALENDAR");
             command.add_flag("--yes", options->yes, "Restore without asking (needed without a terminal)");
             command.add_flag("--json", options->json, "Print as JSON");
             return [options](std::ostream& out, std::ostream& err) { return runRestore(*options, out, err); };
         }},
        {"schedule", "Turn the hourly restore point of the systemd user timer on or off",
         [](CLI::App& command) {
             using Action = ScheduleOptions::Action;
             auto options = std::make_shared<ScheduleOptions>();
             command.require_subcommand(1);
             command.add_subcommand("enable", "Take a restore point every hour")->callback([options] {
                 options->action = Action::enable;
             });
             command.add_subcommand("disable", "Stop taking restore points every hour")->callback([options] {
                 options->action = Action::disable;
             });
             command.add_subcommand("status", "Say whether the timer is on")->callback([options] {
                 options->action = Action::status;
             });
             return [options](std::ostream& out, std::ostream&) { return runSchedule(*options, out); };
         }},
        {"search", "Find events by a word of their title or place in every backup",
         [](CLI::App& command) {
             auto options = std::make_shared<SearchOptions>();
             command.add_option("WORDS", options->words, "What the title or place holds; case is ignored")->required();
             command.add_flag("--no-time-machine", options->noTimeMachine,
                              "Leave out Time Machine's backups and snapshots (no tool runs)");
             command.add_flag("--json", options->json, "Print as JSON");
             return [options](std::ostream& out, std::ostream& err) { return runSearch(*options, out, err); };
         }},
        {"snapshot", "Take a restore point of the calendars now, then copy it if copies are on",
         [](CLI::App& command) {
             auto options = std::make_shared<SnapshotOptions>();
             command.add_flag("--json", options->json, "Print the result as JSON");
             command.add_flag("--quiet", options->quiet, "Print nothing when the calendars are unchanged");
             return [options](std::ostream& out, std::ostream& err) { return runSnapshot(*options, out, err); };
         }},
        {"storage", "Show what restore points, imports, the cache and copies take on the disk",
         [](CLI::App& command) {
             auto options = std::make_shared<StorageOptions>();
             command.add_flag("--json", options->json, "Print as JSON, sizes in bytes");
             return [options](std::ostream& out, std::ostream&) { return runStorage(*options, out); };
         }},
        {"timeline", "Show a date range of a backup against the calendars now, occurrence by occurrence",
         [](CLI::App& command) {
             auto options = std::make_shared<TimelineOptions>();
             command.add_option("BACKUP", options->backup, "What compare takes")->required();
             command.add_option("--from", options->from, "YYYY-MM-DD (local midnight) or an ISO 8601 date-time")
                 ->type_name("DATE")
                 ->required();
             command.add_option("--to", options->to, "End of the range, in the same forms")
                 ->type_name("DATE")
                 ->required();
             command.add_flag("--json", options->json, "Print as JSON");
             command.add_option("--html", options->html, "Also draw the range as one self-contained HTML page in FILE")
                 ->type_name("FILE");
             return [options](std::ostream& out, std::ostream& err) { return runTimeline(*options, out, err); };
         }},
        {"timemachine", "Copy Time Machine backups into the imports store, as the helper does",
         [](CLI::App& command) {
             auto options = std::make_shared<TimeMachineOptions>();
             command.require_subcommand(1);
             auto* pending = command.add_subcommand("pending", "List the backups still to copy, oldest first");
             pending->add_flag("--json", options->json, "Print the list as JSON");
             pending->callback([options] { options->action = TimeMachineOptions::Action::pending; });
             command.add_subcommand("import", "Copy every pending backup")->callback([options] {
                 options->action = TimeMachineOptions::Action::import;
             });
             return [options](std::ostream& out, std::ostream& err) { return runTimeMachine(*options, out, err); };
         }},
        {"uninstall", "Remove what Morvane keeps on the disk; the calendars stay",
         [](CLI::App& command) {
             auto options = std::make_shared<UninstallOptions>();
             command.add_flag("--restore-points", options->restorePoints,
                              "Remove the restore points and Time Machine imports too");
             command.add_flag("--copies", options->copies, "Remove this computer's copies in the shared folder too");
             command.add_flag("--yes", options->yes, "Don't ask");
             return [options](std::ostream& out, std::ostream& err) { return runUninstall(*options, out, err); };
         }},
    };
}

size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The name closest to a mistyped one, when one is close enough to be what was meant. Case
// counts for nothing here: "Inspect" means "inspect".
std::optional<std::string> nearest(const std::vector<std::string>& names, const std::string& typed) {
    std::optional<std::string> best;
    size_t bestDistance = std::max<size_t>(2, typed.size() / 3) + 1;
    for (const auto& name : names) {
        const auto distance = editDistance(lowercased(typed), lowercased(name));
        if (distance < bestDistance) {
            best = name;
            bestDistance = distance;
        }
    }
    return best;
}

// The first word of the command line that names no command or option where it stands, told as
// a usage error with the nearest name; nothing when every word is known. Walks down the command
// tree as the words select it, so a typo in a nested command is caught like one at the top.
std::optional<std::string> unknownWord(CLI::App& app, int argc, const char* const* argv) {
    CLI::App* command = &app;
    std::string path = "morvane";
    for (int index = 1; index < argc; ++index) {
        const std::string word = argv[index];
        if (word == "--") break;
        if (word.starts_with("--")) {
            const auto name =
                word.substr(2, word.find('=') == std::string::npos ? std::string::npos : word.find('=') - 2);
            std::vector<std::string> names;
            const CLI::Option* known = nullptr;
            // The program's own options (--color) hold after a command's name too.
            for (const CLI::App* level = command; level; level = level->get_parent()) {
                for (const auto* option : level->get_options()) {
                    for (const auto& longName : option->get_lnames()) {
                        names.push_back("--" + longName);
                        if (longName == name && !known) known = option;
                    }
                }
            }
            if (known) {
                // Its value is the next word, not a command.
                if (known->get_expected_min() > 0 && word.find('=') == std::string::npos) ++index;
                continue;
            }
            std::string complaint = "morvane: unknown option '" + word + "'";
            if (command != &app) complaint += " for '" + path.substr(8) + "'";
            complaint += ".";
            if (const auto guess = nearest(names, "--" + name)) complaint += " Did you mean '" + *guess + "'?";
            return complaint + "\nRun '" + path + " --help' for the options.\n";
        }
        if (word.starts_with('-')) continue;
        // Option groups are nameless subcommands of CLI11's own.
        const auto subcommands = command->get_subcommands(
            std::function<bool(CLI::App*)>([](CLI::App* candidate) { return !candidate->get_name().empty(); }));
        if (subcommands.empty()) continue; // an argument of the command
        const auto found = std::find_if(subcommands.begin(), subcommands.end(),
                                        [&word](const CLI::App* candidate) { return candidate->get_name() == word; });
        if (found != subcommands.end()) {
            command = *found;
            path += " " + word;
            continue;
        }
        std::vector<std::string> names;
        for (const auto* subcommand : subcommands)
            names.push_back(subcommand->get_name());
        const std::string prefix = path == "morvane" ? "" : path.substr(8) + " ";
        std::string complaint = "morvane: unknown command '" + prefix + word + "'.";
        if (const auto guess = nearest(names, word)) complaint += " Did you mean '" + prefix + *guess + "'?";
        return complaint + "\nRun '" + path + " --help' for the list of commands.\n";
    }
    return std::nullopt;
}

// Parses the arguments and runs the command they select.
int dispatch(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
    setColorChoice(ColorChoice::automatic);
    ProgramOptions program;
    Runner selected;
    const auto app = makeProgram(program, selected);

    if (const auto complaint = unknownWord(*app, argc, argv)) {
        err << *complaint;
        return exitUsage;
    }
    try {
        app->parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const bool help = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success);
        app->exit(error, out, err);
        return help ? exitSuccess : exitUsage;
    }
    setColorChoice(program.color);
    return selected(out, err);
}

// A message that isn't ours may span lines; the program's failures are one line each.
std::string oneLine(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    return text;
}

} // namespace

std::unique_ptr<CLI::App> makeProgram(ProgramOptions& program, Runner& selected) {
    auto app = std::make_unique<CLI::App>("Morvane brings lost or changed calendar events back.", "morvane");
    app->require_subcommand(1);
    app->fallthrough();
    app->set_version_flag("--version", "morvane " MORVANE_VERSION, "Print the version and exit");
    app->add_option("--color", program.color,
                    "Colour the output: auto (on a terminal, unless NO_COLOR is set), always or never")
        ->type_name("WHEN")
        ->transform(CLI::CheckedTransformer(std::map<std::string, ColorChoice>{{"auto", ColorChoice::automatic},
                                                                               {"always", ColorChoice::always},
                                                                               {"never", ColorChoice::never}},
                                            CLI::ignore_case));
    for (const auto& command : commands()) {
        auto* subcommand = app->add_subcommand(command.name, command.summary);
        auto runner = command.attach(*subcommand);
        subcommand->final_callback([&selected, runner] { selected = runner; });
    }
    return app;
}

int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
    // Whatever a command lets through ends it with a status of its own, never with an abort.
    try {
        return dispatch(argc, argv, out, err);
    } catch (const Error& error) {
        err << failurePrefix(err) << error.description() << '\n';
    } catch (const std::bad_alloc&) {
        err << failurePrefix(err) << "out of memory.\n";
    } catch (const std::exception& error) {
        err << failurePrefix(err) << oneLine(error.what()) << '\n';
    } catch (...) {
        err << failurePrefix(err) << "the command failed for an unknown reason.\n";
    }
    return exitFailure;
}

} // namespace morvane::cli
