#include "morvane/CommandLine.h"
#include "morvane/Interruption.h"

#include <iostream>

int main(int argc, char** argv) {
    const morvane::cli::InterruptionCleanup cleanup;
    return morvane::cli::run(argc, argv, std::cout, std::cerr);
}
