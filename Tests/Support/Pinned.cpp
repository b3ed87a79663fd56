#include "Support/Pinned.h"

#include <cstdlib>
#include <unicode/locid.h>
#include <unicode/timezone.h>

namespace morvane::testing {

void pinICUDefaults() {
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(pinnedZone));
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale(pinnedLocale), status);
}

ScopedTimeZone::ScopedTimeZone(const char* zoneID) : previous_(icu::TimeZone::createDefault()) {
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(zoneID));
}

ScopedTimeZone::~ScopedTimeZone() { icu::TimeZone::adoptDefault(static_cast<icu::TimeZone*>(previous_)); }

ScopedLocale::ScopedLocale(const char* localeID) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale(localeID), status);
}

ScopedLocale::~ScopedLocale() {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale(pinnedLocale), status);
}

ScopedVariable::ScopedVariable(const char* name, const char* value) : name_(name) {
    if (const char* previous = std::getenv(name)) previous_ = previous;
    value != nullptr ? ::setenv(name, value, 1) : ::unsetenv(name);
}

ScopedVariable::~ScopedVariable() { previous_ ? ::setenv(name_, previous_->c_str(), 1) : ::unsetenv(name_); }

} // namespace morvane::testing
