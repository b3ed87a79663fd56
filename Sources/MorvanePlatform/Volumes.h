#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <optional>
#include <string>

namespace morvane {

// Which device a mounted volume comes from: the role of `statfs`'s `f_mntfromname`.
//
// Threads: any thread, concurrently; each call reads the mount table afresh.
class Volumes : public Replaceable<Volumes> {
public:
    virtual ~Volumes() = default;

    // The device (or mount source) of the file system that holds `path`, such as "/dev/disk3s5".
    // Nothing when the path doesn't exist or the mount table can't be read. Never throws.
    virtual std::optional<std::string> deviceOf(const std::string& path) = 0;

    // The real implementation: the mount table of the running system.
    static Volumes& system();
};

} // namespace morvane
