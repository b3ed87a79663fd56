#include "MorvanePlatform/CalendarDates.h"

#include <unicode/gregocal.h>

namespace morvane {

// "A year later" bounds each span the core fetches and the span the event store agrees to
// expand, so both must mean the same. 29 February goes to 28 February rather than on to 1 March:
// it is what calendar arithmetic (ICU's, the operating system's) does, it keeps a year's span
// inside the month it ends in, and it never makes a year longer than 366 days.
double addingCalendarYears(double moment, int years) {
    UErrorCode status = U_ZERO_ERROR;
    icu::GregorianCalendar calendar(status);
    calendar.setTime((moment + secondsFrom1970To2001) * 1000.0, status);
    calendar.add(UCAL_YEAR, years, status);
    const UDate moved = calendar.getTime(status);
    if (U_SUCCESS(status)) return moved / 1000.0 - secondsFrom1970To2001;
    return moment + years * 365.2425 * 86400.0;
}

} // namespace morvane
