// A SAX reader over libxml2's push parser: elements inside a <response> are built into a small
// tree, which is handed on and dropped when the response ends. Entities aren't substituted and
// nothing is fetched from the network, so a hostile answer can't expand or reach out.
//
// libxml2's own ten-megabyte limits are lifted (XML_PARSE_HUGE) so that one large event doesn't
// fail a whole calendar; the reader bounds memory itself instead: a response's text by
// `textLimit`, and what the parser holds unread (a CDATA section is kept whole until its end) by
// `heldLimit`.
#include "MorvanePlatform/EventStore/CalDAV/Multistatus.h"

#include "MorvanePlatform/EventKit.h"

#include <cctype>
#include <exception>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>

namespace morvane::caldav {

const XmlElement* XmlElement::child(std::string_view inSpace, std::string_view localName) const {
    for (const auto& element : children) {
        if (element.is(inSpace, localName)) return &element;
    }
    return nullptr;
}

std::string XmlElement::trimmedText() const {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(text[begin])))
        ++begin;
    while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1])))
        --end;
    return text.substr(begin, end - begin);
}

std::string XmlElement::attribute(std::string_view localName) const {
    for (const auto& [key, value] : attributes) {
        if (key == localName) return value;
    }
    return {};
}

const XmlElement* DavResponse::property(std::string_view space, std::string_view name) const {
    for (const auto& element : properties) {
        if (element.is(space, name)) return &element;
    }
    return nullptr;
}

struct MultistatusReader::State {
    std::string request;
    std::function<void(DavResponse&)> onResponse;
    xmlParserCtxtPtr parser = nullptr;
    int depth = 0;
    bool sawMultistatus = false;
    // The open elements of the current response, outermost first; empty outside one.
    std::vector<XmlElement> open;
    size_t textLimit = 0;
    // Text kept of the current response, and whether some was dropped.
    size_t textKept = 0;
    bool oversized = false;
    // The depth in `open` of the element whose text is being dropped; 0 when none is.
    size_t droppedDepth = 0;
    std::exception_ptr failure;

    [[noreturn]] void fail(const std::string& reason) const {
        throw EventStoreError("The server's answer to " + request + " isn't a valid WebDAV answer: " + reason);
    }
};

namespace {

using State = MultistatusReader::State;

std::string text(const xmlChar* value) { return value ? reinterpret_cast<const char*>(value) : ""; }

int statusCode(const std::string& statusLine) {
    // "HTTP/1.1 200 OK"
    const auto space = statusLine.find(' ');
    if (space == std::string::npos) return 0;
    try {
        return std::stoi(statusLine.substr(space + 1, 3));
    } catch (...) {
        return 0;
    }
}

DavResponse responseOf(const XmlElement& element) {
    DavResponse response;
    if (const auto* href = element.child(davNamespace, "href")) response.href = href->trimmedText();
    for (const auto& propstat : element.children) {
        if (!propstat.is(davNamespace, "propstat")) continue;
        const auto* status = propstat.child(davNamespace, "status");
        const int code = status ? statusCode(status->trimmedText()) : 200;
        if (code < 200 || code >= 300) continue;
        const auto* prop = propstat.child(davNamespace, "prop");
        if (!prop) continue;
        for (const auto& property : prop->children)
            response.properties.push_back(property);
    }
    return response;
}

void startElement(void* context, const xmlChar* localName, const xmlChar*, const xmlChar* uri, int, const xmlChar**,
                  int attributeCount, int, const xmlChar** attributes) {
    auto& state = *static_cast<State*>(context);
    if (state.failure) return;
    ++state.depth;
    XmlElement element{text(uri), text(localName), {}, {}, {}};
    // Five pointers each: local name, prefix, namespace, value's start and end.
    for (int i = 0; i < attributeCount; ++i) {
        const auto** attribute = attributes + static_cast<ptrdiff_t>(i) * 5;
        element.attributes.emplace_back(
            text(attribute[0]),
            std::string(reinterpret_cast<const char*>(attribute[3]), static_cast<size_t>(attribute[4] - attribute[3])));
    }
    if (state.depth == 1) {
        state.sawMultistatus = element.is(davNamespace, "multistatus");
        return;
    }
    if (!state.open.empty() || (state.depth == 2 && element.is(davNamespace, "response"))) {
        state.open.push_back(std::move(element));
    }
}

void endElement(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
    auto& state = *static_cast<State*>(context);
    --state.depth;
    if (state.failure || state.open.empty()) return;
    if (state.open.size() == state.droppedDepth) state.droppedDepth = 0;
    auto element = std::move(state.open.back());
    state.open.pop_back();
    if (!state.open.empty()) {
        state.open.back().children.push_back(std::move(element));
        return;
    }
    try {
        auto response = responseOf(element);
        response.oversized = state.oversized;
        state.textKept = 0;
        state.oversized = false;
        state.onResponse(response);
    } catch (...) {
        state.failure = std::current_exception();
        xmlStopParser(state.parser);
    }
}

void characters(void* context, const xmlChar* characters, int length) {
    auto& state = *static_cast<State*>(context);
    if (state.failure || state.open.empty() || state.open.size() == state.droppedDepth) return;
    auto& text = state.open.back().text;
    if (state.textKept + static_cast<size_t>(length) > state.textLimit) {
        // Only this element's text goes: the response's other parts (its href, its status) still
        // say what it was.
        state.oversized = true;
        state.droppedDepth = state.open.size();
        state.textKept -= text.size();
        std::string().swap(text);
        return;
    }
    state.textKept += static_cast<size_t>(length);
    text.append(reinterpret_cast<const char*>(characters), static_cast<size_t>(length));
}

void quiet(void*, const char*, ...) {}

} // namespace

