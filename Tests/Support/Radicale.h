#pragma once

#include "MorvanePlatform/CalDAVAccount.h"
#include "Support/TemporaryDirectory.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace morvane::testing {

// A real CalDAV server for tests: Debian's radicale on 127.0.0.1 on a free port, with its own
// storage folder, configuration and plain password file, stopped with its process group when
// the object goes. The user "ann" (password `password()`) owns the calendars under "/ann/";
// collections named "shared-..." are hers to read only. The user "admin" may write anywhere:
// the helpers below use it to change the server behind the store's back.
//
// One server serves a whole test binary (`shared()`); each test makes calendars of its own.
class Radicale {
public:
    Radicale();
    ~Radicale();
    Radicale(const Radicale&) = delete;
    Radicale& operator=(const Radicale&) = delete;

    // Started on first use, stopped when the binary exits.
    static Radicale& shared();

    // Why the server isn't running, for GTEST_SKIP; absent when it runs.
    const std::optional<std::string>& skipReason() const { return skipReason_; }

    // "http://127.0.0.1:{port}".
    const std::string& origin() const { return origin_; }
    static std::string user() { return "ann"; }
    static std::string password() { return "correct horse"; }
    // The account of "ann", found from the server's root.
    CalDAVAccount account(const std::string& name = "test") const;

    // Creates the calendar collection "/ann/{name}/" and returns its path. Throws
    // std::runtime_error when the server refuses.
    std::string makeCalendar(const std::string& name, const std::string& displayName = {},
                             const std::string& color = {}) const;

    // Requests as "admin"; each returns the HTTP status (0 when the server can't be reached).
    long put(const std::string& path, const std::string& icalendar) const;
    long remove(const std::string& path) const;
    // The body of a GET, empty when it fails.
    std::string get(const std::string& path) const;
    // Any request, for what the helpers above don't cover.
    long request(const std::string& method, const std::string& path, const std::string& body = {},
                 const std::string& contentType = {}, std::string* answer = nullptr) const;

    // The server's process, 0 when it isn't running: benchmarks read its CPU time.
    pid_t process() const { return process_; }

    // Stops the server, or starts it again on the same port and storage.
    void stop();
    void start();

private:
    TemporaryDirectory folder_;
    std::optional<std::string> skipReason_;
    std::string origin_;
    int port_ = 0;
    pid_t process_ = 0;
};

} // namespace morvane::testing
