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
    // Text over the reader's limit was left out: the element that grew too long is empty.
    bool oversized = false;

    const XmlElement* property(std::string_view space, std::string_view name) const;
};

// Reads a 207 Multi-Status answer as it arrives, handing each <response> to `onResponse` as
// soon as it is complete, so that only one response at a time is held however long the answer.
// A response's text beyond `textLimit` bytes is dropped and the response marked oversized.
// Throws EventStoreError naming `request` when the answer isn't well-formed XML, isn't a
// multistatus, or makes the parser hold more than `heldLimit` unread bytes (a CDATA section
// can't be read piece by piece); an exception from `onResponse` comes out of `feed`.
class MultistatusReader {
public:
    static constexpr size_t defaultTextLimit = size_t{10} << 20;
    static constexpr size_t heldLimit = size_t{64} << 20;

    MultistatusReader(std::string request, std::function<void(DavResponse&)> onResponse,
                      size_t textLimit = defaultTextLimit);
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
