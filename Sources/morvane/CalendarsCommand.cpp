#include "morvane/CalendarsCommand.h"

#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/Shared/Json.h"
#include "morvane/CommandLine.h"

#include <cstdio>
#include <ostream>

namespace morvane::cli {
namespace {

std::string typeName(EKCalendarType type) {
    switch (type) {
    case EKCalendarType::local: return "local";
    case EKCalendarType::calDAV: return "calDAV";
    case EKCalendarType::exchange: return "exchange";
    case EKCalendarType::subscription: return "subscription";
    case EKCalendarType::birthday: return "birthday";
    }
    return "local";
}

std::optional<std::string> colorHex(const EKCalendar& calendar) {
    if (!calendar.colorComponents || calendar.colorComponents->size() < 3) return std::nullopt;
    const auto& c = *calendar.colorComponents;
    char text[8];
    std::snprintf(text, sizeof text, "#%02X%02X%02X", static_cast<int>(c[0] * 255.0), static_cast<int>(c[1] * 255.0),
                  static_cast<int>(c[2] * 255.0));
    return text;
}

} // namespace

int runCalendars(const CalendarsOptions& options, std::ostream& out) {
    auto store = std::make_shared<EKEventStore>();
    EventKitSource(store).requestAccess();
    const auto calendars = store->calendarsForEntityType(EKEntityType::event);
    if (options.json) {
        json::Value list = json::Value::array();
        for (const auto& calendar : calendars) {
            const auto color = colorHex(*calendar);
            list.push_back({{"identifier", calendar->calendarIdentifier},
                            {"title", calendar->title},
                            {"source", calendar->source ? json::Value(calendar->source->title) : json::Value(nullptr)},
                            {"type", typeName(calendar->type)},
                            {"writable", calendar->allowsContentModifications},
                            {"colorHex", color ? json::Value(*color) : json::Value(nullptr)}});
        }
        out << json::dump(list, true) << '\n';
        return exitSuccess;
    }
    for (const auto& calendar : calendars) {
        out << calendar->title << " (" << (calendar->source ? calendar->source->title : "?") << ")  "
            << typeName(calendar->type) << (calendar->allowsContentModifications ? "" : ", read-only") << "  "
            << calendar->calendarIdentifier << '\n';
    }
    return exitSuccess;
}

} // namespace morvane::cli
