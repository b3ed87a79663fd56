#include "MorvanePlatform/EventKit.h"

#include "MorvanePlatform/EventStore/CalDAV/Collections.h"
#include "MorvanePlatform/EventStore/CalDAV/Multistatus.h"
#include "Support/ErrorText.h"
#include "Support/Fakes.h"
#include "Support/Radicale.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace morvane {
namespace {

using testing::Radicale;
using testing::utc;

// A loopback server that answers each request with the next of its canned answers and counts
// what it was asked, for the answers a real server won't give. With `stallAtEnd`, the last
// answer's connection is held open, silent, until the client gives up.
class ScriptedServer {
public:
    explicit ScriptedServer(std::vector<std::string> answers, bool stallAtEnd = false)
        : answers_(std::move(answers)), stallAtEnd_(stallAtEnd) {
        listener_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        socklen_t length = sizeof(address);
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        listen(listener_, 8);
        thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedServer() {
        if (const int stalled = stalled_; stalled >= 0) shutdown(stalled, SHUT_RDWR);
        shutdown(listener_, SHUT_RDWR);
        close(listener_);
        thread_.join();
    }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }
    int requests() const { return requests_; }

    static std::string answer(const std::string& status, const std::string& body,
                              const std::string& headers = "Content-Type: application/xml\r\n") {
        return "HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
               "\r\nConnection: close\r\n\r\n" + body;
    }

private:
    void serve() {
        for (const auto& reply : answers_) {
            const int connection = accept(listener_, nullptr, nullptr);
            if (connection < 0) return;
            std::string request;
            char buffer[4096];
            // Headers, then as much body as they announce.
            while (request.find("\r\n\r\n") == std::string::npos) {
                const auto got = read(connection, buffer, sizeof buffer);
                if (got <= 0) break;
                request.append(buffer, static_cast<size_t>(got));
            }
            const auto lengthAt = request.find("Content-Length: ");
            const auto bodyAt = request.find("\r\n\r\n");
            if (lengthAt != std::string::npos && bodyAt != std::string::npos) {
                const auto wanted = std::stoul(request.substr(lengthAt + 16)) + bodyAt + 4;
                while (request.size() < wanted) {
                    const auto got = read(connection, buffer, sizeof buffer);
                    if (got <= 0) break;
                    request.append(buffer, static_cast<size_t>(got));
                }
            }
            ++requests_;
            (void)!write(connection, reply.data(), reply.size());
            if (stallAtEnd_ && &reply == &answers_.back()) {
                stalled_ = connection;
                while (read(connection, buffer, sizeof buffer) > 0) {
                }
                stalled_ = -1;
            }
            close(connection);
        }
        // Past its script the server is gone: connections are refused.
        shutdown(listener_, SHUT_RDWR);
    }

