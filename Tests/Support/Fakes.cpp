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

void ManualMainThread::run(const std::function<void()>& work) {
    if (std::this_thread::get_id() == owner_) {
        work();
        return;
    }
    // Wait until the owner has run it: background threads see their changes applied in order.
    bool finished = false;
    std::function<void()> job = [&] {
        work();
        std::lock_guard guard(lock_);
        finished = true;
    };
    std::unique_lock guard(lock_);
    queue_.push_back(&job);
    changed_.notify_all();
    changed_.wait(guard, [&] { return finished; });
}

bool ManualMainThread::pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (done()) return true;
        std::function<void()>* job = nullptr;
        {
            std::unique_lock guard(lock_);
            if (!changed_.wait_until(guard, deadline, [this] { return !queue_.empty(); })) return done();
            job = queue_.front();
            queue_.pop_front();
        }
        (*job)();
        changed_.notify_all();
    }
}

void RecordingSystemLog::write(const std::string& line) {
    std::lock_guard guard(lock_);
    lines_.push_back(line);
}

std::vector<std::string> RecordingSystemLog::lines() const {
    std::lock_guard guard(lock_);
    return lines_;
}

TemporaryUser::TemporaryUser(std::string user)
    : home_(root_.makeFolder("home")), temporary_(root_.makeFolder("tmp")),
      folders_(home_, temporary_, std::move(user)), installed_(folders_) {}

std::string recordedOutput(const std::string& name) {
    return files::read(std::filesystem::path(MORVANE_TEST_DATA_DIR) / name);
}

} // namespace morvane::testing
