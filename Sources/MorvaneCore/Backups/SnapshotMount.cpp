#include "MorvaneCore/Backups/SnapshotMount.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Text.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserFolders.h"
#include "MorvanePlatform/Volumes.h"

#include <map>
#include <mutex>
#include <vector>

namespace morvane {
namespace {

constexpr const char* mountTool = "/sbin/mount_apfs";
constexpr const char* unmountTool = "/sbin/umount";
constexpr const char* listMountsTool = "/sbin/mount";

// The mounts made by this process and still live, by mount point path.
struct Registry {
    std::mutex lock;
    std::map<std::string, std::shared_ptr<SnapshotMount>> active; // guarded by lock
};

Registry& registry() {
    static Registry shared;
    return shared;
}

// Removes an empty mount point folder. Never removes contents: a folder that is still a mount
// point (the unmount failed) must keep what it shows, so it stays behind.
void removeMountPointFolder(const std::filesystem::path& folder) {
    std::error_code ignored;
    std::filesystem::remove(folder, ignored);
}

} // namespace

SnapshotMount::SnapshotMount(std::filesystem::path mountPoint, bool mounted)
    : mountPoint_(std::move(mountPoint)), mounted_(mounted) {}

SnapshotMount::~SnapshotMount() { unmount(); }

std::shared_ptr<SnapshotMount> SnapshotMount::create(const std::string& snapshot, const std::string& volume) {
    if (auto existing = existingMount(snapshot, volume))
        return std::shared_ptr<SnapshotMount>(new SnapshotMount(*existing, false));

    const auto folder = UserFolders::current().temporary() / ("morvane-snap-" + files::randomUUID());
    files::createDirectories(folder);

    const auto result =
        BackupCatalog::run(mountTool, {"-o", "rdonly,nobrowse", "-s", snapshot, volume, folder.string()});
    if (result.status != 0) {
        removeMountPointFolder(folder);
        throw RestoreError("Couldn't mount snapshot " + snapshot + ": " +
                           std::string(text::trimmingWhitespaceAndNewlines(result.output)));
    }

    std::shared_ptr<SnapshotMount> mount(new SnapshotMount(folder, true));
    auto& shared = registry();
    std::lock_guard guard(shared.lock);
    shared.active.emplace(folder.string(), mount);
    return mount;
}

std::optional<std::filesystem::path> SnapshotMount::existingMount(const std::string& snapshot,
                                                                  const std::string& volume) {
    const auto device = Volumes::current().deviceOf(volume);
    if (!device) return std::nullopt;

    // A line of the mount list reads "{snapshot}@{device} on {mount point} ({options})".
    const std::string prefix = snapshot + "@" + *device + " on ";
    const auto listing = BackupCatalog::run(listMountsTool, {});
    for (const auto line : text::nonEmptyLines(listing.output)) {
        if (!line.starts_with(prefix)) continue;
        const auto rest = line.substr(prefix.size());
        // From the end, so that a folder name with " (" in it survives.
        const auto options = rest.rfind(" (");
        if (options == std::string_view::npos) continue;
        return std::filesystem::path(std::string(rest.substr(0, options)));
    }
    return std::nullopt;
}

void SnapshotMount::unmount() {
    if (!mounted_.exchange(false)) return;

    BackupCatalog::run(unmountTool, {mountPoint_.string()});
    removeMountPointFolder(mountPoint_);

    std::shared_ptr<SnapshotMount> released;
    auto& shared = registry();
    {
        std::lock_guard guard(shared.lock);
        if (auto found = shared.active.find(mountPoint_.string()); found != shared.active.end()) {
            released = std::move(found->second);
            shared.active.erase(found);
        }
    }
    // `released` goes out of scope last, after the lock: it may hold the last reference to
    // this very object, so nothing may touch a member after this point.
}

void SnapshotMount::unmountAll() {
    std::vector<std::shared_ptr<SnapshotMount>> live;
    {
        auto& shared = registry();
        std::lock_guard guard(shared.lock);
        for (const auto& [path, mount] : shared.active)
            live.push_back(mount);
    }
    for (const auto& mount : live)
        mount->unmount();
}

} // namespace morvane
