#pragma once

#include "MorvanePlatform/EventStore/CalDAV/HttpClient.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

// The WebDAV conversations of a CalDAV account: finding its calendar collections, and reading
// the events of one.
namespace morvane::caldav {

struct CalendarCollection {
    // The collection's path on the server, as it gave it.
    std::string href;
    std::string title;
    std::optional<std::vector<double>> colorComponents;
    // The user holds write or write-content on it and it isn't a subscription.
    bool writable = false;
    bool subscribed = false;
};

// From the account's URL to its principal (current-user-principal), from there to its calendar
// home (calendar-home-set), and the home's event calendars. A URL that is already a principal
// or a home is taken as found. Throws EventStoreError.
std::vector<CalendarCollection> discoverCalendars(HttpClient& client);

struct FetchedResource {
    std::string href;
    std::string etag;
    // Empty for a resource over the size limit.
    std::string text;
    bool oversized = false;
};

// Every event resource of a calendar (a calendar-query REPORT), handed to `each` one at a time
// as the answer streams in; one over MultistatusReader's text limit comes without its text,
// marked oversized. Throws EventStoreError for a refused request or a malformed answer.
void fetchResources(HttpClient& client, const std::string& calendarHref,
                    const std::function<void(FetchedResource&)>& each);

// One resource by its path (a GET), marked oversized past MultistatusReader's text limit;
// absent when the server doesn't hold it. Throws EventStoreError for another refusal.
std::optional<FetchedResource> fetchResource(HttpClient& client, const std::string& href);

// The ETag of one resource, for a server that didn't give it with a write; empty when none.
std::string fetchETag(HttpClient& client, const std::string& href);

// "#RRGGBB" or "#RRGGBBAA" as components from 0 to 1; absent for anything else.
std::optional<std::vector<double>> colorComponents(const std::string& text);

} // namespace morvane::caldav
