#include "Support/Fakes.h"

#include "MorvanePlatform/Error.h"
#include "MorvanePlatform/Files.h"

#include <cerrno>

namespace morvane::testing {

void RecordingToolLauncher::answer(const std::string& commandLine, LaunchResult result) {
    std::lock_guard guard(lock_);
    answers_[commandLine] = std::move(result);
}

void RecordingToolLauncher::answerPrefix(const std::string& prefix, LaunchResult result) {
    std::lock_guard guard(lock_);
    prefixAnswers_.emplace_back(prefix, std::move(result));
}

void RecordingToolLauncher::simulate(const std::string& prefix,
                                     std::function<LaunchResult(const std::vector<std::string>&)> tool) {
    std::lock_guard guard(lock_);
    simulations_.emplace_back(prefix, std::move(tool));
}

LaunchResult RecordingToolLauncher::launch(const std::string& path, const std::vector<std::string>& arguments) {
    std::string commandLine = path;
    for (const auto& argument : arguments)
        commandLine += " " + argument;

    std::function<LaunchResult(const std::vector<std::string>&)> simulation;
    {
        std::lock_guard guard(lock_);
        launched_.push_back(commandLine);
        for (const auto& [prefix, tool] : simulations_) {
            if (commandLine.starts_with(prefix)) simulation = tool;
        }
    }
    // Outside the lock: a simulated tool may take its time, or launch others.
    if (simulation) return simulation(arguments);

    std::lock_guard guard(lock_);
    if (auto found = answers_.find(commandLine); found != answers_.end()) return found->second;
    for (const auto& [prefix, result] : prefixAnswers_) {
        if (commandLine.starts_with(prefix)) return result;
    }
    return {-1, "Couldn't launch " + path + ": No such file or directory"};
}

std::vector<std::string> RecordingToolLauncher::commandLines() const {
    std::lock_guard guard(lock_);
    return launched_;
}

size_t RecordingToolLauncher::count(const std::string& prefix) const {
    std::lock_guard guard(lock_);
    size_t total = 0;
    for (const auto& line : launched_)
        total += line.starts_with(prefix) ? 1 : 0;
    return total;
}

std::optional<std::string> FakeVolumes::deviceOf(const std::string& path) {
    if (auto found = devices.find(path); found != devices.end()) return found->second;
    return std::nullopt;
}

FileSystem& FailingFileSystem::count(const std::filesystem::path& path) {
    if (++calls_ == failingCall_) throw PlatformError::fromErrno(ENOSPC, "Couldn't write", path.string());
    return FileSystem::system();
}

TemporaryUser::TemporaryUser(std::string user)
    : home_(root_.makeFolder("home")), temporary_(root_.makeFolder("tmp")),
      folders_(home_, temporary_, std::move(user)) {}

std::string recordedOutput(const std::string& name) {
    return files::read(std::filesystem::path(MORVANE_TEST_DATA_DIR) / name);
}

} // namespace morvane::testing
