// Redirects are followed here rather than by libcurl, so that every hop is checked against the
// account's server before anything, credentials included, is sent to it.
#include "MorvanePlatform/EventStore/CalDAV/HttpClient.h"

#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/SystemLog.h"

#include <algorithm>
#include <cctype>
#include <curl/curl.h>
#include <exception>
#include <memory>
#include <mutex>

namespace morvane::caldav {
namespace {

constexpr int redirectLimit = 5;
// What is kept of a body that isn't wanted (an error page), to bound a hostile one.
constexpr size_t unwantedBodyLimit = 64 * 1024;

struct UrlFree {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct TextFree {
    void operator()(char* text) const { curl_free(text); }
};
struct ListFree {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

std::string part(CURLU* url, CURLUPart which, unsigned flags = 0) {
    char* text = nullptr;
    if (curl_url_get(url, which, &text, flags) != CURLUE_OK || text == nullptr) return {};
    const std::unique_ptr<char, TextFree> owned(text);
    return text;
}

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

bool isLoopback(const std::string& host) {
    const auto name = lowercase(host);
    return name == "localhost" || name == "[::1]" || name == "::1" || name.rfind("127.", 0) == 0;
}

void initializeCurl() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct Transfer {
    CURL* handle = nullptr;
    const std::function<void(std::string_view)>* sink = nullptr;
    HttpResponse* response = nullptr;
    std::string* location = nullptr;
    std::exception_ptr failure;
    // The last time a byte moved either way, to end a transfer that stalls.
    std::chrono::seconds stallLimit{0};
    std::chrono::steady_clock::time_point lastMoved = std::chrono::steady_clock::now();
    curl_off_t received = 0;
    curl_off_t sent = 0;
    bool stalled = false;
};

// libcurl's own low-speed check averages over several seconds, so a stall would be noticed only
// seconds after its limit; this one counts from the last byte.
int checkProgress(void* context, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
    auto& transfer = *static_cast<Transfer*>(context);
    const auto now = std::chrono::steady_clock::now();
    if (received != transfer.received || sent != transfer.sent) {
        transfer.received = received;
        transfer.sent = sent;
        transfer.lastMoved = now;
        return 0;
    }
    if (now - transfer.lastMoved < transfer.stallLimit) return 0;
    transfer.stalled = true;
    return 1;
}

size_t receiveBody(char* data, size_t size, size_t count, void* context) {
    auto& transfer = *static_cast<Transfer*>(context);
    const size_t length = size * count;
    long status = 0;
    curl_easy_getinfo(transfer.handle, CURLINFO_RESPONSE_CODE, &status);
    if (*transfer.sink && status >= 200 && status < 300) {
        try {
            (*transfer.sink)(std::string_view(data, length));
        } catch (...) {
            transfer.failure = std::current_exception();
            return 0;
        }
        return length;
    }
    auto& body = transfer.response->body;
    const bool wanted = status >= 200 && status < 300;
    if (wanted || body.size() < unwantedBodyLimit)
        body.append(data, wanted ? length : std::min(length, unwantedBodyLimit - body.size()));
    return length;
}

size_t receiveHeader(char* data, size_t size, size_t count, void* context) {
    auto& transfer = *static_cast<Transfer*>(context);
    const std::string_view line(data, size * count);
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) {
        // A status line starts the headers of another answer (after a 100 Continue, say).
        if (line.rfind("HTTP/", 0) == 0) {
            transfer.response->etag.clear();
            transfer.location->clear();
        }
        return size * count;
    }
    const auto name = lowercase(std::string(line.substr(0, colon)));
    auto value = line.substr(colon + 1);
    while (!value.empty() && std::isspace(static_cast<unsigned char>(value.front())))
        value.remove_prefix(1);
    while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back())))
        value.remove_suffix(1);
    if (name == "etag") transfer.response->etag = std::string(value);
    if (name == "location") *transfer.location = std::string(value);
    return size * count;
}

std::string secondsText(std::chrono::seconds seconds) {
    return std::to_string(seconds.count()) + (seconds.count() == 1 ? " second" : " seconds");
}

} // namespace

