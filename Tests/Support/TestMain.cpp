// The entry point of every test binary: the environment is pinned before any test runs, so no
// expectation depends on the machine's zone or language.
#include "Support/Pinned.h"

#include <cstdlib>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    ::setenv("TZ", morvane::testing::pinnedZone, 1);
    ::setenv("LANG", "en_US.UTF-8", 1);
    ::unsetenv("LC_ALL");
    morvane::testing::pinICUDefaults();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
