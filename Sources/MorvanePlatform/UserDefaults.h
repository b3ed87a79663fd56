#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <filesystem>
#include <optional>
#include <string>

namespace morvane {

// The running application's settings: one property-list file per bundle identifier in
// Library/Preferences, read and written whole. Reading never fails (a missing or damaged file
// reads as empty); a failed write is dropped, as settings are not worth stopping work for.
//
// Threads: any thread, concurrently. Within the process each read or change of the file runs
// under one lock, so no change is lost; another process's change made at the same moment may be,
// as the file is replaced whole (atomically) by whichever writes last.
class UserDefaults : public Replaceable<UserDefaults> {
public:
    virtual ~UserDefaults() = default;

    virtual std::optional<bool> boolForKey(const std::string& key) = 0;
    virtual void setBool(const std::string& key, bool value) = 0;
    virtual std::optional<std::string> stringForKey(const std::string& key) = 0;
    virtual void setString(const std::string& key, const std::string& value) = 0;
    // Dates are seconds since 2001-01-01 00:00:00 UTC, kept to the microsecond.
    virtual std::optional<double> dateForKey(const std::string& key) = 0;
    virtual void setDate(const std::string& key, double value) = 0;
    virtual void removeObjectForKey(const std::string& key) = 0;

    // Forgets every setting of the domain `name` (a bundle identifier).
    virtual void removePersistentDomain(const std::string& name) = 0;
    // Makes what was set visible to other processes; the file is written at once already.
    virtual void synchronize() = 0;

    // The preferences file of a domain under the current user's home.
    static std::filesystem::path fileOf(const std::string& domain);

    // The real implementation, over the domain of Bundle::current()'s identifier, or of the
    // executable's name for a program without one.
    static UserDefaults& system();
};

} // namespace morvane
