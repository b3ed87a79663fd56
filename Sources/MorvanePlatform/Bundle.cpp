#include "MorvanePlatform/Bundle.h"

#include <mutex>

namespace morvane {
namespace {

class ProcessBundle final : public Bundle {
public:
    std::filesystem::path location() const override {
        std::error_code error;
        auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
        return error ? std::filesystem::path() : executable;
    }

    std::optional<std::string> identifier() const override {
        std::lock_guard guard(lock_);
        return identifier_;
    }

    void declare(std::string identifier) {
        std::lock_guard guard(lock_);
        identifier_ = std::move(identifier);
    }

private:
    mutable std::mutex lock_;
    std::optional<std::string> identifier_; // guarded by lock_
};

ProcessBundle& processBundle() {
    static ProcessBundle bundle;
    return bundle;
}

} // namespace

Bundle& Bundle::system() { return processBundle(); }

void Bundle::declareIdentifier(std::string identifier) { processBundle().declare(std::move(identifier)); }

} // namespace morvane
