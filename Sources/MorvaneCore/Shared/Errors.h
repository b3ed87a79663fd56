#pragma once

#include "MorvanePlatform/Error.h"

#include <string>

namespace morvane {

// Failures of the database layer and of calendar access.
class SQLiteError : public Error {
public:
    using Error::Error;
};

// Failures of the catalogue, the stores, the restore engine and restoring.
class RestoreError : public Error {
public:
    using Error::Error;
};

// Failures of finding and staging a calendar database.
class BackupLocatorError : public Error {
public:
    enum class Case { notFound, copyFailed };

    // "No Calendar.sqlitedb found under {path}", then ": {reason}" when the search couldn't even
    // begin (a path that doesn't exist, a folder that can't be read).
    static BackupLocatorError notFound(const std::string& path, const std::string& reason = {});
    // "Copy failed: {cause}"
    static BackupLocatorError copyFailed(const std::string& cause);

    Case which() const { return which_; }
    // The folder searched, or the cause of the failed copy.
    const std::string& payload() const { return payload_; }

private:
    BackupLocatorError(Case which, std::string payload, std::string description)
        : Error(std::move(description)), which_(which), payload_(std::move(payload)) {}

    Case which_;
    std::string payload_;
};

} // namespace morvane
