#pragma once

#include "MorvanePlatform/Clock.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/MainThread.h"
#include "MorvanePlatform/SystemLog.h"
#include "MorvanePlatform/ToolLauncher.h"
#include "MorvanePlatform/UserFolders.h"
#include "MorvanePlatform/Volumes.h"
#include "Support/TemporaryDirectory.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// Recording stand-ins for the platform services. Each is installed for a scope with
// ScopedReplacement and records what the code under test asked of it.
namespace morvane::testing {

// Answers tool launches from a script of recorded outputs, keyed by the whole command line
// ("/usr/bin/tmutil listbackups"), and records every command line launched. A command with no
// recorded answer behaves like a tool missing from the machine.
class RecordingToolLauncher final : public ToolLauncher {
public:
    void answer(const std::string& commandLine, LaunchResult result);
    // Answers every command line that starts with `prefix` (a later exact answer wins).
    void answerPrefix(const std::string& prefix, LaunchResult result);

    LaunchResult launch(const std::string& path, const std::vector<std::string>& arguments) override;

    std::vector<std::string> commandLines() const;
    // How many launched command lines start with `prefix`.
    size_t count(const std::string& prefix) const;

private:
    mutable std::mutex lock_;
    std::map<std::string, LaunchResult> answers_;
    std::vector<std::pair<std::string, LaunchResult>> prefixAnswers_;
    std::vector<std::string> launched_;
};

// Devices of volumes, by path.
class FakeVolumes final : public Volumes {
public:
    std::map<std::string, std::string> devices;
    std::optional<std::string> deviceOf(const std::string& path) override;
};

// A home and a temporary folder of the test's choosing, and a fixed user name.
class FakeUserFolders final : public UserFolders {
public:
    FakeUserFolders(std::filesystem::path home, std::filesystem::path temporary, std::string user = "jane")
        : home_(std::move(home)), temporary_(std::move(temporary)), user_(std::move(user)) {}

    std::filesystem::path home() const override { return home_; }
    std::filesystem::path temporary() const override { return temporary_; }
    std::string userName() const override { return user_; }
    std::optional<std::filesystem::path> homeOf(const std::string& user) const override {
        if (user == user_) return home_;
        return std::nullopt;
    }

private:
    std::filesystem::path home_;
    std::filesystem::path temporary_;
    std::string user_;
};

// The test's own thread stands in for the main thread: work handed over from background threads
// waits in a queue until the test pumps it.
class ManualMainThread final : public MainThread {
public:
    void run(const std::function<void()>& work) override;

    // Runs queued work until `done` holds, failing after `timeout`. Returns whether it held.
    bool pumpUntil(const std::function<bool()>& done,
                   std::chrono::milliseconds timeout = std::chrono::milliseconds(20000));

private:
    std::thread::id owner_ = std::this_thread::get_id();
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<std::function<void()>*> queue_; // guarded by lock_
};

// Lines written to the system log.
class RecordingSystemLog final : public SystemLog {
public:
    void write(const std::string& line) override;
    std::vector<std::string> lines() const;

private:
    mutable std::mutex lock_;
    std::vector<std::string> lines_;
};

// A user whose home and temporary folder are fresh folders of their own, installed as the
// current user for the scope: ".../home" and ".../tmp" inside one temporary directory.
class TemporaryUser {
public:
    explicit TemporaryUser(std::string user = "jane");
    TemporaryUser(const TemporaryUser&) = delete;
    TemporaryUser& operator=(const TemporaryUser&) = delete;

    const std::filesystem::path& home() const { return home_; }
    const std::filesystem::path& temporary() const { return temporary_; }
    const TemporaryDirectory& root() const { return root_; }

private:
    TemporaryDirectory root_;
    std::filesystem::path home_;
    std::filesystem::path temporary_;
    FakeUserFolders folders_;
    ScopedReplacement<UserFolders> installed_;
};

// A clock that shows the moment the test sets (seconds since 2001).
class FixedClock final : public Clock {
public:
    explicit FixedClock(double now) : now_(now) {}
    double now() const override { return now_; }
    void set(double now) { now_ = now; }

private:
    double now_;
};

// Calendar permission as the test scripts it: the status, and the prompt's answer or error.
// Counts the prompts shown.
class ScriptedCalendarPermission final : public CalendarPermission {
public:
    EKAuthorizationStatus currentStatus = EKAuthorizationStatus::notDetermined;
    bool answer = true;
    std::optional<std::string> error;
    int prompts = 0;

    EKAuthorizationStatus status(EKEntityType) override { return currentStatus; }
    bool requestFullAccess() override {
        ++prompts;
        if (error) throw PlatformError(*error);
        return answer;
    }
};

// The text of a recorded tool output kept beside the tests, in Tests/Data/.
std::string recordedOutput(const std::string& name);

} // namespace morvane::testing
