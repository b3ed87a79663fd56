#pragma once

#include "MorvanePlatform/Bundle.h"
#include "MorvanePlatform/Clock.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/Machine.h"
#include "MorvanePlatform/MainThread.h"
#include "MorvanePlatform/SystemLog.h"
#include "MorvanePlatform/ToolLauncher.h"
#include "MorvanePlatform/UserFolders.h"
#include "MorvanePlatform/Volumes.h"
#include "MorvanePlatform/Workspace.h"
#include "Support/Installed.h"
#include "Support/Pinned.h"
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

// Recording stand-ins for the platform services. Each is installed for a scope with Installed
// (Support/Installed.h) and records what the code under test asked of it.
namespace morvane::testing {

// Answers tool launches from a script of recorded outputs, keyed by the whole command line
// ("/usr/bin/tmutil listbackups"), and records every command line launched. A command with no
// recorded answer behaves like a tool missing from the machine.
class RecordingToolLauncher final : public ToolLauncher {
public:
    void answer(const std::string& commandLine, LaunchResult result);
    // Answers every command line that starts with `prefix` (a later exact answer wins).
    void answerPrefix(const std::string& prefix, LaunchResult result);
    // Answers command lines that start with `prefix` by running `tool` on the arguments, for
    // tools whose effect a test needs (a mount that makes files appear).
    void simulate(const std::string& prefix, std::function<LaunchResult(const std::vector<std::string>&)> tool);

    LaunchResult launch(const std::string& path, const std::vector<std::string>& arguments) override;

    std::vector<std::string> commandLines() const;
    // How many launched command lines start with `prefix`.
    size_t count(const std::string& prefix) const;

private:
    mutable std::mutex lock_;
    std::map<std::string, LaunchResult> answers_;
    std::vector<std::pair<std::string, LaunchResult>> prefixAnswers_;
    std::vector<std::pair<std::string, std::function<LaunchResult(const std::vector<std::string>&)>>> simulations_;
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

// The real file system, but its Nth changing call (write, atomic write, folder creation,
// permission change, copy, move, removal), counting from 1, fails with a PlatformError as a
// full disk would.
class FailingFileSystem final : public FileSystem {
public:
    explicit FailingFileSystem(int failingCall) : failingCall_(failingCall) {}

    using Path = std::filesystem::path;
    void write(const Path& path, std::string_view bytes) override { count(path).write(path, bytes); }
    void writeAtomically(const Path& path, std::string_view bytes) override {
        count(path).writeAtomically(path, bytes);
    }
    void createDirectories(const Path& path) override { count(path).createDirectories(path); }
    void setPermissions(const Path& path, unsigned mode) override { count(path).setPermissions(path, mode); }
    void copyFile(const Path& from, const Path& to) override { count(to).copyFile(from, to); }
    void moveItem(const Path& from, const Path& to) override { count(to).moveItem(from, to); }
    void removeItem(const Path& path) override { count(path).removeItem(path); }
    void createPrivateFolder(const Path& path) override { count(path).createPrivateFolder(path); }
    void writePrivately(const Path& path, std::string_view bytes) override { count(path).writePrivately(path, bytes); }
    void copyPrivately(const Path& from, const Path& to) override { count(to).copyPrivately(from, to); }

    // Whether the failing call was reached.
    bool failed() const { return calls_ >= failingCall_; }

private:
    // The real file system, unless this call is the one to fail.
    FileSystem& count(const Path& path);

    const int failingCall_;
    int calls_ = 0;
};

// Lines written to the system log.
class RecordingSystemLog final : public SystemLog {
public:
    void write(const std::string& line) override {
        std::lock_guard guard(lock_);
        lines_.push_back(line);
    }
    std::vector<std::string> lines() const {
        std::lock_guard guard(lock_);
        return lines_;
    }

private:
    mutable std::mutex lock_;
    std::vector<std::string> lines_;
};

// Records what was handed to the desktop and opens nothing.
class RecordingWorkspace final : public Workspace {
public:
    bool openURL(const std::string& url) override { return record(urls_, url); }
    bool openApplication(const std::string& bundleID) override { return record(applications_, bundleID); }
    void revealInFileManager(const std::filesystem::path& file) override { record(revealed_, file); }

    std::vector<std::string> openedURLs() const { return copy(urls_); }
    std::vector<std::string> openedApplications() const { return copy(applications_); }
    std::vector<std::filesystem::path> revealed() const { return copy(revealed_); }

private:
    template <typename Item> bool record(std::vector<Item>& list, const Item& item) {
        std::lock_guard guard(lock_);
        list.push_back(item);
        return true;
    }
    template <typename Item> std::vector<Item> copy(const std::vector<Item>& list) const {
        std::lock_guard guard(lock_);
        return list;
    }

    mutable std::mutex lock_;
    std::vector<std::string> urls_;
    std::vector<std::string> applications_;
    std::vector<std::filesystem::path> revealed_;
};

// An application bundle of the test's choosing.
class FakeBundle final : public Bundle {
public:
    FakeBundle(std::filesystem::path location, std::optional<std::string> identifier)
        : location_(std::move(location)), identifier_(std::move(identifier)) {}
    std::filesystem::path location() const override { return location_; }
    std::optional<std::string> identifier() const override { return identifier_; }

private:
    std::filesystem::path location_;
    std::optional<std::string> identifier_;
};

// A user whose home and temporary folder are fresh folders of their own, installed as the
// current user for the scope: ".../home" and ".../tmp" inside one temporary directory. The
// freedesktop data folder is unset too, so that the trash is the one in that home.
class TemporaryUser {
public:
    explicit TemporaryUser(std::string user = "jane");
    TemporaryUser(const TemporaryUser&) = delete;
    TemporaryUser& operator=(const TemporaryUser&) = delete;

    const std::filesystem::path& home() const { return home_; }
    const std::filesystem::path& temporary() const { return temporary_; }
    const TemporaryDirectory& root() const { return root_; }

private:
    ScopedVariable dataHome_{"XDG_DATA_HOME", nullptr};
    TemporaryDirectory root_;
    std::filesystem::path home_;
    std::filesystem::path temporary_;
    Installed<FakeUserFolders> folders_;
};

// A clock that shows the moment the test sets (seconds since 2001). A sleep moves it on at once,
// after running `whileSleeping`, which stands for what happens meanwhile.
class FixedClock final : public Clock {
public:
    explicit FixedClock(double now) : now_(now) {}
    double now() const override { return now_; }
    void sleep(double seconds) override {
        ++sleeps;
        if (whileSleeping) whileSleeping();
        now_ += seconds;
    }
    void set(double now) { now_ = now; }

    int sleeps = 0;
    std::function<void()> whileSleeping;

private:
    double now_;
};

// A computer of the test's choosing.
class FakeMachine final : public Machine {
public:
    FakeMachine(std::optional<std::string> identifier, std::optional<std::string> name)
        : identifier_(std::move(identifier)), name_(std::move(name)) {}
    std::optional<std::string> identifier() const override { return identifier_; }
    std::optional<std::string> name() const override { return name_; }
    void rename(std::optional<std::string> name) { name_ = std::move(name); }

private:
    std::optional<std::string> identifier_;
    std::optional<std::string> name_;
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
