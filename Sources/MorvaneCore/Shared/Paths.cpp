#include "MorvaneCore/Shared/Paths.h"

#include "MorvanePlatform/UserFolders.h"

namespace morvane::paths {
namespace {

std::string_view withoutTrailingSlashes(std::string_view path) {
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    return path;
}

std::string home() {
    const std::string folder = UserFolders::current().home().string();
    return std::string(withoutTrailingSlashes(folder));
}

std::string homeOf(const std::string& user) {
    const auto folder = UserFolders::current().homeOf(user);
    return folder ? std::string(withoutTrailingSlashes(folder->string())) : std::string();
}

} // namespace

std::string lastComponent(std::string_view path) {
    path = withoutTrailingSlashes(path);
    if (path == "/") return "/";
    const auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string deletingLastComponent(std::string_view path) {
    path = withoutTrailingSlashes(path);
    if (path == "/") return "/";
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos) return {};
    if (slash == 0) return "/";
    return std::string(withoutTrailingSlashes(path.substr(0, slash)));
}

std::vector<std::string> components(std::string_view path) {
    std::vector<std::string> parts;
    if (path.starts_with('/')) parts.emplace_back("/");
    size_t start = 0;
    while (start < path.size()) {
        const auto end = std::min(path.find('/', start), path.size());
        if (end > start) parts.emplace_back(path.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

std::string expandingTilde(std::string_view path) {
    if (!path.starts_with('~')) return std::string(path);
    const auto slash = path.find('/');
    const auto user = path.substr(1, slash == std::string_view::npos ? std::string_view::npos : slash - 1);
    const std::string base = user.empty() ? home() : homeOf(std::string(user));
    if (base.empty()) return std::string(path);
    const auto rest = slash == std::string_view::npos ? std::string_view{} : path.substr(slash);
    return base == "/" && !rest.empty() ? std::string(rest) : base + std::string(rest);
}

std::string abbreviatingWithTilde(std::string_view path) {
    const auto homePath = home();
    if (homePath.empty() || homePath == "/" || !path.starts_with(homePath)) return std::string(path);
    const auto rest = path.substr(homePath.size());
    if (!rest.empty() && rest.front() != '/') return std::string(path);
    return "~" + std::string(withoutTrailingSlashes(rest) == "/" ? "" : rest);
}

} // namespace morvane::paths
