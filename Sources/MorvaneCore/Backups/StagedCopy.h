#pragma once

#include <filesystem>
#include <utility>

namespace morvane {

// A staged copy (see BackupLocator): a private "morvane-{UUID}" folder in the temporary folder
// holding one database file and its companions. The owner's copy is removed, folder and all,
// when the owner lets go of it: at the end of its scope, by an exception or normally. Move-only;
// a default-made or moved-from one holds nothing.
//
// Whoever has a database open on the file closes it before the copy goes. Removal drops its
// own errors, so neither `remove` nor the destructor ever fails.
class StagedCopy {
public:
    StagedCopy() = default;
    // Takes over the staged folder that holds `file`.
    explicit StagedCopy(std::filesystem::path file) noexcept : file_(std::move(file)) {}
    ~StagedCopy() { remove(); }

    StagedCopy(StagedCopy&& other) noexcept : file_(std::exchange(other.file_, {})) {}
    StagedCopy& operator=(StagedCopy&& other) noexcept;
    StagedCopy(const StagedCopy&) = delete;
    StagedCopy& operator=(const StagedCopy&) = delete;

    // The staged database file; empty when this holds nothing.
    const std::filesystem::path& file() const { return file_; }
    explicit operator bool() const { return !file_.empty(); }

    // Removes the folder now rather than at the end of the scope. Harmless when called again.
    void remove() noexcept;

private:
    std::filesystem::path file_;
};

} // namespace morvane
