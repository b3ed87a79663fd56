#include "morvane/AccountsCommand.h"

#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/Shared/Paths.h"
#include "MorvanePlatform/Accounts.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/TerminalEcho.h"
#include "morvane/CommandLine.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <ostream>
#include <sys/stat.h>
#include <unistd.h>
#include <variant>

namespace morvane::cli {
namespace {

namespace fs = std::filesystem;

// A refusal: the exit status and the text for standard error.
struct Complaint {
    int status;
    std::string text;
};

// The host of an http or https address, or nothing when the address isn't one.
std::optional<std::string> hostOf(const std::string& url, bool& plain) {
    std::string rest;
    if (url.starts_with("https://")) {
        plain = false;
        rest = url.substr(8);
    } else if (url.starts_with("http://")) {
        plain = true;
        rest = url.substr(7);
    } else {
        return std::nullopt;
    }
    auto host = rest.substr(0, rest.find_first_of("/?#"));
    if (const auto at = host.rfind('@'); at != std::string::npos) return std::nullopt; // no user in the address
    if (host.starts_with('[')) {
        const auto close = host.find(']');
        if (close == std::string::npos) return std::nullopt;
        host = host.substr(0, close + 1);
    } else {
        host = host.substr(0, host.find(':'));
    }
    if (host.empty() || std::any_of(host.begin(), host.end(), [](unsigned char c) { return c <= ' '; }))
        return std::nullopt;
    return host;
}

bool isLoopback(const std::string& host) { return host == "localhost" || host == "[::1]" || host.starts_with("127."); }

bool isUsableName(const std::string& name) {
    return !name.empty() && name != AccountList::localName &&
           std::none_of(name.begin(), name.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; });
}

// A password never reaches the user's screen through an error, whatever the server or a library
// put into its text.
std::string withoutPassword(std::string text, const std::string& password) {
    if (password.size() < 4) return text;
    for (auto at = text.find(password); at != std::string::npos; at = text.find(password, at))
        text.replace(at, password.size(), "(password)");
    return text;
}

std::string withoutLineEnd(std::string text) {
    if (text.ends_with('\n')) text.pop_back();
    if (text.ends_with('\r')) text.pop_back();
    return text;
}

std::variant<std::string, Complaint> passwordFromFile(const std::string& name) {
    const fs::path path(paths::expandingTilde(name));
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0)
        return Complaint{exitFailure,
                         "morvane: can't read the password file " + path.string() + ": " + errnoText(errno) + ".\n"};
    if (!S_ISREG(info.st_mode))
        return Complaint{exitFailure, "morvane: the password file " + path.string() + " isn't a plain file.\n"};
    if ((info.st_mode & 077) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%o", static_cast<unsigned>(info.st_mode & 0777));
        return Complaint{exitFailure, "morvane: the password file " + path.string() +
                                          " can be read by other users (mode " + mode +
                                          "); make it yours alone with: chmod 600 '" + path.string() + "'\n"};
    }
    try {
        auto password = withoutLineEnd(files::read(path, 4096));
        if (password.empty())
            return Complaint{exitFailure, "morvane: the password file " + path.string() + " is empty.\n"};
        return password;
    } catch (const Error& error) {
        return Complaint{exitFailure, "morvane: " + error.description() + "\n"};
    }
}

// Reads one line from the terminal on standard input with echo off, the prompt on `err`.
std::variant<std::string, Complaint> passwordFromTerminal(const std::string& prompt, std::ostream& err) {
    if (::isatty(STDIN_FILENO) == 0)
        return Complaint{exitFailure, "morvane: standard input isn't a terminal, so the password can't be typed; "
                                      "give it in a file of mode 600 with --password-file FILE.\n"};
    err << prompt << std::flush;
    std::string password;
    try {
        const EchoOff silent(STDIN_FILENO);
        char c = 0;
        for (;;) {
            const auto count = ::read(STDIN_FILENO, &c, 1);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0 || c == '\n') break;
            password.push_back(c);
        }
    } catch (const PlatformError& error) {
        err << '\n';
        return Complaint{exitFailure, "morvane: " + error.description() + "\n"};
    }
    err << '\n';
    password = withoutLineEnd(std::move(password));
    if (password.empty()) return Complaint{exitFailure, "morvane: no password was typed; nothing was saved.\n"};
    return password;
}

int fail(const Complaint& complaint, std::ostream& err) {
    err << complaint.text;
    return complaint.status;
}

