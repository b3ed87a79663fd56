#pragma once

#include "MorvanePlatform/CalDAVAccount.h"

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

using CURL = void;

namespace morvane::caldav {

struct HttpResponse {
    long status = 0;
    // The body, unless a sink took it.
    std::string body;
    std::string etag;
};

struct HttpTimeOuts {
    std::chrono::seconds connect{10};
    // How long a request may go without a byte in either direction.
    std::chrono::seconds stall{30};
};

// HTTP for one account, over libcurl: TLS certificates always verified (the account's certificate
// authority trusted besides the system's), credentials sent with the first request and never put
// into a URL or a message, redirects followed only on the same scheme, host and port. Plain HTTP
// is for this machine's loopback unless the account allows it, with a warning in the system log.
// Connections are kept between requests. One thread at a time.
//
// Failures throw EventStoreError: a server that can't be reached or stops answering (within the
// time-outs), a refused password (401, at once and without retrying), a redirect elsewhere. Other
// statuses are the caller's to judge.
class HttpClient {
public:
    // Throws EventStoreError for a URL that isn't http(s), carries credentials, or is plain HTTP
    // to another host without the account's leave. Time-outs other than the defaults are for tests.
    explicit HttpClient(CalDAVAccount account, HttpTimeOuts timeOuts = {});
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    const CalDAVAccount& account() const { return account_; }
    // "scheme://host:port" of the account's URL.
    const std::string& origin() const { return origin_; }
    // The absolute URL of a WebDAV href (a path or a URL).
    std::string absolute(std::string_view href) const;

    // Sends a request; with a `sink`, a 2xx answer's body goes to it as it arrives (an exception
    // from the sink stops the transfer and is rethrown).
    HttpResponse send(const std::string& method, const std::string& url, const std::vector<std::string>& headers,
                      const std::string& body, const std::function<void(std::string_view)>& sink = {});

private:
    HttpResponse sendOnce(const std::string& method, const std::string& url, const std::vector<std::string>& headers,
                          const std::string& body, const std::function<void(std::string_view)>& sink,
                          std::string& location);

    const CalDAVAccount account_;
    const HttpTimeOuts timeOuts_;
    std::string origin_;
    CURL* handle_ = nullptr;
};

// The "scheme://host:port" of an absolute URL, the port filled in from the scheme; empty for a
// text that isn't one.
std::string originOf(const std::string& url);

} // namespace morvane::caldav