    std::vector<std::string> answers_;
    const bool stallAtEnd_;
    std::atomic<int> stalled_{-1};
    int listener_ = -1;
    int port_ = 0;
    std::atomic<int> requests_{0};
    std::thread thread_;
};

std::string multistatus(const std::string& responses) {
    return "<?xml version=\"1.0\"?><D:multistatus xmlns:D=\"DAV:\" xmlns:C=\"urn:ietf:params:xml:ns:caldav\">" +
           responses + "</D:multistatus>";
}

// Discovery of one writable calendar at /cal/, as a scripted server answers it.
std::vector<std::string> oneCalendarDiscovery() {
    return {ScriptedServer::answer("207 Multi-Status", multistatus("<D:response><D:href>/</D:href><D:propstat><D:prop>"
                                                                   "<C:calendar-home-set><D:href>/</D:href>"
                                                                   "</C:calendar-home-set></D:prop><D:status>HTTP/1.1 "
                                                                   "200 OK</D:status></D:propstat></D:response>")),
            ScriptedServer::answer("207 Multi-Status",
                                   multistatus("<D:response><D:href>/cal/</D:href><D:propstat><D:prop><D:resourcetype>"
                                               "<D:collection/><C:calendar/></D:resourcetype></D:prop><D:status>"
                                               "HTTP/1.1 200 OK</D:status></D:propstat></D:response>"))};
}

CalDAVAccount accountAt(const std::string& url) {
    CalDAVAccount account;
    account.name = "scripted";
    account.url = url;
    account.user = "ann";
    account.password = "s3cret-pw";
    return account;
}

std::string vcalendar(const std::string& events) {
    return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Tests//EN\r\n" + events + "END:VCALENDAR\r\n";
}

class CalDAVStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (server().skipReason()) GTEST_SKIP() << *server().skipReason();
        static int count = 0;
        const auto number = std::to_string(++count);
        calendar = server().makeCalendar("cal" + number, "Calendar " + number);
    }

    static Radicale& server() { return Radicale::shared(); }

    std::unique_ptr<EKEventStore> open() const { return std::make_unique<EKEventStore>(server().account()); }

    // "title@start" of every event of the test's calendar in the span, sorted.
    std::vector<std::string> eventsIn(EKEventStore& store, double from, double to, bool withZone = false) const {
        const auto wanted = store.calendarWithIdentifier(calendar);
        std::vector<std::string> found;
        for (const auto& event : store.eventsMatchingPredicate(store.predicateForEvents(from, to, {{wanted}}))) {
            std::ostringstream line;
            line << event->title.value_or("") << "@" << std::llround(*event->startDate);
            if (withZone) line << " " << event->timeZone.value_or("floating");
            found.push_back(line.str());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    static std::string at(const std::string& title, double start) {
        return title + "@" + std::to_string(std::llround(start));
    }

    std::string calendar;
};

const std::string berlin = "BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\n"
                           "BEGIN:DAYLIGHT\r\nTZOFFSETFROM:+0100\r\nTZOFFSETTO:+0200\r\nDTSTART:19810329T020000\r\n"
                           "RRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\nEND:DAYLIGHT\r\n"
                           "BEGIN:STANDARD\r\nTZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nDTSTART:19961027T030000\r\n"
                           "RRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n";

// Weekly on Mondays 09:00 Berlin from 2024-03-04; 11 March is gone, 18 March moved to 11:00.
const std::string weeklySeries =
    vcalendar(berlin + "BEGIN:VEVENT\r\nUID:weekly-1\r\nDTSTAMP:20240101T000000Z\r\nSUMMARY:Standup\r\n"
                       "DTSTART;TZID=Europe/Berlin:20240304T090000\r\nDTEND;TZID=Europe/Berlin:20240304T093000\r\n"
                       "RRULE:FREQ=WEEKLY\r\nEXDATE;TZID=Europe/Berlin:20240311T090000\r\nEND:VEVENT\r\n"
                       "BEGIN:VEVENT\r\nUID:weekly-1\r\nDTSTAMP:20240101T000000Z\r\nSUMMARY:Standup moved\r\n"
                       "RECURRENCE-ID;TZID=Europe/Berlin:20240318T090000\r\n"
                       "DTSTART;TZID=Europe/Berlin:20240318T110000\r\nDTEND;TZID=Europe/Berlin:20240318T113000\r\n"
                       "END:VEVENT\r\n");

TEST_F(CalDAVStoreTest, CalendarsCarryTitleColourAndWhetherTheUserMayWrite) {
    server().makeCalendar("coloured", "Work", "#FF800080");
    server().makeCalendar("shared-holidays", "Holidays");
    auto store = open();
    std::map<std::string, std::pair<bool, std::optional<std::vector<double>>>> seen;
    for (const auto& found : store->calendarsForEntityType(EKEntityType::event)) {
        EXPECT_EQ(found->type, EKCalendarType::calDAV);
        EXPECT_EQ(found->source->title, "test");
        seen[found->title] = {found->allowsContentModifications, found->colorComponents};
    }
    ASSERT_EQ(seen.count("Work"), 1U);
    EXPECT_TRUE(seen["Work"].first);
    EXPECT_EQ(seen["Work"].second, (std::vector<double>{1.0, 128 / 255.0, 0.0, 128 / 255.0}));
    ASSERT_EQ(seen.count("Holidays"), 1U);
    EXPECT_FALSE(seen["Holidays"].first);
    EXPECT_TRUE(store->calendarsForEntityType(EKEntityType::reminder).empty());

    // The server's word stands even when the caller's calendar object says otherwise.
    auto event = EKEvent::eventWithEventStore(*store);
    auto holidays = std::make_shared<EKCalendar>(*store->calendarWithIdentifier("/ann/shared-holidays/"));
    holidays->allowsContentModifications = true;
    event->calendar = holidays;
    event->startDate = utc(2024, 5, 1);
    event->endDate = utc(2024, 5, 2);
    EXPECT_EQ(testing::errorText([&] { store->saveEvent(*event, EKSpan::thisEvent, true); }),
              "The calendar is read-only.");

    // An event doesn't move between calendars: that would be a removal here and a write there.
    const auto work = testing::saveEvent(*store, "Review", utc(2024, 5, 1, 10), utc(2024, 5, 1, 11), std::nullopt,
                                         std::nullopt, store->calendarWithIdentifier("/ann/coloured/"));
    const auto other = store->calendarWithIdentifier(calendar);
    work->calendar = other;
    EXPECT_EQ(testing::errorText([&] { store->saveEvent(*work, EKSpan::thisEvent, true); }),
              "An event of the account \"test\" can't move from \"Work\" to \"" + other->title +
                  "\"; save a new event in \"" + other->title + "\" instead.");
    server().remove(work->calendarItemIdentifier());
}

TEST_F(CalDAVStoreTest, AWeeklySeriesReadsWithItsExceptionDateAndItsMovedOccurrence) {
    ASSERT_EQ(server().put(calendar + "weekly-1.ics", weeklySeries), 201);
    auto store = open();
    // 09:00 Berlin is 08:00 UTC until 31 March, 07:00 after.
    EXPECT_EQ(eventsIn(*store, utc(2024, 3, 1), utc(2024, 4, 2)),
              (std::vector<std::string>{at("Standup moved", utc(2024, 3, 18, 10)), at("Standup", utc(2024, 3, 4, 8)),
                                        at("Standup", utc(2024, 3, 25, 8)), at("Standup", utc(2024, 4, 1, 7))}));

    // Other tests' calendars may hold the same UID.
    auto items = store->calendarItemsWithExternalIdentifier("weekly-1");
    std::erase_if(items, [&](const auto& item) { return item->calendar->calendarIdentifier != calendar; });
    ASSERT_EQ(items.size(), 2U);
    const auto detached = std::dynamic_pointer_cast<EKEvent>(items[1]);
    ASSERT_TRUE(detached && detached->isDetached());
    // The key is the original start, as the local store keys it.
    EXPECT_EQ(detached->calendarItemExternalIdentifier(),
              "weekly-1/RID=" + std::to_string(std::llround(utc(2024, 3, 18, 8))));
    EXPECT_EQ(detached->occurrenceDate(), utc(2024, 3, 18, 8));
    EXPECT_EQ(detached->calendarItemIdentifier(), items[0]->calendarItemIdentifier());
    EXPECT_EQ(store->calendarItemWithIdentifier(items[0]->calendarItemIdentifier())->title, "Standup");
}

// Each case changes the weekly series through a store; a fresh store reads the result.
TEST_F(CalDAVStoreTest, SavesAndRemovalsReachTheServerAndReadBackInAFreshStore) {
    struct Case {
        const char* name;
        std::function<void(EKEventStore&, std::vector<std::shared_ptr<EKEvent>>&)> change;
        std::vector<std::string> expected;
    };
    const auto occurrenceAt = [](std::vector<std::shared_ptr<EKEvent>>& events, double start) {
        for (auto& event : events) {
            if (event->startDate == start) return event;
        }
        throw std::runtime_error("no occurrence at " + std::to_string(start));
    };
    const std::vector<Case> cases = {
        {"a new single event",
         [&](EKEventStore& store, auto&) {
             auto event = EKEvent::eventWithEventStore(store);
             event->title = "Lunch";
             event->timeZone = "Europe/Berlin";
             event->calendar = store.calendarWithIdentifier(calendar);
             event->startDate = utc(2024, 3, 20, 11);
             event->endDate = utc(2024, 3, 20, 12);
             store.saveEvent(*event, EKSpan::thisEvent, true);
         },
         {at("Lunch", utc(2024, 3, 20, 11)), at("Standup moved", utc(2024, 3, 18, 10)),
          at("Standup", utc(2024, 3, 4, 8)), at("Standup", utc(2024, 3, 25, 8))}},
        {"one occurrence edited",
         [&](EKEventStore& store, auto& events) {
             auto occurrence = occurrenceAt(events, utc(2024, 3, 25, 8));
             occurrence->title = "Standup late";
             occurrence->startDate = utc(2024, 3, 25, 9);
             occurrence->endDate = utc(2024, 3, 25, 10);
             store.saveEvent(*occurrence, EKSpan::thisEvent, true);
         },
         {at("Standup late", utc(2024, 3, 25, 9)), at("Standup moved", utc(2024, 3, 18, 10)),
          at("Standup", utc(2024, 3, 4, 8))}},
        {"one occurrence removed",
         [&](EKEventStore& store, auto& events) {
             store.removeEvent(*occurrenceAt(events, utc(2024, 3, 25, 8)), EKSpan::thisEvent, true);
         },
         {at("Standup moved", utc(2024, 3, 18, 10)), at("Standup", utc(2024, 3, 4, 8))}},
        {"the moved occurrence removed",
         [&](EKEventStore& store, auto& events) {
             store.removeEvent(*occurrenceAt(events, utc(2024, 3, 18, 10)), EKSpan::thisEvent, true);
         },
         {at("Standup", utc(2024, 3, 4, 8)), at("Standup", utc(2024, 3, 25, 8))}},
        {"the series ended before an occurrence",
         [&](EKEventStore& store, auto& events) {
             store.removeEvent(*occurrenceAt(events, utc(2024, 3, 18, 10)), EKSpan::futureEvents, true);
         },
         {at("Standup", utc(2024, 3, 4, 8))}},
        {"the series removed from its first",
         [&](EKEventStore& store, auto& events) {
             store.removeEvent(*occurrenceAt(events, utc(2024, 3, 4, 8)), EKSpan::futureEvents, true);
         },
         {}},
        {"future occurrences changed",
         [&](EKEventStore& store, auto& events) {
             auto occurrence = occurrenceAt(events, utc(2024, 3, 25, 8));
             occurrence->title = "Retro";
             store.saveEvent(*occurrence, EKSpan::futureEvents, true);
         },
         {at("Retro", utc(2024, 3, 25, 8)), at("Standup moved", utc(2024, 3, 18, 10)),
          at("Standup", utc(2024, 3, 4, 8))}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        const std::string resource = calendar + "weekly-1.ics";
        server().remove(resource);
        ASSERT_EQ(server().put(resource, weeklySeries), 201);
        {
            auto store = open();
            auto events = store->eventsMatchingPredicate(store->predicateForEvents(
                utc(2024, 3, 1), utc(2024, 3, 29), {{store->calendarWithIdentifier(calendar)}}));
            test.change(*store, events);
        }
        auto fresh = open();
        EXPECT_EQ(eventsIn(*fresh, utc(2024, 3, 1), utc(2024, 3, 29)), test.expected);
        // What a case created goes with the calendar's next case.
        for (const auto& event : fresh->eventsMatchingPredicate(fresh->predicateForEvents(
                 utc(2024, 3, 1), utc(2024, 3, 29), {{fresh->calendarWithIdentifier(calendar)}}))) {
            if (event->calendarItemIdentifier() != resource) server().remove(event->calendarItemIdentifier());
        }
    }
}

TEST_F(CalDAVStoreTest, PendingWritesWaitForCommitAndResetDropsThem) {
    auto store = open();
    testing::saveEvent(*store, "Draft", utc(2024, 6, 1, 10), utc(2024, 6, 1, 11), std::nullopt, std::nullopt,
                       store->calendarWithIdentifier(calendar), false);
    EXPECT_EQ(eventsIn(*store, utc(2024, 6, 1), utc(2024, 6, 2)),
              std::vector<std::string>{at("Draft", utc(2024, 6, 1, 10))});
    EXPECT_TRUE(eventsIn(*open(), utc(2024, 6, 1), utc(2024, 6, 2)).empty());
    store->reset();
    store->commit();
    EXPECT_TRUE(eventsIn(*store, utc(2024, 6, 1), utc(2024, 6, 2)).empty());
    EXPECT_TRUE(eventsIn(*open(), utc(2024, 6, 1), utc(2024, 6, 2)).empty());

    // What the store wrote is read again after a reset, as the server holds it by then.
    const auto written = testing::saveEvent(*store, "Written", utc(2024, 6, 1, 10), utc(2024, 6, 1, 11), std::nullopt,
                                            std::nullopt, store->calendarWithIdentifier(calendar));
    const auto href = written->calendarItemIdentifier();
    auto text = server().get(href);
    text.replace(text.find("SUMMARY:Written"), 15, "SUMMARY:Changed");
    ASSERT_EQ(server().put(href, text), 201);
    store->reset();
    EXPECT_EQ(eventsIn(*store, utc(2024, 6, 1), utc(2024, 6, 2)),
              std::vector<std::string>{at("Changed", utc(2024, 6, 1, 10))});
    server().remove(href);
}

// The change elsewhere comes after the edit here, or between the read (of the whole calendar,
// which doesn't keep the resource's text) and the edit, which reads the text again.
TEST_F(CalDAVStoreTest, AChangeMadeElsewhereSinceTheReadIsNeverOverwritten) {
    std::string elsewhere = weeklySeries;
    elsewhere.replace(elsewhere.find("SUMMARY:Standup\r\n"), 17, "SUMMARY:Renamed elsewhere\r\n");
    for (const bool beforeTheEdit : {false, true}) {
        SCOPED_TRACE(beforeTheEdit ? "before the edit" : "after the edit");
        ASSERT_EQ(server().put(calendar + "weekly-1.ics", weeklySeries), 201);
        auto store = open();
        const auto read = store->eventsMatchingPredicate(
            store->predicateForEvents(utc(2024, 3, 4), utc(2024, 3, 5), {{store->calendarWithIdentifier(calendar)}}));
        ASSERT_EQ(read.size(), 1U);
        auto master = std::dynamic_pointer_cast<EKEvent>(store->calendarItemWithIdentifier(calendar + "weekly-1.ics"));
        ASSERT_TRUE(master);
        if (beforeTheEdit) {
            ASSERT_EQ(server().put(calendar + "weekly-1.ics", elsewhere), 201);
        }
        // A new event goes first, so that the failure has something to take back.
        testing::saveEvent(*store, "New", utc(2024, 3, 5, 10), utc(2024, 3, 5, 11), std::nullopt, std::nullopt,
                           store->calendarWithIdentifier(calendar), false);
        master->title = "Renamed here";
        store->saveEvent(*master, EKSpan::futureEvents, false);
        if (!beforeTheEdit) {
            ASSERT_EQ(server().put(calendar + "weekly-1.ics", elsewhere), 201);
        }

        EXPECT_EQ(testing::errorText([&] { store->commit(); }),
                  (beforeTheEdit ? "Renamed elsewhere" : "Standup") +
                      std::string(" was changed on the server since it was read; nothing was written."));
        EXPECT_EQ(eventsIn(*open(), utc(2024, 3, 4), utc(2024, 3, 6)),
                  std::vector<std::string>{at("Renamed elsewhere", utc(2024, 3, 4, 8))});
    }
}

TEST_F(CalDAVStoreTest, AServerThatStopsFailsTheCommitAndKeepsWhatItHeld) {
    auto store = open();
    testing::saveEvent(*store, "Unsent", utc(2024, 7, 1, 10), utc(2024, 7, 1, 11), std::nullopt, std::nullopt,
                       store->calendarWithIdentifier(calendar), false);
    server().stop();
    const auto text = testing::errorText([&] { store->commit(); });
    server().start();
    EXPECT_NE(text.find("couldn't be reached"), std::string::npos) << text;
    EXPECT_NE(text.find("nothing was written."), std::string::npos) << text;
    EXPECT_TRUE(eventsIn(*open(), utc(2024, 7, 1), utc(2024, 7, 2)).empty());
}

// Producers' own resources, put on the server as they wrote them.
TEST_F(CalDAVStoreTest, ResourcesOfOtherProducersReadWithTheirMeaning) {
    const std::filesystem::path shared = MORVANE_SHARED_TEST_DATA_DIR "/ics-real";
    if (!std::filesystem::exists(shared)) GTEST_SKIP() << "No shared test data at " << shared;
    struct Case {
        const char* file;
        double from;
        double to;
        std::vector<std::string> expected;
    };
    const std::vector<Case> cases = {
        // A vendor's prefix on the zone's name, and a Windows zone's name.
        {"ical4j/valid/evolution.ics",
         utc(2008, 6, 24),
         utc(2008, 6, 25),
         {at("test", utc(2008, 6, 24, 18)) + " America/Chicago"}},
        {"ical4j/transform-txt/timezones/outlook1.txt.ics",
         utc(2014, 2, 21),
         utc(2014, 2, 22),
         {at("From outlook edited", utc(2014, 2, 21, 21, 30)) + " America/Los_Angeles"}},
        {"kcalendarcore/test_recurrenceid.ics",
         utc(2005, 5, 17),
         utc(2005, 5, 20),
         {at("summaryException", utc(2005, 5, 19, 9, 45)) + " UTC", at("summaryMain", utc(2005, 5, 17, 8, 45)) + " UTC",
          at("summaryMain", utc(2005, 5, 18, 8, 45)) + " UTC"}},
        // All-day on the last weekday of each month, floating in the machine's zone.
        {"ccs-calendarserver/test-data/PayDay.ics",
         utc(2004, 2, 1),
         utc(2004, 4, 1),
         {at("PAY DAY", utc(2004, 3, 31, 8)) + " floating", at("PAY DAY", utc(2004, 2, 27, 8)) + " floating"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.file);
        std::ifstream file(shared / test.file, std::ios::binary);
        const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        const auto name = std::filesystem::path(test.file).filename().string();
        ASSERT_EQ(server().put(calendar + name, text), 201);
        auto store = open();
        EXPECT_EQ(eventsIn(*store, test.from, test.to, true), test.expected);
        server().remove(calendar + name);
    }
}

TEST(CalDAVStoreRefusals, WrongPasswordRedirectsPlainHTTPAndMalformedAnswersFailClearly) {
    struct Case {
        const char* name;
        std::vector<std::string> answers;
        std::string url;
        std::string expected;
        int requests;
    };
    const std::vector<Case> cases = {
        {"a wrong password, asked once",
         {ScriptedServer::answer("401 Unauthorized", "no")},
         "",
         "The server refused the user name or password for scripted.",
         1},
        {"a redirect to another server",
         {ScriptedServer::answer("301 Moved Permanently", "", "Location: http://127.0.0.2:8080/dav/\r\n")},
         "",
         "The server of \"scripted\" redirected PROPFIND {url} to another server (http://127.0.0.2:8080); "
         "redirects are only followed on the account's own server.",
         1},
        {"malformed XML",
         {ScriptedServer::answer("207 Multi-Status", "<D:multistatus xmlns:D=\"DAV:\"><D:response>")},
         "",
         "The server's answer to PROPFIND {url} isn't a valid WebDAV answer: ",
         1},
        {"plain HTTP to another host",
         {},
         "http://calendar.example.com/dav/",
         "The account \"scripted\" uses plain HTTP to calendar.example.com, which would send the password and the "
         "calendars unencrypted; use https:// instead.",
         0},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        ScriptedServer server(test.answers);
        const auto url = test.url.empty() ? server.url() : test.url;
        auto expected = test.expected;
        if (const auto at = expected.find("{url}"); at != std::string::npos) expected.replace(at, 5, url);
        const auto text = testing::errorText([&] { EKEventStore store(accountAt(url)); });
        // libxml2's own words end the text for malformed XML.
        EXPECT_EQ(text.substr(0, expected.size()), expected);
        EXPECT_EQ(text.find("s3cret-pw"), std::string::npos);
        if (!test.answers.empty()) {
            // Unanswered connections would hang the server's thread: use up the script.
            for (int i = server.requests(); i < static_cast<int>(test.answers.size()); ++i)
                testing::errorText([&] { EKEventStore again(accountAt(url)); });
        }
        EXPECT_EQ(server.requests(), test.requests);
    }
}

TEST(CalDAVStoreRefusals, AServerThatStopsAnsweringFailsTheFetchWithinTheTimeOut) {
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"silent after the request", ""},
        {"headers, then nothing", "HTTP/1.1 207 Multi-Status\r\nContent-Length: 4000\r\n\r\n<D:multistatus "
                                  "xmlns:D=\"DAV:\"><D:response>"},
    };
    for (const auto& [name, answer] : cases) {
        SCOPED_TRACE(name);
        ScriptedServer server({answer}, true);
        caldav::HttpClient client(accountAt(server.url()), {std::chrono::seconds(1), std::chrono::seconds(1)});
        const auto began = std::chrono::steady_clock::now();
        const auto text =
            testing::errorText([&] { caldav::fetchResources(client, "/cal/", [](caldav::FetchedResource&) {}); });
        const auto origin = server.url().substr(0, server.url().size() - 1);
        EXPECT_EQ(text, "The server of \"scripted\" (" + origin + ") stopped answering REPORT " + origin +
                            "/cal/: nothing came for 1 second.");
        // Well short of the default time-outs.
        EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(8));
    }
}