std::string originOf(const std::string& url) {
    const std::unique_ptr<CURLU, UrlFree> parsed(curl_url());
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return {};
    const auto scheme = lowercase(part(parsed.get(), CURLUPART_SCHEME));
    const auto host = lowercase(part(parsed.get(), CURLUPART_HOST));
    const auto port = part(parsed.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    if (scheme.empty() || host.empty()) return {};
    return scheme + "://" + host + ":" + port;
}

HttpClient::HttpClient(CalDAVAccount account, HttpTimeOuts timeOuts)
    : account_(std::move(account)), timeOuts_(timeOuts) {
    initializeCurl();
    const std::unique_ptr<CURLU, UrlFree> parsed(curl_url());
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, account_.url.c_str(), 0) != CURLUE_OK) {
        throw EventStoreError("\"" + account_.url + "\" isn't a URL that the account \"" + account_.name +
                              "\" can use.");
    }
    const auto scheme = lowercase(part(parsed.get(), CURLUPART_SCHEME));
    if (scheme != "https" && scheme != "http") {
        throw EventStoreError("The account \"" + account_.name + "\" needs an https:// URL.");
    }
    if (!part(parsed.get(), CURLUPART_USER).empty() || !part(parsed.get(), CURLUPART_PASSWORD).empty()) {
        throw EventStoreError("The URL of the account \"" + account_.name +
                              "\" holds a user name or password; they belong in the account instead.");
    }
    const auto host = part(parsed.get(), CURLUPART_HOST);
    if (scheme == "http" && !isLoopback(host)) {
        if (!account_.allowPlainHTTP) {
            throw EventStoreError("The account \"" + account_.name + "\" uses plain HTTP to " + host +
                                  ", which would send the password and the calendars unencrypted; use https:// "
                                  "instead.");
        }
        SystemLog::current().write("The account \"" + account_.name + "\" uses plain HTTP to " + host +
                                   ": its password and calendars travel unencrypted.");
    }
    origin_ = originOf(account_.url);
    handle_ = curl_easy_init();
    if (handle_ == nullptr) throw EventStoreError("The HTTP library couldn't be started.");
}

HttpClient::~HttpClient() {
    if (handle_ != nullptr) curl_easy_cleanup(handle_);
}

std::string HttpClient::absolute(std::string_view href) const {
    const std::unique_ptr<CURLU, UrlFree> parsed(curl_url());
    if (!parsed) return std::string(href);
    curl_url_set(parsed.get(), CURLUPART_URL, account_.url.c_str(), 0);
    // Relative references resolve against the account's URL; absolute ones replace it.
    if (curl_url_set(parsed.get(), CURLUPART_URL, std::string(href).c_str(), CURLU_PATH_AS_IS) != CURLUE_OK) {
        return origin_ + std::string(href);
    }
    return part(parsed.get(), CURLUPART_URL);
}

HttpResponse HttpClient::send(const std::string& method, const std::string& url,
                              const std::vector<std::string>& headers, const std::string& body,
                              const std::function<void(std::string_view)>& sink) {
    std::string target = url;
    for (int hop = 0;; ++hop) {
        std::string location;
        auto response = sendOnce(method, target, headers, body, sink, location);
        const bool redirect = response.status == 301 || response.status == 302 || response.status == 303 ||
                              response.status == 307 || response.status == 308;
        if (!redirect || location.empty()) return response;
        const std::unique_ptr<CURLU, UrlFree> next(curl_url());
        curl_url_set(next.get(), CURLUPART_URL, target.c_str(), 0);
        if (curl_url_set(next.get(), CURLUPART_URL, location.c_str(), 0) != CURLUE_OK) {
            throw EventStoreError("The server of \"" + account_.name + "\" redirected " + method + " " + target +
                                  " to an address that isn't a URL.");
        }
        const auto nextURL = part(next.get(), CURLUPART_URL);
        const auto nextOrigin = originOf(nextURL);
        if (nextOrigin != origin_) {
            throw EventStoreError("The server of \"" + account_.name + "\" redirected " + method + " " + target +
                                  " to another server (" + nextOrigin +
                                  "); redirects are only followed on the account's own server.");
        }
        if (hop + 1 >= redirectLimit) {
            throw EventStoreError("The server of \"" + account_.name + "\" redirected " + method + " " + url +
                                  " too many times.");
        }
        target = nextURL;
    }
}

