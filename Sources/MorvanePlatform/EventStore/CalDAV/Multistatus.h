#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace morvane::caldav {

inline constexpr std::string_view davNamespace = "DAV:";
inline constexpr std::string_view calDAVNamespace = "urn:ietf:params:xml:ns:caldav";
inline constexpr std::string_view appleNamespace = "http://apple.com/ns/ical/";
inline constexpr std::string_view calendarServerNamespace = "http://calendarserver.org/ns/";

// An element of a WebDAV answer: its namespace, local name, text and children.
struct XmlElement {
    std::string space;
    std::string name;
    std::string text;
    std::vector<XmlElement> children;
    // Attributes by local name.
    std::vector<std::pair<std::string, std::string>> attributes;

    bool is(std::string_view inSpace, std::string_view localName) const {
        return space == inSpace && name == localName;
    }
    const XmlElement* child(std::string_view inSpace, std::string_view localName) const;
    // The text with white space trimmed at both ends.
    std::string trimmedText() const;
    std::string attribute(std::string_view localName) const;
};

// One <response> of a multistatus: its href and the properties found (those of propstats whose
// status is 2xx).
struct DavResponse {
    std::string href;
    std::vector<XmlElement> properties;

    const XmlElement* property(std::string_view space, std::string_view name) const;
};

// Reads a 207 Multi-Status answer as it arrives, handing each <response> to `onResponse` as
// soon as it is complete, so that only one response at a time is held however long the answer.
// Throws EventStoreError naming `request` when the answer isn't well-formed XML or isn't a
// multistatus; an exception from `onResponse` comes out of `feed`.
class MultistatusReader {
public:
    MultistatusReader(std::string request, std::function<void(DavResponse&)> onResponse);
    ~MultistatusReader();
    MultistatusReader(const MultistatusReader&) = delete;
    MultistatusReader& operator=(const MultistatusReader&) = delete;

    void feed(std::string_view bytes);
    // Ends the answer.
    void finish();

    struct State;

private:
    std::unique_ptr<State> state_;
};

// The responses of a whole answer at once.
std::vector<DavResponse> readMultistatus(const std::string& request, std::string_view answer);

} // namespace morvane::caldav
