#pragma once

#include "morvane/CommandLine.h"

#include "Support/Pinned.h"

#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <spawn.h>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace morvane::testing {

using ::testing::HasSubstr;

// What one run of the program printed, and its exit status.
struct Outcome {
    int status;
    std::string out;
    std::string err;
};

// Runs the program in-process with `arguments` (without the program's name).
inline Outcome runCommandLine(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "morvane");
    std::ostringstream out;
    std::ostringstream err;
    const int status = cli::run(static_cast<int>(arguments.size()), arguments.data(), out, err);
    return {status, out.str(), err.str()};
}

// Whether `document` holds every field of `expected` with its value; the failure names those that
// differ.
inline ::testing::AssertionResult holds(const nlohmann::json& document, const nlohmann::json& expected) {
    nlohmann::json differing;
    for (const auto& [key, value] : expected.items()) {
        const auto found = document.contains(key) ? document[key] : nlohmann::json();
        if (found != value) differing[key] = found;
    }
    if (differing.is_null()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "has " << differing.dump() << " where " << expected.dump() << " was wanted";
}

// A restore point of the calendars as they are, by its id in the list of backups.
inline std::string restorePoint() {
    EXPECT_EQ(runCommandLine({"snapshot", "--quiet"}).status, 0);
    return nlohmann::json::parse(runCommandLine({"backups", "--json", "--no-time-machine"}).out)["sources"]
        .back()["id"];
}

// Starts the real program with `arguments`, with `home` and `temporary` as its folders and its
// output going to `out`; -1 when it can't start.
inline pid_t startProgram(const std::vector<std::string>& arguments, const std::filesystem::path& home,
                          const std::filesystem::path& temporary, const std::filesystem::path& out = "/dev/null") {
    std::vector<std::string> words = {MORVANE_PROGRAM};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    // The child takes the environment as it is when it starts.
    const ScopedVariable homeVariable("HOME", home.c_str());
    const ScopedVariable temporaryVariable("TMPDIR", temporary.c_str());
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int failed = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return failed == 0 ? pid : -1;
}

} // namespace morvane::testing