HttpResponse HttpClient::sendOnce(const std::string& method, const std::string& url,
                                  const std::vector<std::string>& headers, const std::string& body,
                                  const std::function<void(std::string_view)>& sink, std::string& location) {
    HttpResponse response;
    Transfer transfer{handle_, &sink, &response, &location};
    transfer.stallLimit = timeOuts_.stall;
    curl_easy_reset(handle_);
    std::unique_ptr<curl_slist, ListFree> list;
    for (const auto& header : headers) {
        auto* extended = curl_slist_append(list.get(), header.c_str());
        if (extended == nullptr) throw EventStoreError("Out of memory for the request's headers.");
        (void)list.release();
        list.reset(extended);
    }
    char errorText[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(handle_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, method.c_str());
    curl_easy_setopt(handle_, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle_, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle_, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(handle_, CURLOPT_CONNECTTIMEOUT, static_cast<long>(timeOuts_.connect.count()));
    // A stall is no byte either way for the stall time; a slow but steady answer (a large
    // calendar) has no overall limit.
    curl_easy_setopt(handle_, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle_, CURLOPT_XFERINFOFUNCTION, checkProgress);
    curl_easy_setopt(handle_, CURLOPT_XFERINFODATA, &transfer);
    curl_easy_setopt(handle_, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle_, CURLOPT_SSL_VERIFYHOST, 2L);
    if (account_.caFile) {
        curl_easy_setopt(handle_, CURLOPT_CAINFO, account_.caFile->c_str());
        // The system's authorities stay trusted beside the account's own.
        curl_easy_setopt(handle_, CURLOPT_CAPATH, "/etc/ssl/certs");
    }
    // Basic authentication from the first request: a wrong password costs one request, not a
    // challenge and a retry. It never travels unencrypted except to this machine or by leave.
    curl_easy_setopt(handle_, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
    curl_easy_setopt(handle_, CURLOPT_USERNAME, account_.user.c_str());
    curl_easy_setopt(handle_, CURLOPT_PASSWORD, account_.password.c_str());
    if (method == "GET") {
        curl_easy_setopt(handle_, CURLOPT_HTTPGET, 1L);
    } else if (!body.empty() || method == "PUT") {
        curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, body.c_str());
        curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    }
    curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, list.get());
    curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, receiveBody);
    curl_easy_setopt(handle_, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(handle_, CURLOPT_HEADERFUNCTION, receiveHeader);
    curl_easy_setopt(handle_, CURLOPT_HEADERDATA, &transfer);
    const auto result = curl_easy_perform(handle_);
    if (transfer.failure) std::rethrow_exception(transfer.failure);
    if (result == CURLE_OPERATION_TIMEDOUT) {
        throw EventStoreError("The server of \"" + account_.name + "\" (" + origin_ + ") couldn't be reached for " +
                              method + " " + url + " within " + secondsText(timeOuts_.connect) + ".");
    }
    if (transfer.stalled) {
        throw EventStoreError("The server of \"" + account_.name + "\" (" + origin_ + ") stopped answering " + method +
                              " " + url + ": nothing came for " + secondsText(timeOuts_.stall) + ".");
    }
    if (result != CURLE_OK) {
        const std::string reason = errorText[0] != '\0' ? errorText : curl_easy_strerror(result);
        throw EventStoreError("The server of \"" + account_.name + "\" couldn't be reached for " + method + " " + url +
                              ": " + reason);
    }
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &response.status);
    if (response.status == 401) {
        throw EventStoreError("The server refused the user name or password for " + account_.name + ".");
    }
    return response;
}

} // namespace morvane::caldav
