// The server runs in a process group of its own, so that stopping it stops whatever it started.
// Readiness is the first answered request, polled for up to ten seconds: radicale takes a while
// to import its modules on a busy machine.
#include "Support/Radicale.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <curl/curl.h>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace morvane::testing {
namespace {

constexpr const char* serverProgram = "/usr/bin/radicale";
constexpr const char* adminUser = "admin";
constexpr const char* adminPassword = "admin password";

int freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return 0;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    close(fd);
    return port;
}

size_t collect(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

size_t discard(char*, size_t size, size_t count, void*) { return size * count; }

struct CurlDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct HeaderListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

} // namespace

Radicale::Radicale() {
    if (access(serverProgram, X_OK) != 0) {
        skipReason_ = std::string(serverProgram) + " isn't installed (scripts/setup.sh installs it).";
        return;
    }
    port_ = freePort();
    if (port_ == 0) {
        skipReason_ = "No free port on 127.0.0.1 for radicale.";
        return;
    }
    origin_ = "http://127.0.0.1:" + std::to_string(port_);
    const auto root = folder_.path();
    folder_.write("users", user() + ":" + password() + "\n" + adminUser + ":" + adminPassword + "\n");
    // First match wins: the admin everywhere, then the read-only calendars, then the owner's.
    folder_.write("rights", "[admin]\nuser: admin\ncollection: .*\npermissions: RrWw\n"
                            "[shared]\nuser: .+\ncollection: {user}/shared-[^/]*\npermissions: r\n"
                            "[principal]\nuser: .+\ncollection: {user}\npermissions: RW\n"
                            "[calendars]\nuser: .+\ncollection: {user}/[^/]+\npermissions: rw\n"
                            "[root]\nuser: .+\ncollection:\npermissions: R\n");
    folder_.write("config", "[server]\nhosts = 127.0.0.1:" + std::to_string(port_) +
                                "\n"
                                "[auth]\ntype = htpasswd\nhtpasswd_filename = " +
                                (root / "users").string() +
                                "\nhtpasswd_encryption = plain\n"
                                "[rights]\ntype = from_file\nfile = " +
                                (root / "rights").string() +
                                "\n"
                                "[storage]\nfilesystem_folder = " +
                                (root / "storage").string() +
                                "\n"
                                "[web]\ntype = none\n"
                                "[logging]\nlevel = error\n");
    start();
    // The principal's collection exists once its owner has been seen: calendars go below it.
    if (!skipReason_) request("MKCOL", "/" + user() + "/");
}

Radicale::~Radicale() { stop(); }

Radicale& Radicale::shared() {
    static Radicale server;
    return server;
}

void Radicale::start() {
    if (process_ != 0 || port_ == 0) return;
    const std::string config = (folder_.path() / "config").string();
    const std::string log = (folder_.path() / "radicale.log").string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attributes, 0);
    std::string program = serverProgram;
    std::string option = "--config";
    char* arguments[] = {program.data(), option.data(), const_cast<char*>(config.c_str()), nullptr};
    const int spawned = posix_spawn(&process_, serverProgram, &actions, &attributes, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (spawned != 0) {
        process_ = 0;
        skipReason_ = std::string("radicale couldn't be started: ") + strerror(spawned);
        return;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        if (request("OPTIONS", "/") != 0) {
            skipReason_.reset();
            return;
        }
        int status = 0;
        if (waitpid(process_, &status, WNOHANG) == process_) {
            process_ = 0;
            skipReason_ = "radicale stopped at once; its log is in " + log;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    stop();
    skipReason_ = "radicale didn't answer on " + origin_ + " within ten seconds.";
}

void Radicale::stop() {
    if (process_ == 0) return;
    kill(-process_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    int status = 0;
    while (waitpid(process_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(-process_, SIGKILL);
            waitpid(process_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    process_ = 0;
}

CalDAVAccount Radicale::account(const std::string& name) const {
    CalDAVAccount account;
    account.name = name;
    account.url = origin_ + "/";
    account.user = user();
    account.password = password();
    return account;
}

long Radicale::request(const std::string& method, const std::string& path, const std::string& body,
                       const std::string& contentType, std::string* answer) const {
    if (origin_.empty()) return 0;
    std::unique_ptr<CURL, CurlDeleter> curl(curl_easy_init());
    if (!curl) return 0;
    std::unique_ptr<curl_slist, HeaderListDeleter> headers;
    if (!contentType.empty()) {
        headers.reset(curl_slist_append(nullptr, ("Content-Type: " + contentType).c_str()));
    }
    const std::string url = origin_ + path;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_USERNAME, adminUser);
    curl_easy_setopt(curl.get(), CURLOPT_PASSWORD, adminPassword);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT, 30L);
    if (method == "GET" || method == "HEAD") {
        curl_easy_setopt(curl.get(), CURLOPT_NOBODY, method == "HEAD" ? 1L : 0L);
    } else {
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    }
    if (headers) curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    if (answer) {
        curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, collect);
        curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, answer);
    } else {
        curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, discard);
    }
    if (curl_easy_perform(curl.get()) != CURLE_OK) return 0;
    long status = 0;
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    return status;
}

std::string Radicale::makeCalendar(const std::string& name, const std::string& displayName,
                                   const std::string& color) const {
    const std::string path = "/" + user() + "/" + name + "/";
    std::string properties;
    if (!displayName.empty()) properties += "<D:displayname>" + displayName + "</D:displayname>";
    if (!color.empty()) properties += "<A:calendar-color>" + color + "</A:calendar-color>";
    const std::string body = properties.empty()
                                 ? std::string()
                                 : "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                                   "<C:mkcalendar xmlns:D=\"DAV:\" xmlns:C=\"urn:ietf:params:xml:ns:caldav\" "
                                   "xmlns:A=\"http://apple.com/ns/ical/\"><D:set><D:prop>" +
                                       properties + "</D:prop></D:set></C:mkcalendar>";
    const long status = request("MKCALENDAR", path, body, body.empty() ? "" : "application/xml");
    if (status != 201) {
        throw std::runtime_error("radicale answered MKCALENDAR " + path + " with " + std::to_string(status));
    }
    return path;
}

long Radicale::put(const std::string& path, const std::string& icalendar) const {
    return request("PUT", path, icalendar, "text/calendar; charset=utf-8");
}

long Radicale::remove(const std::string& path) const { return request("DELETE", path); }

std::string Radicale::get(const std::string& path) const {
    std::string body;
    if (request("GET", path, {}, {}, &body) != 200) return {};
    return body;
}

} // namespace morvane::testing
