#pragma once

// The time zone and locale every test starts with, and scoped changes of them.
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

} // namespace morvane::testing
