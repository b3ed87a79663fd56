#include "MorvanePlatform/EventKit.h"

#include "MorvanePlatform/EventStore/EventStoreImplementation.h"

namespace morvane {

EKEventStore::EKEventStore(const CalDAVAccount& account) {
    throw EventStoreError("CalDAV accounts aren't supported yet: \"" + account.name + "\" can't be opened.");
}

} // namespace morvane
