#pragma once

#include <iosfwd>
#include <string>

namespace morvane::cli {

struct AccountsOptions {
    enum class Action { add, list, remove, use };
    Action action = Action::list;
    // `add`: the account's address and user, the optional rest as given on the command line.
    std::string url;
    std::string user;
    std::string name;
    std::string passwordFile;
    std::string caFile;
    bool allowHTTP = false;
    // `remove` and `use`: an account's name; `use` also takes "local".
    std::string chosen;
    bool json = false;
};

// `morvane accounts add caldav URL --user NAME [--name NAME] [--password-file FILE]
// [--ca-file FILE] [--allow-http] | list [--json] | remove NAME | use NAME|local`: the CalDAV
// accounts and which store is live. `add` reads the password from a private file or from the
// terminal without echo, and saves the account only once its calendars could be listed; it
// doesn't make the account live, `use` does. Removing the live account makes the local calendars
// live again. No output and no error text holds a password. Failures go to `err` with exit 1;
// a malformed address or name is a usage error (exit 2).
int runAccounts(const AccountsOptions& options, std::ostream& out, std::ostream& err);

} // namespace morvane::cli
