#include "MorvanePlatform/UserDefaults.h"

#include "MorvanePlatform/Bundle.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserFolders.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <mutex>
#include <plist/plist.h>
#include <type_traits>

namespace morvane {
namespace {

using PropertyList = std::unique_ptr<std::remove_pointer_t<plist_t>, decltype(&plist_free)>;

std::string domainName() {
    if (auto identifier = Bundle::current().identifier()) return *identifier;
    return Bundle::current().location().filename().string();
}

// The domain's dictionary as stored, or a new empty one.
PropertyList load(const std::filesystem::path& file) {
    plist_t parsed = nullptr;
    try {
        const auto bytes = files::read(file);
        plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &parsed);
    } catch (const std::exception&) {
        // A missing or unreadable file holds no settings.
    }
    PropertyList root(parsed, &plist_free);
    if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return PropertyList(plist_new_dict(), &plist_free);
    return root;
}

void store(const std::filesystem::path& file, plist_t root) {
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    if (xml == nullptr) return;
    const std::string bytes(xml, length);
    plist_to_xml_free(xml);
    try {
        files::createDirectories(file.parent_path());
        files::writeAtomically(file, bytes);
    } catch (const std::exception&) {
        // Settings are never worth failing the work that changes them.
    }
}

class PropertyListDefaults final : public UserDefaults {
public:
    std::optional<bool> boolForKey(const std::string& key) override {
        std::lock_guard guard(lock_);
        const auto root = load(fileOf(domainName()));
        plist_t value = plist_dict_get_item(root.get(), key.c_str());
        if (value == nullptr || plist_get_node_type(value) != PLIST_BOOLEAN) return std::nullopt;
        uint8_t flag = 0;
        plist_get_bool_val(value, &flag);
        return flag != 0;
    }

    void setBool(const std::string& key, bool value) override { set(key, plist_new_bool(value ? 1 : 0)); }

    std::optional<std::string> stringForKey(const std::string& key) override {
        std::lock_guard guard(lock_);
        const auto root = load(fileOf(domainName()));
        plist_t value = plist_dict_get_item(root.get(), key.c_str());
        if (value == nullptr || plist_get_node_type(value) != PLIST_STRING) return std::nullopt;
        uint64_t length = 0;
        const char* characters = plist_get_string_ptr(value, &length);
        return std::string(characters, length);
    }

    void setString(const std::string& key, const std::string& value) override {
        set(key, plist_new_string(value.c_str()));
    }

    std::optional<double> dateForKey(const std::string& key) override {
        std::lock_guard guard(lock_);
        const auto root = load(fileOf(domainName()));
        plist_t value = plist_dict_get_item(root.get(), key.c_str());
        if (value == nullptr || plist_get_node_type(value) != PLIST_DATE) return std::nullopt;
        int32_t seconds = 0;
        int32_t microseconds = 0;
        plist_get_date_val(value, &seconds, &microseconds);
        return seconds + microseconds / 1e6;
    }

    void setDate(const std::string& key, double value) override {
        // The property-list form holds 32-bit seconds since 2001: enough until 2069.
        const double whole = std::floor(value);
        const auto seconds = static_cast<int32_t>(std::clamp(whole, -2147483648.0, 2147483647.0));
        const auto microseconds = static_cast<int32_t>(std::clamp((value - whole) * 1e6, 0.0, 999999.0));
        set(key, plist_new_date(seconds, microseconds));
    }

    void removeObjectForKey(const std::string& key) override {
        std::lock_guard guard(lock_);
        const auto file = fileOf(domainName());
        const auto root = load(file);
        if (plist_dict_get_item(root.get(), key.c_str()) == nullptr) return;
        plist_dict_remove_item(root.get(), key.c_str());
        store(file, root.get());
    }

    void removePersistentDomain(const std::string& name) override {
        std::lock_guard guard(lock_);
        std::error_code ignored;
        std::filesystem::remove(fileOf(name), ignored);
    }

    void synchronize() override {}

private:
    // Takes ownership of `node`.
    void set(const std::string& key, plist_t node) {
        std::lock_guard guard(lock_);
        const auto file = fileOf(domainName());
        const auto root = load(file);
        plist_dict_set_item(root.get(), key.c_str(), node);
        store(file, root.get());
    }

    std::mutex lock_; // one read-modify-write of a file at a time within the process
};

} // namespace

std::filesystem::path UserDefaults::fileOf(const std::string& domain) {
    return UserFolders::current().preferences() / (domain + ".plist");
}

UserDefaults& UserDefaults::system() {
    static PropertyListDefaults defaults;
    return defaults;
}

} // namespace morvane
