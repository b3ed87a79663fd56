#include "MorvanePlatform/EventStore/CalDAV/Collections.h"

#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/EventStore/CalDAV/Multistatus.h"

#include <cctype>

namespace morvane::caldav {
namespace {

constexpr const char* xmlType = "Content-Type: application/xml; charset=utf-8";

std::string propfindBody(const std::string& properties) {
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
           "<D:propfind xmlns:D=\"DAV:\" xmlns:C=\"urn:ietf:params:xml:ns:caldav\" "
           "xmlns:A=\"http://apple.com/ns/ical/\" xmlns:CS=\"http://calendarserver.org/ns/\"><D:prop>" +
           properties + "</D:prop></D:propfind>";
}

std::vector<DavResponse> propfind(HttpClient& client, const std::string& url, const char* depth,
                                  const std::string& properties) {
    const std::string request = "PROPFIND " + url;
    const auto response =
        client.send("PROPFIND", url, {xmlType, std::string("Depth: ") + depth}, propfindBody(properties));
    if (response.status != 207) {
        throw EventStoreError("The server of \"" + client.account().name + "\" answered " + request + " with HTTP " +
                              std::to_string(response.status) + ".");
    }
    return readMultistatus(request, response.body);
}

std::optional<std::string> hrefIn(const DavResponse& response, std::string_view space, std::string_view name) {
    const auto* property = response.property(space, name);
    const auto* href = property ? property->child(davNamespace, "href") : nullptr;
    if (!href || href->trimmedText().empty()) return std::nullopt;
    return href->trimmedText();
}

std::string pathOf(const std::string& url) {
    const auto scheme = url.find("://");
    if (scheme == std::string::npos) return url;
    const auto slash = url.find('/', scheme + 3);
    return slash == std::string::npos ? "/" : url.substr(slash);
}

std::string lastSegment(std::string path) {
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool holdsPrivilege(const XmlElement& set) {
    for (const auto& privilege : set.children) {
        if (!privilege.is(davNamespace, "privilege")) continue;
        for (const auto& granted : privilege.children) {
            if (granted.space == davNamespace &&
                (granted.name == "write" || granted.name == "write-content" || granted.name == "all")) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

std::optional<std::vector<double>> colorComponents(const std::string& text) {
    if (text.size() != 7 && text.size() != 9) return std::nullopt;
    if (text[0] != '#') return std::nullopt;
    std::vector<double> components;
    for (size_t i = 1; i < text.size(); i += 2) {
        int value = 0;
        for (size_t j = i; j < i + 2; ++j) {
            const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[j])));
            if (c >= '0' && c <= '9') {
                value = value * 16 + (c - '0');
            } else if (c >= 'a' && c <= 'f') {
                value = value * 16 + (c - 'a' + 10);
            } else {
                return std::nullopt;
            }
        }
        components.push_back(value / 255.0);
    }
    if (components.size() == 3) components.push_back(1.0);
    return components;
}

std::vector<CalendarCollection> discoverCalendars(HttpClient& client) {
    const auto& start = client.account().url;
    std::string home = start;
    const auto first = propfind(client, start, "0", "<D:current-user-principal/><C:calendar-home-set/>");
    const DavResponse* own = first.empty() ? nullptr : &first.front();
    if (own) {
        if (auto found = hrefIn(*own, calDAVNamespace, "calendar-home-set")) {
            home = client.absolute(*found);
        } else if (auto principal = hrefIn(*own, davNamespace, "current-user-principal")) {
            const auto second = propfind(client, client.absolute(*principal), "0", "<C:calendar-home-set/>");
            if (!second.empty()) {
                if (auto listed = hrefIn(second.front(), calDAVNamespace, "calendar-home-set")) {
                    home = client.absolute(*listed);
                }
            }
        }
    }
    const auto listed = propfind(client, home, "1",
                                 "<D:resourcetype/><D:displayname/><A:calendar-color/>"
                                 "<D:current-user-privilege-set/><C:supported-calendar-component-set/>");
    std::vector<CalendarCollection> calendars;
    for (const auto& response : listed) {
        const auto* type = response.property(davNamespace, "resourcetype");
        if (!type) continue;
        const bool subscribed = type->child(calendarServerNamespace, "subscribed") != nullptr;
        if (!type->child(calDAVNamespace, "calendar") && !subscribed) continue;
        if (const auto* components = response.property(calDAVNamespace, "supported-calendar-component-set")) {
            bool events = false;
            for (const auto& component : components->children) {
                if (component.is(calDAVNamespace, "comp") && component.attribute("name") == "VEVENT") events = true;
            }
            if (!events && !components->children.empty()) continue;
        }
        CalendarCollection calendar;
        calendar.href = pathOf(client.absolute(response.href));
        const auto* name = response.property(davNamespace, "displayname");
        calendar.title = name && !name->trimmedText().empty() ? name->trimmedText() : lastSegment(calendar.href);
        if (const auto* color = response.property(appleNamespace, "calendar-color")) {
            calendar.colorComponents = colorComponents(color->trimmedText());
        }
        const auto* privileges = response.property(davNamespace, "current-user-privilege-set");
        // A server that doesn't say is taken at its word when a write fails.
        calendar.writable = !subscribed && (privileges == nullptr || holdsPrivilege(*privileges));
        calendar.subscribed = subscribed;
        calendars.push_back(std::move(calendar));
    }
    return calendars;
}

void fetchResources(HttpClient& client, const std::string& calendarHref,
                    const std::function<void(FetchedResource&)>& each) {
    const auto url = client.absolute(calendarHref);
    const std::string request = "REPORT " + url;
    MultistatusReader reader(request, [&](DavResponse& response) {
        const auto* data = response.property(calDAVNamespace, "calendar-data");
        if (!data) return;
        FetchedResource resource;
        resource.href = pathOf(client.absolute(response.href));
        if (const auto* etag = response.property(davNamespace, "getetag")) resource.etag = etag->trimmedText();
        resource.text = data->text;
        resource.oversized = response.oversized;
        each(resource);
    });
    const std::string body = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
                             "<C:calendar-query xmlns:D=\"DAV:\" xmlns:C=\"urn:ietf:params:xml:ns:caldav\">"
                             "<D:prop><D:getetag/><C:calendar-data/></D:prop>"
                             "<C:filter><C:comp-filter name=\"VCALENDAR\"><C:comp-filter name=\"VEVENT\"/>"
                             "</C:comp-filter></C:filter></C:calendar-query>";
    const auto response =
        client.send("REPORT", url, {xmlType, "Depth: 1"}, body, [&](std::string_view bytes) { reader.feed(bytes); });
    if (response.status != 207) {
        throw EventStoreError("The server of \"" + client.account().name + "\" answered " + request + " with HTTP " +
                              std::to_string(response.status) + ".");
    }
    reader.finish();
}

std::optional<FetchedResource> fetchResource(HttpClient& client, const std::string& href) {
    const auto url = client.absolute(href);
    FetchedResource resource;
    resource.href = pathOf(url);
    const auto response = client.send("GET", url, {}, {}, [&](std::string_view bytes) {
        if (resource.oversized) return;
        if (resource.text.size() + bytes.size() > MultistatusReader::defaultTextLimit) {
            resource.oversized = true;
            resource.text.clear();
            return;
        }
        resource.text += bytes;
    });
    if (response.status == 404 || response.status == 410) return std::nullopt;
    if (response.status != 200) {
        throw EventStoreError("The server of \"" + client.account().name + "\" answered GET " + url + " with HTTP " +
                              std::to_string(response.status) + ".");
    }
    resource.etag = response.etag;
    return resource;
}

std::string fetchETag(HttpClient& client, const std::string& href) {
    const auto responses = propfind(client, client.absolute(href), "0", "<D:getetag/>");
    if (responses.empty()) return {};
    const auto* etag = responses.front().property(davNamespace, "getetag");
    return etag ? etag->trimmedText() : std::string();
}

} // namespace morvane::caldav
