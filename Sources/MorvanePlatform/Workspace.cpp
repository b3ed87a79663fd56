#include "MorvanePlatform/Workspace.h"

#include "MorvanePlatform/ToolLauncher.h"
#include "MorvanePlatform/UserFolders.h"

#include <cstdlib>
#include <sstream>
#include <vector>

namespace morvane {
namespace {

constexpr const char* xdgOpen = "/usr/bin/xdg-open";
constexpr const char* gio = "/usr/bin/gio";
constexpr const char* dbusSend = "/usr/bin/dbus-send";

// Where desktop files of installed applications lie, most personal first.
std::vector<std::filesystem::path> applicationFolders() {
    std::vector<std::filesystem::path> folders;
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    folders.push_back(dataHome != nullptr && *dataHome != '\0' ? std::filesystem::path(dataHome)
                                                               : UserFolders::current().home() / ".local/share");
    const char* dataDirs = std::getenv("XDG_DATA_DIRS");
    std::istringstream list(dataDirs != nullptr && *dataDirs != '\0' ? dataDirs : "/usr/local/share:/usr/share");
    for (std::string folder; std::getline(list, folder, ':');) {
        if (!folder.empty()) folders.emplace_back(folder);
    }
    for (auto& folder : folders)
        folder /= "applications";
    return folders;
}

class FreedesktopWorkspace final : public Workspace {
public:
    bool openURL(const std::string& url) override { return ToolLauncher::current().launch(xdgOpen, {url}).status == 0; }

    bool openApplication(const std::string& bundleID) override {
        for (const auto& folder : applicationFolders()) {
            const auto desktopFile = folder / (bundleID + ".desktop");
            std::error_code error;
            if (std::filesystem::exists(desktopFile, error))
                return ToolLauncher::current().launch(gio, {"launch", desktopFile.string()}).status == 0;
        }
        return false;
    }

    void revealInFileManager(const std::filesystem::path& file) override {
        // The file managers' common interface selects the file; without it, open its folder.
        const auto uri = "file://" + file.string();
        const auto shown = ToolLauncher::current().launch(
            dbusSend,
            {"--session", "--print-reply", "--dest=org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
             "org.freedesktop.FileManager1.ShowItems", "array:string:" + uri, "string:"});
        if (shown.status != 0) openURL("file://" + file.parent_path().string());
    }
};

} // namespace

Workspace& Workspace::system() {
    static FreedesktopWorkspace workspace;
    return workspace;
}

} // namespace morvane
