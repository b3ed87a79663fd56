// The accounts file holds passwords, so it is read only when private and written private from
// its first byte: a temporary file of mode 0600 beside it, flushed, then renamed over it.
#include "MorvanePlatform/Accounts.h"

#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserFolders.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr std::size_t largestFile = 1 << 20;

// Closes the descriptor it holds on the way out.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

AccountsError failure(const std::string& operation, const fs::path& path, int code) {
    return AccountsError(operation + " " + path.string() + ": " + errnoText(code));
}

std::string readPrivateFile(const fs::path& path, const Descriptor& file) {
    struct stat info {};
    if (::fstat(file.get(), &info) != 0) throw failure("Couldn't read", path, errno);
    if (!S_ISREG(info.st_mode)) throw AccountsError("The accounts file " + path.string() + " isn't a plain file.");
    if (info.st_uid != ::geteuid())
        throw AccountsError("The accounts file " + path.string() +
                            " belongs to another user; Morvane reads only an accounts file of your own.");
    if ((info.st_mode & 077) != 0)
        throw AccountsError("The accounts file " + path.string() +
                            " can be read or changed by other users, and it holds passwords. Make it yours alone "
                            "with: chmod 600 '" +
                            path.string() + "' (and change the passwords if someone else may have read them).");
    if (info.st_size > static_cast<off_t>(largestFile))
        throw AccountsError("The accounts file " + path.string() + " is too large to be a list of accounts.");
    std::string content(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t done = 0;
    while (done < content.size()) {
        const auto count = ::read(file.get(), content.data() + done, content.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw failure("Couldn't read", path, errno);
        if (count == 0) break;
        done += static_cast<std::size_t>(count);
    }
    content.resize(done);
    return content;
}

CalDAVAccount accountFromJSON(const json& value) {
    CalDAVAccount account;
    account.name = value.at("name").get<std::string>();
    account.url = value.at("url").get<std::string>();
    account.user = value.at("user").get<std::string>();
    account.password = value.at("password").get<std::string>();
    if (const auto found = value.find("caFile"); found != value.end() && !found->is_null())
        account.caFile = fs::path(found->get<std::string>());
    account.allowPlainHTTP = value.value("allowPlainHTTP", false);
    return account;
}

AccountList listFromJSON(const json& document) {
    AccountList list;
    for (const auto& value : document.at("accounts"))
        list.accounts.push_back(accountFromJSON(value));
    list.live = document.at("live").get<std::string>();
    if (list.live != AccountList::localName && list.find(list.live) == nullptr)
        throw std::invalid_argument("the live account isn't listed");
    return list;
}

json listJSON(const AccountList& list) {
    json accounts = json::array();
    for (const auto& account : list.accounts) {
        json value = {{"name", account.name},
                      {"url", account.url},
                      {"user", account.user},
                      {"password", account.password},
                      {"allowPlainHTTP", account.allowPlainHTTP}};
        if (account.caFile) value["caFile"] = account.caFile->string();
        accounts.push_back(std::move(value));
    }
    return {{"live", list.live}, {"accounts", std::move(accounts)}};
}

void writeAll(int fd, std::string_view bytes, const fs::path& path) {
    while (!bytes.empty()) {
        const auto count = ::write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw failure("Couldn't write", path, errno);
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

void syncFolder(const fs::path& folder) {
    const Descriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptor.get() >= 0) ::fsync(descriptor.get());
}

} // namespace

const CalDAVAccount* AccountList::find(const std::string& name) const {
    for (const auto& account : accounts)
        if (account.name == name) return &account;
    return nullptr;
}

bool AccountList::operator==(const AccountList& other) const {
    const auto fields = [](const CalDAVAccount& a) {
        return std::tie(a.name, a.url, a.user, a.password, a.caFile, a.allowPlainHTTP);
    };
    return live == other.live &&
           std::equal(accounts.begin(), accounts.end(), other.accounts.begin(), other.accounts.end(),
                      [&fields](const auto& a, const auto& b) { return fields(a) == fields(b); });
}

const CalDAVAccount* AccountList::liveAccount() const { return live == localName ? nullptr : find(live); }

namespace accounts {

fs::path file() { return UserFolders::current().applicationSupport() / "Morvane" / "Accounts.json"; }

AccountList load() {
    const auto path = file();
    const Descriptor descriptor(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (descriptor.get() < 0) {
        if (errno == ENOENT) return {};
        throw failure("Couldn't read", path, errno);
    }
    const auto content = readPrivateFile(path, descriptor);
    try {
        return listFromJSON(json::parse(content));
    } catch (const std::exception&) {
        // The parser's text may quote the file, passwords and all.
        throw AccountsError("The accounts file " + path.string() +
                            " isn't a list of accounts. Remove it and add the accounts again.");
    }
}

void save(const AccountList& list) {
    const auto path = file();
    const auto folder = path.parent_path();
    try {
        files::createDirectories(folder);
        files::setPermissions(folder, 0700);
    } catch (const Error& error) {
        throw AccountsError(error.description());
    }

    auto temporary = path;
    temporary += ".tmp-" + files::randomUUID();
    Descriptor descriptor(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (descriptor.get() < 0) throw failure("Couldn't write", path, errno);
    try {
        // The umask may have taken bits away, which is no harm, but the owner must read it back.
        if (::fchmod(descriptor.get(), 0600) != 0) throw failure("Couldn't write", path, errno);
        writeAll(descriptor.get(), listJSON(list).dump(2) + "\n", path);
        // The data must be on the disk before the rename makes it the file's content.
        if (::fsync(descriptor.get()) != 0 || ::close(descriptor.release()) != 0)
            throw failure("Couldn't write", path, errno);
        if (::rename(temporary.c_str(), path.c_str()) != 0) throw failure("Couldn't write", path, errno);
    } catch (...) {
        ::unlink(temporary.c_str());
        throw;
    }
    syncFolder(folder);
}

bool localStoreIsLive() {
    try {
        return load().liveAccount() == nullptr;
    } catch (const Error&) {
        return false;
    }
}

} // namespace accounts
} // namespace morvane
