#include "MorvaneCore/BackupStore.h"

#include "MorvaneCore/EventKeys.h"

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

std::optional<KeptOccurrences> BackupStore::keptOccurrences(std::int64_t) { return std::nullopt; }

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