MultistatusReader::MultistatusReader(std::string request, std::function<void(DavResponse&)> onResponse,
                                     size_t textLimit)
    : state_(std::make_unique<State>()) {
    state_->request = std::move(request);
    state_->onResponse = std::move(onResponse);
    state_->textLimit = textLimit;
    static xmlSAXHandler handler = [] {
        xmlSAXHandler sax{};
        sax.initialized = XML_SAX2_MAGIC;
        sax.startElementNs = startElement;
        sax.endElementNs = endElement;
        sax.characters = characters;
        sax.cdataBlock = characters;
        sax.warning = quiet;
        sax.error = quiet;
        return sax;
    }();
    state_->parser = xmlCreatePushParserCtxt(&handler, state_.get(), nullptr, 0, nullptr);
    if (state_->parser == nullptr) state_->fail("the XML parser couldn't be started");
    xmlCtxtUseOptions(state_->parser, XML_PARSE_NONET | XML_PARSE_NOWARNING | XML_PARSE_NOERROR | XML_PARSE_HUGE);
}

MultistatusReader::~MultistatusReader() {
    if (state_->parser != nullptr) xmlFreeParserCtxt(state_->parser);
}

namespace {

void check(State& state, int result) {
    if (state.failure) {
        auto failure = state.failure;
        state.failure = nullptr;
        std::rethrow_exception(failure);
    }
    if (result != 0 || state.parser->wellFormed == 0) {
        const auto* error = xmlCtxtGetLastError(state.parser);
        std::string reason = error && error->message ? error->message : "malformed XML";
        while (!reason.empty() && std::isspace(static_cast<unsigned char>(reason.back())))
            reason.pop_back();
        if (error && error->line > 0) reason += " (line " + std::to_string(error->line) + ")";
        state.fail(reason);
    }
}

} // namespace

void MultistatusReader::feed(std::string_view bytes) {
    // libxml2 takes chunks as int lengths.
    constexpr size_t chunk = 1 << 20;
    while (!bytes.empty()) {
        const auto piece = bytes.substr(0, chunk);
        check(*state_, xmlParseChunk(state_->parser, piece.data(), static_cast<int>(piece.size()), 0));
        bytes.remove_prefix(piece.size());
        const auto* input = state_->parser->input;
        if (input != nullptr && input->cur != nullptr && static_cast<size_t>(input->end - input->cur) > heldLimit) {
            state_->fail("one response holds more than " + std::to_string(heldLimit >> 20) +
                         " MB that can't be read piece by piece");
        }
    }
}

void MultistatusReader::finish() {
    check(*state_, xmlParseChunk(state_->parser, nullptr, 0, 1));
    if (!state_->sawMultistatus) state_->fail("it isn't a multistatus");
}

std::vector<DavResponse> readMultistatus(const std::string& request, std::string_view answer) {
    std::vector<DavResponse> responses;
    MultistatusReader reader(request, [&](DavResponse& response) { responses.push_back(std::move(response)); });
    reader.feed(answer);
    reader.finish();
    return responses;
}

} // namespace morvane::caldav
