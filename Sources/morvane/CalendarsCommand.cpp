#include "morvane/CalendarsCommand.h"

#include "MorvaneCore/Restore/RestoreEngine.h"
#include "MorvaneCore/Shared/Json.h"
#include "morvane/CommandLine.h"

#include <map>
#include <memory>
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

} // namespace

int runCalendars(const CalendarsOptions& options, std::ostream& out) {
    RestoreEngine engine;
    engine.requestCalendarAccess();
    if (options.labels) {
        for (const auto& [identifier, label] : engine.writableCalendars())
            out << label << '\n';
        return exitSuccess;
    }
    std::map<std::string, std::shared_ptr<const EKCalendar>> byID;
    for (const auto& calendar : engine.eventKit().store()->calendarsForEntityType(EKEntityType::event))
        byID.emplace(calendar->calendarIdentifier, calendar);
    const auto calendars = engine.calendarList();
    if (options.json) {
        json::Value list = json::Value::array();
        for (const auto& info : calendars) {
            const auto& calendar = *byID.at(info.id);
            list.push_back({{"identifier", info.id},
                            {"title", info.title},
                            {"source", calendar.source ? json::Value(calendar.source->title) : json::Value(nullptr)},
                            {"type", typeName(calendar.type)},
                            {"writable", info.writable},
                            {"colorHex", info.colorHex ? json::Value(*info.colorHex) : json::Value(nullptr)},
                            {"group", info.group}});
        }
        out << json::dump(list, true) << '\n';
        return exitSuccess;
    }
    const std::string* group = nullptr;
    for (const auto& info : calendars) {
        const auto& calendar = *byID.at(info.id);
        if (!group || *group != info.group) out << info.group << '\n';
        group = &info.group;
        out << "  " << info.title << " (" << (calendar.source ? calendar.source->title : "?") << ")  "
            << typeName(calendar.type) << (info.writable ? "" : ", read-only") << "  " << info.id << '\n';
    }
    return exitSuccess;
}

} // namespace morvane::cli
