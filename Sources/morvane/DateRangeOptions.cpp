#include "morvane/DateRangeOptions.h"

#include "MorvaneCore/EventModel/EventSnapshot.h"
#include "MorvaneCore/Shared/DateInput.h"

namespace morvane::cli {

std::optional<DateRange> readDateRange(const std::string& from, const std::string& to, std::ostream& err) {
    const auto start = dates::parseDayOrDateTime(from);
    const auto end = dates::parseDayOrDateTime(to);
    if (!start || !end) {
        err << "morvane: " << (!start ? "--from" : "--to")
            << " takes YYYY-MM-DD or an ISO 8601 date-time such as 2024-03-01T09:00:00Z or "
               "2024-03-01T09:00:00+01:00, not '"
            << (!start ? from : to) << "'.\n";
        return std::nullopt;
    }
    if (!(*start < *end)) {
        err << "morvane: --to must be later than --from.\n";
        return std::nullopt;
    }
    return DateRange{*start, *end};
}

std::string RangeTexts::operator()(Date start, Date end, bool allDay) {
    auto text = formatted(start, allDay);
    if (!allDay) text += " \u2013 " + formatted(end, false);
    return text;
}

const std::string& RangeTexts::formatted(Date date, bool allDay) {
    auto& known = allDay ? allDays_ : times_;
    auto [entry, added] = known.try_emplace(date.seconds);
    if (added) entry->second = EventSnapshot::format(date, false, allDay);
    return entry->second;
}

} // namespace morvane::cli
