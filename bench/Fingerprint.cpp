// Prints the content fingerprint of a database, as a whole process for side-by-side timing:
// fingerprint DATABASE
#include "MorvaneCore/Database/CalendarDatabase.h"

#include <iostream>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: fingerprint DATABASE\n";
        return 2;
    }
    try {
        morvane::CalendarDatabase database(argv[1]);
        std::cout << database.contentFingerprint() << '\n';
    } catch (const std::exception& error) {
        std::cerr << "fingerprint: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
