#pragma once

#include "MorvanePlatform/CalDAVAccount.h"
#include "MorvanePlatform/Error.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace morvane {

// The accounts file can't be read or written, or isn't private. The text never holds a password.
class AccountsError : public Error {
public:
    using Error::Error;
};

// The CalDAV accounts the user added, and which store is live: the local event store or one of
// the accounts. Every EKEventStore() opens the live one.
struct AccountList {
    // The name that chooses the local event store; no account may take it.
    static constexpr const char* localName = "local";

    std::vector<CalDAVAccount> accounts;
    // `localName` or the name of one of `accounts`.
    std::string live = localName;

    // The account of that name, or nothing; the pointer lives as long as `accounts` is unchanged.
    const CalDAVAccount* find(const std::string& name) const;
    // The live account, or nothing when the local event store is live.
    const CalDAVAccount* liveAccount() const;

    // Field by field, passwords included.
    bool operator==(const AccountList& other) const;
};

// The list lives in "Library/Application Support/Morvane/Accounts.json" in the home folder,
// passwords included, so the file is the user's alone: mode 0600 in a folder of mode 0700.
//
// Threads: any thread. Two processes that save at once each write a whole file; the later wins.
namespace accounts {

std::filesystem::path file();

// The list as saved; an empty list with the local store live when there is no file. Throws
// AccountsError when the file can't be read, isn't a list of accounts, or could be read by
// another user (the text says how to make it private again); nothing is read then.
AccountList load();

// Replaces the file atomically: readers see the old list or the new, and the new file is mode
// 0600 from its first byte. The folder is made, or made private, first. Throws AccountsError,
// leaving the old file as it was.
void save(const AccountList& list);

// Whether the local event store is the live one. Never throws: an accounts file that can't be
// read counts as an account being live, so that nothing falls back to the local calendars
// unasked; opening the store then gives the reason.
bool localStoreIsLive();

} // namespace accounts
} // namespace morvane
