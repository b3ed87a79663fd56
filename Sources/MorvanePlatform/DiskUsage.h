#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

namespace morvane::files {

// The space a regular file takes on the disk (its allocated blocks, not its length): nothing for
// anything else (a folder, a symbolic link, which isn't followed) and for what can't be looked
// at. Any thread.
std::optional<std::int64_t> allocatedBytes(const std::filesystem::path& path);

} // namespace morvane::files
