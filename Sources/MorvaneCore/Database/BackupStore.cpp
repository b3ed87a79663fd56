#include "MorvaneCore/Database/BackupStore.h"

#include "MorvaneCore/Shared/EventKeys.h"

namespace morvane {

std::optional<StoreType> storeType(std::int64_t value) {
    switch (value) {
    case 0: return StoreType::local;
    case 1: return StoreType::exchange;
    case 2: return StoreType::calDAV;
    case 4: return StoreType::subscribed;
    case 5: return StoreType::birthdays;
    case 6: return StoreType::reminders;
    default: return std::nullopt;
    }
}

std::string_view BackupEvent::externalIdentifier() const { return seriesKey(uniqueIdentifier); }

OccurrenceSet BackupStore::occurrencesWithin(DateInterval) { return occurrences(); }

std::optional<KeptOccurrences> BackupStore::keptOccurrences(std::int64_t) { return std::nullopt; }

json::Ordered BackupCalendar::json() const {
    json::Ordered object = json::Ordered::object();
    object["rowID"] = rowID;
    if (uuid) object["uuid"] = *uuid;
    object["title"] = title;
    if (externalID) object["externalID"] = *externalID;
    object["storeName"] = storeName;
    object["storeType"] = storeType;
    if (colorHex) object["colorHex"] = *colorHex;
    return object;
}

BackupCalendar BackupCalendar::fromJson(const json::Ordered& value, const std::string& path) {
    const json::ObjectReader reader(value, path);
    BackupCalendar calendar;
    calendar.rowID = json::integer(reader.required("rowID"), reader.pathOf("rowID"));
    calendar.uuid = reader.optionalString("uuid");
    calendar.title = json::string(reader.required("title"), reader.pathOf("title"));
    calendar.externalID = reader.optionalString("externalID");
    calendar.storeName = json::string(reader.required("storeName"), reader.pathOf("storeName"));
    calendar.storeType = json::integer(reader.required("storeType"), reader.pathOf("storeType"));
    calendar.colorHex = reader.optionalString("colorHex");
    return calendar;
}

std::string BackupCalendar::displayName() const {
    // The system stores placeholders for the calendars it creates itself.
    std::string name = title;
    if (title == "DEFAULT_CALENDAR_NAME") {
        name = "Calendar";
    } else if (title == "DEFAULT_TASK_CALENDAR_NAME") {
        name = "Reminders";
    }
    const std::string store = storeType == 0 && storeName == "Default" ? "On My Mac" : storeName;
    return name + " (" + store + ")";
}

} // namespace morvane