int addAccount(const AccountsOptions& options, std::ostream& out, std::ostream& err) {
    bool plain = false;
    const auto host = hostOf(options.url, plain);
    if (!host)
        return fail({exitUsage, "morvane: '" + options.url +
                                    "' isn't the address of a CalDAV server: give one like "
                                    "https://calendar.example.com/dav/, without a user or password in it.\n"},
                    err);
    if (plain && !options.allowHTTP && !isLoopback(*host))
        return fail({exitUsage, "morvane: " + options.url +
                                    " would send the password and the calendars unencrypted; use https://, or "
                                    "add --allow-http for a network you trust.\n"},
                    err);
    if (options.user.empty()) return fail({exitUsage, "morvane: --user can't be empty.\n"}, err);
    const auto name = options.name.empty() ? *host : options.name;
    if (!isUsableName(name))
        return fail({exitUsage, "morvane: '" + name + "' can't name an account: give another with --name.\n"}, err);
    std::optional<fs::path> caFile;
    if (!options.caFile.empty()) {
        std::error_code error;
        caFile = fs::absolute(paths::expandingTilde(options.caFile), error).lexically_normal();
        if (error || !fs::is_regular_file(*caFile, error))
            return fail({exitFailure, "morvane: there is no certificate file at " + options.caFile + ".\n"}, err);
    }

    auto list = accounts::load();
    if (list.find(name) != nullptr)
        return fail({exitFailure, "morvane: there is an account named \"" + name +
                                      "\" already; give this one another name with --name, or remove that one "
                                      "first.\n"},
                    err);

    auto password = options.passwordFile.empty()
                        ? passwordFromTerminal("Password for " + options.user + " at " + *host + ": ", err)
                        : passwordFromFile(options.passwordFile);
    if (const auto* complaint = std::get_if<Complaint>(&password)) return fail(*complaint, err);

    if (plain && options.allowHTTP)
        err << "morvane: warning: \"" << name
            << "\" uses plain HTTP: its password and events cross the network unencrypted.\n";

    CalDAVAccount account{name, options.url, options.user, std::get<std::string>(password), caFile, options.allowHTTP};
    std::size_t calendarCount = 0;
    try {
        EKEventStore store(account);
        calendarCount = store.calendarsForEntityType(EKEntityType::event).size();
    } catch (const Error& error) {
        return fail({exitFailure, "morvane: the account couldn't be opened, so it wasn't saved: " +
                                      withoutPassword(error.description(), account.password) + "\n"},
                    err);
    }
    list.accounts.push_back(std::move(account));
    accounts::save(list);
    out << "Added \"" << name << "\" (" << calendarCount << (calendarCount == 1 ? " calendar" : " calendars")
        << "). The live calendars are still " << (list.live == AccountList::localName ? "the local ones" : list.live)
        << "; to use this account: morvane accounts use " << name << '\n';
    return exitSuccess;
}

int listAccounts(const AccountsOptions& options, std::ostream& out) {
    const auto list = accounts::load();
    if (options.json) {
        json::Value listed = json::Value::array();
        for (const auto& account : list.accounts) {
            listed.push_back({{"name", account.name},
                              {"url", account.url},
                              {"user", account.user},
                              {"caFile", account.caFile ? json::Value(account.caFile->string()) : json::Value(nullptr)},
                              {"allowPlainHTTP", account.allowPlainHTTP},
                              {"live", account.name == list.live}});
        }
        out << json::dump({{"live", list.live}, {"accounts", std::move(listed)}}, true) << '\n';
        return exitSuccess;
    }
    std::size_t width = std::string(AccountList::localName).size();
    for (const auto& account : list.accounts)
        width = std::max(width, account.name.size());
    const auto row = [&](const std::string& name, const std::string& rest) {
        out << (name == list.live ? "* " : "  ") << name << std::string(width - name.size() + 2, ' ') << rest << '\n';
    };
    row(AccountList::localName, "the calendars on this computer");
    for (const auto& account : list.accounts)
        row(account.name, account.url + "  " + account.user);
    return exitSuccess;
}

int removeAccount(const AccountsOptions& options, std::ostream& out, std::ostream& err) {
    auto list = accounts::load();
    if (list.find(options.chosen) == nullptr)
        return fail({exitFailure, "morvane: there is no account named \"" + options.chosen +
                                      "\"; 'morvane accounts list' shows them.\n"},
                    err);
    const bool wasLive = list.live == options.chosen;
    std::erase_if(list.accounts, [&options](const CalDAVAccount& account) { return account.name == options.chosen; });
    if (wasLive) list.live = AccountList::localName;
    accounts::save(list);
    out << "Removed \"" << options.chosen << "\"." << (wasLive ? " The live calendars are the local ones again." : "")
        << '\n';
    return exitSuccess;
}

int useAccount(const AccountsOptions& options, std::ostream& out, std::ostream& err) {
    auto list = accounts::load();
    if (options.chosen != AccountList::localName && list.find(options.chosen) == nullptr)
        return fail({exitFailure, "morvane: there is no account named \"" + options.chosen +
                                      "\"; 'morvane accounts list' shows them, and 'local' names this computer's "
                                      "calendars.\n"},
                    err);
    list.live = options.chosen;
    accounts::save(list);
    if (options.chosen == AccountList::localName)
        out << "The live calendars are the local ones.\n";
    else
        out << "The live calendars are those of \"" << options.chosen << "\" (" << list.find(options.chosen)->url
            << ").\n";
    return exitSuccess;
}

} // namespace

int runAccounts(const AccountsOptions& options, std::ostream& out, std::ostream& err) {
    try {
        switch (options.action) {
        case AccountsOptions::Action::add: return addAccount(options, out, err);
        case AccountsOptions::Action::list: return listAccounts(options, out);
        case AccountsOptions::Action::remove: return removeAccount(options, out, err);
        case AccountsOptions::Action::use: return useAccount(options, out, err);
        }
    } catch (const AccountsError& error) {
        err << "morvane: " << error.description() << '\n';
        return exitFailure;
    }
    return exitFailure;
}

} // namespace morvane::cli
