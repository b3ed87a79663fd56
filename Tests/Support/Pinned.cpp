#include "Support/Pinned.h"

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

} // namespace morvane::testing
