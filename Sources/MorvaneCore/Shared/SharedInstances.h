#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>

namespace morvane {

// The one object of type T over a folder. A process's `shared` stores each live over one fixed
// folder of the user's; building them per folder rather than once keeps that true for a test
// that gives the process a temporary home.
template <typename T> std::shared_ptr<T> sharedInstance(const std::filesystem::path& directory) {
    static std::mutex lock;
    static std::map<std::filesystem::path, std::shared_ptr<T>> instances; // guarded by lock
    std::lock_guard guard(lock);
    auto& instance = instances[directory];
    if (!instance) instance = std::make_shared<T>(directory);
    return instance;
}

} // namespace morvane
