#include "Support/Fakes.h"

#include "MorvanePlatform/Files.h"

namespace morvane::testing {

void RecordingToolLauncher::answer(const std::string& commandLine, LaunchResult result) {
    std::lock_guard guard(lock_);
    answers_[commandLine] = std::move(result);
}

void RecordingToolLauncher::answerPrefix(const std::string& prefix, LaunchResult result) {
    std::lock_guard guard(lock_);
    prefixAnswers_.emplace_back(prefix, std::move(result));
}

LaunchResult RecordingToolLauncher::launch(const std::string& path, const std::vector<std::string>& arguments) {
    std::string commandLine = path;
    for (const auto& argument : arguments)
        commandLine += " " + argument;

    std::lock_guard guard(lock_);
    launched_.push_back(commandLine);
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

TemporaryUser::TemporaryUser(std::string user)
    : home_(root_.makeFolder("home")), temporary_(root_.makeFolder("tmp")),
      folders_(home_, temporary_, std::move(user)), installed_(folders_) {}

std::string recordedOutput(const std::string& name) {
    return files::read(std::filesystem::path(MORVANE_TEST_DATA_DIR) / name);
}

} // namespace morvane::testing
