// Writes a generated calendar database for benchmarks and the sample: generate-calendar OUT EVENTS [SEED]
#include "Support/CalendarGenerator.h"

#include <cstdlib>
#include <iostream>

int main(int argc, char** argv) {
    if (argc < 3) {
        std::cerr << "usage: generate-calendar OUT EVENTS [SEED]\n";
        return 2;
    }
    try {
        const auto made = morvane::testing::generateCalendarFile(argv[1], std::atoll(argv[2]),
                                                                 argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1);
        std::cout << argv[1] << ": " << made.events << " events, " << made.series << " repeating, " << made.detached
                  << " detached, " << made.exceptions << " exception dates, " << made.occurrences
                  << " cached occurrences\n";
    } catch (const std::exception& error) {
        std::cerr << "generate-calendar: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
