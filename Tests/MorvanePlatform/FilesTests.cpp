#include "MorvanePlatform/Files.h"

#include "MorvanePlatform/Error.h"
#include "Support/ErrorText.h"
#include "Support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <regex>
#include <set>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::TemporaryDirectory;

TEST(Files, WritesAndReadsWholeFilesWithAnyBytes) {
    TemporaryDirectory folder;
    const std::string bytes("a\0b\xff\n", 5);
    files::write(folder.path() / "plain", bytes);
    EXPECT_EQ(files::read(folder.path() / "plain"), bytes);

    files::writeAtomically(folder.path() / "atomic", bytes);
    files::writeAtomically(folder.path() / "atomic", "replaced");
    EXPECT_EQ(files::read(folder.path() / "atomic"), "replaced");
    // Nothing but the two files: the atomic write left no temporary file.
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()), 2);
}

TEST(Files, FailuresNameTheOperationThePathAndTheReason) {
    TemporaryDirectory folder;
    const auto missing = folder.path() / "missing";
    EXPECT_EQ(testing::errorText<PlatformError>([&] { files::read(missing); }),
              "Couldn't read " + missing.string() + ": No such file or directory");
    EXPECT_THROW(files::read(folder.path()), PlatformError);
    EXPECT_THROW(files::write(missing / "inside", "x"), PlatformError);
    EXPECT_THROW(files::writeAtomically(missing / "inside", "x"), PlatformError);

    const auto file = folder.write("file", "x");
    EXPECT_EQ(testing::errorText<PlatformError>([&] { files::createDirectories(file / "sub"); }),
              "Couldn't create folder " + (file / "sub").string() + ": Not a directory");
}

TEST(Files, RandomUUIDsAreVersionFourInUpperCase) {
    const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        const auto uuid = files::randomUUID();
        EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
        seen.insert(uuid);
    }
    EXPECT_EQ(seen.size(), 100u);
}

} // namespace
} // namespace morvane
