#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace morvane {

// A calendar account on a CalDAV server, as the event store needs it to connect.
struct CalDAVAccount {
    // The user's name for the account ("work"), unique among the accounts.
    std::string name;
    // Where the account's calendars are found: the server, a principal or a calendar home.
    std::string url;
    std::string user;
    // Never written to a log or into an error's text.
    std::string password;
    // A certificate authority to trust besides the system's, for a private server.
    std::optional<std::filesystem::path> caFile;
    // Plain HTTP to a host other than this machine's loopback, which is refused otherwise.
    bool allowPlainHTTP = false;
};

} // namespace morvane
