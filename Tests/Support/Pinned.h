#pragma once

#include <optional>
#include <string>

// The time zone and locale every test starts with, and scoped changes of them and of the
// environment.
namespace morvane::testing {

inline constexpr const char* pinnedZone = "America/Los_Angeles";
inline constexpr const char* pinnedLocale = "en_US";

// Makes ICU's default zone and locale the pinned ones.
void pinICUDefaults();

// Makes `zoneID` ICU's default ("current") zone until the end of the scope.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zoneID);
    ~ScopedTimeZone();
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    void* previous_; // icu::TimeZone*, owned
};

// Makes `localeID` ICU's default ("user's") locale until the end of the scope.
class ScopedLocale {
public:
    explicit ScopedLocale(const char* localeID);
    ~ScopedLocale();
    ScopedLocale(const ScopedLocale&) = delete;
    ScopedLocale& operator=(const ScopedLocale&) = delete;
};

// Sets an environment variable (unsets it when `value` is null) until the end of the scope.
class ScopedVariable {
public:
    ScopedVariable(const char* name, const char* value);
    ~ScopedVariable();
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    const char* const name_;
    std::optional<std::string> previous_;
};

} // namespace morvane::testing
