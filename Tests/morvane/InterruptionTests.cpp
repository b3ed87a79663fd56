#include "Support/CalendarGenerator.h"
#include "Support/Deadline.h"
#include "Support/TemporaryDirectory.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

extern char** environ;

namespace morvane {
namespace {

namespace fs = std::filesystem;

// The real program, interrupted as a user or the system would interrupt it.
class InterruptionTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        shared = new testing::TemporaryDirectory;
        database = shared->path() / "Calendar.sqlitedb";
        testing::generateCalendarFile(database, 3000, 7);
    }
    static void TearDownTestSuite() {
        delete shared;
        shared = nullptr;
    }

    // Starts `morvane` with `arguments`, its temporary folder and home in the test's own folder.
    pid_t start(const std::vector<std::string>& arguments) {
        std::vector<std::string> words = {MORVANE_PROGRAM};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<std::string> environment = {"TMPDIR=" + temporary.string(), "HOME=" + home.string(), "TZ=UTC"};
        for (char** entry = environ; *entry != nullptr; ++entry) {
            if (std::strncmp(*entry, "ASAN_OPTIONS=", 13) == 0 || std::strncmp(*entry, "UBSAN_OPTIONS=", 14) == 0)
                environment.emplace_back(*entry);
        }
        std::vector<char*> argv;
        for (auto& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (auto& entry : environment)
            envp.push_back(entry.data());
        envp.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        pid_t child = -1;
        const int result = ::posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        EXPECT_EQ(result, 0) << std::strerror(result);
        return child;
    }

    static inline testing::TemporaryDirectory* shared = nullptr;
    static inline fs::path database;
    testing::TemporaryDirectory folder;
    const fs::path home = folder.makeFolder("home");
    const fs::path temporary = folder.makeFolder("tmp");
};

TEST_F(InterruptionTest, ASignalDuringInspectRemovesTheStagedCopyAndEndsWithItsStatus) {
    testing::Deadline deadline(std::chrono::seconds(120), "interrupting morvane");
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const pid_t child = start({"inspect", database.string(), "--events"});
        ASSERT_GT(child, 0);
        // As soon as the user's calendars lie in a staged copy.
        int status = 0;
        bool ended = false;
        while (fs::is_empty(temporary) && !ended) {
            ended = ::waitpid(child, &status, WNOHANG) == child;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        ASSERT_FALSE(ended) << "inspect ended before it could be interrupted";
        ASSERT_EQ(::kill(child, signal), 0);
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status)) << "signal " << signal << " killed it without cleaning up";
        EXPECT_EQ(WEXITSTATUS(status), 128 + signal);
        EXPECT_TRUE(fs::is_empty(temporary)) << fs::directory_iterator(temporary)->path();
    }
}

} // namespace
} // namespace morvane
