#include "RunCommandLine.h"
#include "Support/CalendarGenerator.h"
#include "Support/Deadline.h"
#include "Support/TemporaryDirectory.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>

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

    static inline testing::TemporaryDirectory* shared = nullptr;
    static inline fs::path database;
    testing::TemporaryDirectory folder;
    const fs::path home = folder.makeFolder("home");
    const fs::path temporary = folder.makeFolder("tmp");
};

TEST_F(InterruptionTest, ASignalDuringInspectRemovesTheStagedCopyAndEndsWithItsStatus) {
    testing::Deadline deadline(std::chrono::seconds(120), "interrupting morvane");
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const pid_t child = testing::startProgram({"inspect", database.string(), "--events"}, home, temporary);
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