// Two new events committed at once; the second write fails. The first is taken back, or the
// failure names it.
TEST(CalDAVStoreRefusals, ACommitThatFailsPartWayTakesBackWhatItWroteOrSaysWhatIsLeft) {
    struct Case {
        const char* name;
        std::vector<std::string> writes;
        std::string expectedStart;
        bool leftOne;
    };
    const auto created = ScriptedServer::answer("201 Created", "", "ETag: \"a1\"\r\n");
    const std::vector<Case> cases = {
        {"the second refused, the first deleted again",
         {created, ScriptedServer::answer("412 Precondition Failed", ""), ScriptedServer::answer("204 No Content", "")},
         "Second was changed on the server since it was read; nothing was written.",
         false},
        {"the server gone after the first", {created}, "The server of \"scripted\" couldn't be reached for PUT ", true},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        // New events are written without reading their calendar first.
        auto answers = oneCalendarDiscovery();
        answers.insert(answers.end(), test.writes.begin(), test.writes.end());
        ScriptedServer server(answers);
        EKEventStore store(accountAt(server.url()));
        std::vector<std::shared_ptr<EKEvent>> events;
        for (const char* title : {"First", "Second"}) {
            events.push_back(testing::saveEvent(store, title, utc(2024, 1, 2, 10), utc(2024, 1, 2, 11), std::nullopt,
                                                std::nullopt, store.calendarWithIdentifier("/cal/"), false));
        }
        const auto text = testing::errorText([&] { store.commit(); });
        EXPECT_EQ(text.substr(0, test.expectedStart.size()), test.expectedStart);
        const auto left = "couldn't all be taken back: " + events[0]->calendarItemIdentifier() + " still hold";
        EXPECT_EQ(text.find(left) != std::string::npos, test.leftOne) << text;
        EXPECT_EQ(server.requests(), static_cast<int>(answers.size()));
    }
}

