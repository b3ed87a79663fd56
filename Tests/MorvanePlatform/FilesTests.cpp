#include "MorvanePlatform/Files.h"

#include "MorvanePlatform/Error.h"
#include "Support/Deadline.h"
#include "Support/ErrorText.h"
#include "Support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sys/stat.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::TemporaryDirectory;

TEST(Files, WritesAnyBytesAtomicallyAndFailuresNameTheOperationThePathAndTheReason) {
    TemporaryDirectory folder;
    const std::string bytes("a\0b\xff\n", 5);
    files::writeAtomically(folder.path() / "atomic", "first");
    files::writeAtomically(folder.path() / "atomic", bytes);
    EXPECT_EQ(files::read(folder.path() / "atomic"), bytes);
    // Nothing but the file: the atomic write left no temporary file.
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()), 1);

    const auto missing = folder.path() / "missing";
    EXPECT_EQ(testing::errorText<PlatformError>([&] { files::read(missing); }),
              "Couldn't read " + missing.string() + ": No such file or directory");
    EXPECT_THROW(files::write(missing / "inside", "x"), PlatformError);
    EXPECT_THROW(files::writeAtomically(missing / "inside", "x"), PlatformError);
    const auto file = folder.write("file", "x");
    EXPECT_EQ(testing::errorText<PlatformError>([&] { files::createDirectories(file / "sub"); }),
              "Couldn't create folder " + (file / "sub").string() + ": Not a directory");
}

// Nothing but a regular file is read, and no more of it than the caller allows: a named pipe
// would wait for a writer for ever, a device or a growing file would fill the memory.
TEST(Files, ReadsOnlyRegularFilesAndNoMoreThanTheLimit) {
    TemporaryDirectory folder;
    const auto pipe = folder.path() / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const auto zero = folder.path() / "zero";
    fs::create_symlink("/dev/zero", zero);
    const auto large = folder.write("large", std::string(2048, 'x'));
    const std::vector<std::pair<fs::path, std::string>> refused = {
        {pipe, "it is a named pipe, not a file"},
        {zero, "it is a device, not a file"},
        {folder.path(), "it is a folder, not a file"},
        {large, "the file is larger than 1 KiB"},
    };
    testing::Deadline deadline(std::chrono::seconds(30), "reading hostile files");
    for (const auto& [path, reason] : refused) {
        try {
            files::read(path, 1024);
            ADD_FAILURE() << path << " was read";
        } catch (const PlatformError& error) {
            EXPECT_EQ(error.description(), "Couldn't read " + path.string() + ": " + reason);
        }
        // A copy that can't be made leaves nothing where it was to go.
        if (path != large) {
            EXPECT_THROW(files::copyPrivately(path, folder.path() / "copy"), PlatformError) << path;
            EXPECT_THROW(files::copyFile(path, folder.path() / "copy"), PlatformError) << path;
        }
        EXPECT_FALSE(fs::exists(folder.path() / "copy")) << path;
    }
    EXPECT_EQ(files::read(large, 2048).size(), 2048u);
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
