// Derives a later state of a calendar database, for benchmarks and the sample:
//   derive-calendar DB BACKUP [COUNT] [SEED]     through the local event store, keeping the
//                                                earlier state in BACKUP (see deriveThroughStore)
//   derive-calendar --direct DB FRACTION [SEED]  written straight into DB (see deriveDirectly)
#include "LaterCalendar.h"

#include <cstdlib>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
    const bool direct = argc > 1 && std::string(argv[1]) == "--direct";
    const int first = direct ? 2 : 1;
    if (argc < first + 2) {
        std::cerr << "usage: derive-calendar DB BACKUP [COUNT] [SEED]\n"
                     "       derive-calendar --direct DB FRACTION [SEED]\n";
        return 2;
    }
    try {
        const std::uint64_t seed = argc > first + 3 ? std::strtoull(argv[first + 3], nullptr, 10) : 1;
        const auto made =
            direct
                ? morvane::testing::deriveDirectly(argv[first], std::atof(argv[first + 1]),
                                                   argc > first + 2 ? std::strtoull(argv[first + 2], nullptr, 10) : 1)
                : morvane::testing::deriveThroughStore(argv[first], argv[first + 1],
                                                       argc > first + 2 ? std::atoll(argv[first + 2]) : 1, seed);
        std::cout << argv[first] << ": " << made.deletedEvents << " events deleted, " << made.changedEvents
                  << " changed, " << made.deletedOccurrences << " occurrences deleted, " << made.editedOccurrences
                  << " edited\n";
    } catch (const std::exception& error) {
        std::cerr << "derive-calendar: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
