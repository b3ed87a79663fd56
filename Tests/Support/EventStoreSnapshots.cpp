#include "Support/EventStoreSnapshots.h"

#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"
#include "MorvanePlatform/Files.h"

namespace morvane::testing {

void writeEventStoreSnapshot(EKEventStore& store, const std::filesystem::path& file, Date now) {
    const auto bytes = EventKitSnapshot::capture(store, now).encoded();
    if (file.has_parent_path()) files::createDirectories(file.parent_path());
    files::writeAtomically(file, bytes);
}

} // namespace morvane::testing
