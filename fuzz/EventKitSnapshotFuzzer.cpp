// EventKitSnapshot::decode over arbitrary bytes: it returns or throws one of its three errors,
// never anything else. A document that decodes opens as a store, and its own file form decodes
// again (the dates may move by rounding on the way through JSON, so they aren't compared).
#include "Lzfse/Lzfse.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Honest but huge streams would only measure the fuzzer's memory: a hundred bytes may expand
    // to 23 MB.
    try {
        morvane::lzfse::decompress({data, size}, std::size_t{64} << 20);
    } catch (const morvane::lzfse::LzfseError&) {
        return 0;
    }
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    morvane::EventKitSnapshot snapshot;
    try {
        snapshot = morvane::EventKitSnapshot::decode(bytes);
    } catch (const morvane::json::DecodingError&) {
        return 0;
    } catch (const morvane::RestoreError&) {
        return 0;
    }
    (void)snapshot.fingerprint();
    morvane::EventKitStore store(snapshot);
    (void)store.loadEvents();
    (void)store.occurrences();
    for (const auto& event : snapshot.events)
        (void)store.keptOccurrences(event.rowID);

    const auto again = morvane::EventKitSnapshot::decode(snapshot.encoded());
    if (again.events.size() != snapshot.events.size() || again.occurrences != snapshot.occurrences ||
        again.calendars != snapshot.calendars) {
        std::abort();
    }
    return 0;
}