// Items are looked up alone by their paths, until reading the calendar once costs less.
TEST(CalDAVStoreRefusals, ManyLookUpsOfItemsReadTheCalendarOnceInstead) {
    auto answers = oneCalendarDiscovery();
    for (int i = 0; i < 16; ++i)
        answers.push_back(ScriptedServer::answer("404 Not Found", ""));
    answers.push_back(ScriptedServer::answer("207 Multi-Status", multistatus("")));
    ScriptedServer server(answers);
    EKEventStore store(accountAt(server.url()));
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(store.calendarItemWithIdentifier("/cal/" + std::to_string(i) + ".ics"), nullptr);
    EXPECT_EQ(server.requests(), static_cast<int>(answers.size()));
}

TEST(CalDAVStoreRefusals, AResourceThatCantBeReadIsSkippedAndLoggedAndTheRestRead) {
    // Past the reader's limit, as escaped text and as a CDATA section, which libxml2 holds whole.
    const std::string huge =
        vcalendar("BEGIN:VEVENT\r\nUID:huge\r\nDTSTART:20240102T100000Z\r\nDESCRIPTION:" +
                  std::string(caldav::MultistatusReader::defaultTextLimit, 'x') + "\r\nEND:VEVENT\r\n");
    const struct {
        const char* name;
        std::string data;
        std::string reason;
    } cases[] = {
        {"no start", "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nSUMMARY:No start\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n",
         "it can't be read as iCalendar (an event has no usable DTSTART)"},
        {"over the limit", huge, "it is larger than 10 MB"},
        {"over the limit in CDATA", "<![CDATA[" + huge + "]]>", "it is larger than 10 MB"},
    };
    const auto good = vcalendar("BEGIN:VEVENT\r\nUID:good\r\nSUMMARY:Fine\r\nDTSTART:20240102T100000Z\r\n"
                                "DTEND:20240102T110000Z\r\nEND:VEVENT\r\n");
    const auto response = [](const std::string& href, const std::string& data) {
        return "<D:response><D:href>" + href + "</D:href><D:propstat><D:prop><D:getetag>\"1\"</D:getetag>" +
               "<C:calendar-data>" + data + "</C:calendar-data></D:prop><D:status>HTTP/1.1 200 OK</D:status>" +
               "</D:propstat></D:response>";
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        testing::Installed<testing::RecordingSystemLog> log;
        auto answers = oneCalendarDiscovery();
        answers.push_back(ScriptedServer::answer(
            "207 Multi-Status", multistatus(response("/cal/bad.ics", test.data) + response("/cal/good.ics", good))));
        ScriptedServer server(answers);
        EKEventStore store(accountAt(server.url()));
        const auto events =
            store.eventsMatchingPredicate(store.predicateForEvents(utc(2024, 1, 1), utc(2024, 1, 3), {}));
        ASSERT_EQ(events.size(), 1U);
        EXPECT_EQ(events.front()->title, "Fine");
        EXPECT_EQ(log->lines(),
                  std::vector<std::string>{"Skipped /cal/bad.ics of the account \"scripted\": " + test.reason + "."});
    }
}

} // namespace
} // namespace morvane
