#include "MorvaneCore/IcsArchives/IcsArchive.h"

#include "MorvaneCore/Shared/Errors.h"
#include "Support/Deadline.h"
#include "Support/ErrorText.h"
#include "Support/Mapped.h"
#include "Support/TemporaryDirectory.h"
#include "Support/UTC.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::utc;
using Seconds = std::vector<std::int64_t>;

std::string vcalendar(const std::string& body) { return "BEGIN:VCALENDAR\n" + body + "END:VCALENDAR\n"; }
std::string vevent(const std::string& lines) { return "BEGIN:VEVENT\n" + lines + "END:VEVENT\n"; }

Seconds relativeAlarms(const BackupEvent& event) {
    Seconds seconds;
    for (const auto& alarm : event.snapshot.alarms) {
        if (alarm.which() == AlarmSpec::Case::relative) seconds.push_back(alarm.seconds());
    }
    return seconds;
}

// A resolver that knows the named folder, with the given default alarms.
CalendarResolver knowing(std::string folder, std::optional<std::int64_t> timed, std::optional<std::int64_t> allDay) {
    return [=](const std::string& name, const std::optional<std::string>&) -> std::optional<ArchiveCalendarInfo> {
        if (name != folder) return std::nullopt;
        return ArchiveCalendarInfo{.uuid = "UUID-" + name,
                                   .title = "Known",
                                   .storeName = "iCloud",
                                   .defaultAlarmOffset = timed,
                                   .defaultAllDayAlarmOffset = allDay};
    };
}

class IcsArchiveTest : public ::testing::Test {
protected:
    fs::path write(const fs::path& relative, std::string_view content) const { return folder.write(relative, content); }
    IcsArchive open(const CalendarResolver& resolver = {}) const { return IcsArchive(folder.path(), resolver); }

    testing::TemporaryDirectory folder;
};

TEST_F(IcsArchiveTest, FoldersAreCalendarsInNameOrderAndHiddenOnesTakeNoRow) {
    const auto event = [](const char* uid) {
        return vcalendar(vevent(std::string("UID:") + uid + "\nDTSTART:20260101\n"));
    };
    write(".Trash/x.ics", event("trashed"));
    write("stray.ics", event("stray"));
    write("work/b.ics", event("work-b"));
    write("work/A.ICS", event("work-a"));
    write("work/notes.txt", event("not-ics"));
    write("home/displayname", " \tHome \n");
    write("home/a.ics", event("home-a"));
    write("empty/displayname", "");

    std::vector<std::pair<std::string, std::optional<std::string>>> asked;
    const auto known = knowing("work", -900, std::nullopt);
    const auto archive = open([&](const std::string& name, const std::optional<std::string>& displayName) {
        asked.emplace_back(name, displayName);
        return known(name, displayName);
    });

    // An empty display name is still one: only a missing file leaves it out.
    EXPECT_EQ(asked, (decltype(asked){{"empty", ""}, {"home", "Home"}, {"work", std::nullopt}}));
    EXPECT_EQ(archive.calendars()[0],
              (BackupCalendar{.rowID = 1, .title = "", .externalID = "empty", .storeName = "archive", .storeType = 2}));
    EXPECT_EQ(archive.calendars()[2], (BackupCalendar{.rowID = 3,
                                                      .uuid = "UUID-work",
                                                      .title = "Known",
                                                      .externalID = "work",
                                                      .storeName = "iCloud",
                                                      .storeType = 2}));

    // Files in bytewise name order; rows count over the whole archive.
    EXPECT_EQ(testing::mapped(archive.events(),
                              [](const auto& each) {
                                  return std::to_string(each.rowID) + " " + each.uniqueIdentifier + " in " +
                                         each.snapshot.calendarName;
                              }),
              (std::vector<std::string>{"1 home-a in Home (archive)", "2 work-a in Known (iCloud)",
                                        "3 work-b in Known (iCloud)"}));
    EXPECT_EQ(archive.events()[1].snapshot.calendarUUID, "UUID-work");
}

TEST_F(IcsArchiveTest, DetachedOccurrencesLinkToTheirSeriesOnlyWithinOneVCALENDAR) {
    // The occurrence comes first and is still linked: all series of a block are read first. Rows
    // without a UID or a usable start are dropped without using up a number.
    write("cal/series.ics",
          vcalendar(vevent("UID:abc\nRECURRENCE-ID:20010101T001640Z\nDTSTART:20010101T020000Z\nRRULE:FREQ=DAILY\n") +
                    vevent("SUMMARY:No UID\nDTSTART:20010101T000000Z\n") +
                    vevent("UID:abc\nDTSTART:20010101T000000Z\nRRULE:FREQ=DAILY;COUNT=3\n"
                           "EXDATE:20010103T000000Z,,20010102T000000Z\nEXDATE:garbage\n"
                           "EXDATE;TZID=Europe/Paris:20010101T120000\n") +
                    vevent("UID:no-start\nDTSTART:yesterday\n") +
                    vevent("UID:abc\nRECURRENCE-ID:not a date\nDTSTART:20010105T000000Z\nRRULE:FREQ=DAILY\n")) +
              vcalendar(vevent("UID:abc\nRECURRENCE-ID:20010102T000000Z\nDTSTART:20010102T010000Z\n"
                               "RRULE:FREQ=WEEKLY\n")));
    auto archive = open();
    const auto& events = archive.events();
    ASSERT_EQ(events.size(), 4u);

    EXPECT_EQ(events[0].uniqueIdentifier, "abc");
    EXPECT_TRUE(events[0].hasRecurrences);
    EXPECT_EQ(events[0].snapshot.recurrence->description(), "FREQ=DAILY;COUNT=3");
    EXPECT_EQ(archive.exceptionDates(1), (std::vector<Date>{{utc(2001, 1, 1, 11)}, {86400}, {172800}}));

    EXPECT_EQ(events[1].rowID, 2);
    EXPECT_EQ(events[1].uniqueIdentifier, "abc/RID=1000");
    EXPECT_EQ(events[1].externalIdentifier(), "abc");
    EXPECT_EQ(events[1].masterRowID, 1);
    EXPECT_EQ(events[1].originalDate, Date{1000});
    EXPECT_FALSE(events[1].snapshot.recurrence) << "an occurrence never repeats";
    EXPECT_TRUE(archive.exceptionDates(2).empty());

    // Its series is in the block but its RECURRENCE-ID doesn't read: an ordinary event, still
    // without a rule.
    EXPECT_EQ(events[2].uniqueIdentifier, "abc");
    EXPECT_FALSE(events[2].masterRowID);
    EXPECT_FALSE(events[2].snapshot.recurrence);

    // The second block has no series of its own: an ordinary event, which keeps its rule.
    EXPECT_EQ(events[3].rowID, 4);
    EXPECT_EQ(events[3].uniqueIdentifier, "abc");
    EXPECT_FALSE(events[3].originalDate);
    EXPECT_EQ(events[3].snapshot.recurrence->description(), "FREQ=WEEKLY");

    EXPECT_EQ(testing::errorText<RestoreError>([&] { archive.occurrences(); }),
              ".ics archives have no occurrence cache, so deleted single occurrences can't be detected.");
}

TEST_F(IcsArchiveTest, EndsAndTextsReadAsTheDatabaseStoresThem) {
    write("cal/events.ics",
          vcalendar(vevent("UID:day\nDTSTART;VALUE=DATE:20260101\nDTEND;VALUE=DATE:20260102\n") +
                    vevent("UID:bare-day\nDTSTART;VALUE=DATE:20260101\n") +
                    vevent("UID:days\nDTSTART;VALUE=DATE:20260101\nDURATION:P2D\n") +
                    vevent("UID:zoned\nDTSTART;TZID=Europe/Berlin:20260101T090000\nDURATION:PT1H30M\n") +
                    vevent("UID:utc\nDTSTART:20260101T090000Z\nDTEND:20260101T100000Z\n") +
                    vevent("UID:floating\nDTSTART:20260101T090000\nSUMMARY:Lunch\\, then\\ntalk\n"
                           "LOCATION:\nDESCRIPTION:a\\;b\nURL:https://example.com/a\\,b\nATTENDEE:mailto:a@b.c\n")));
    const auto archive = open();
    std::vector<std::tuple<double, double, bool, std::optional<std::string>>> read;
    for (const auto& event : archive.events())
        read.emplace_back(event.snapshot.start.seconds, event.snapshot.end.seconds - event.snapshot.start.seconds,
                          event.snapshot.isAllDay, event.snapshot.timeZone);
    // All-day events end on the last second of their last day; others without an end at their start.
    const double newYear = utc(2026, 1, 1);
    EXPECT_EQ(read, (decltype(read){{newYear, 86399, true, std::nullopt},
                                    {newYear, 86399, true, std::nullopt},
                                    {newYear, 2 * 86400 - 1, true, std::nullopt},
                                    {utc(2026, 1, 1, 8), 5400, false, "Europe/Berlin"},
                                    {utc(2026, 1, 1, 9), 3600, false, "UTC"},
                                    {utc(2026, 1, 1, 9), 0, false, std::nullopt}}));

    const auto& texts = archive.events()[5];
    EXPECT_EQ(texts.snapshot.title, "Lunch, then\ntalk");
    EXPECT_EQ(texts.snapshot.location, std::nullopt);
    EXPECT_EQ(texts.snapshot.notes, "a;b");
    EXPECT_EQ(texts.snapshot.url, "https://example.com/a\\,b") << "taken raw";
    EXPECT_TRUE(texts.hasAttendees);
    EXPECT_FALSE(texts.hasAttachment);
}

TEST_F(IcsArchiveTest, TheAccountsDefaultAlarmStandsInUnlessTheEventSaysOtherwise) {
    const std::string events =
        vcalendar(vevent("UID:plain\nDTSTART:20260101T090000Z\n") + vevent("UID:all-day\nDTSTART:20260101\n") +
                  vevent("UID:none\nDTSTART:20260101T090000Z\nBEGIN:VALARM\nACTION:none\nTRIGGER:-PT5M\nEND:VALARM\n") +
                  vevent("UID:default\nDTSTART:20260101T090000Z\n"
                         "BEGIN:VALARM\nX-APPLE-DEFAULT-ALARM:true\nTRIGGER:-PT5M\nEND:VALARM\n") +
                  vevent("UID:explicit\nDTSTART:20260101T090000Z\n"
                         "BEGIN:VALARM\nTRIGGER;VALUE=date-time:20260101T080000Z\nEND:VALARM\n"
                         "BEGIN:VALARM\nTRIGGER:-PT30M\nEND:VALARM\nBEGIN:VALARM\nTRIGGER:soon\nEND:VALARM\n"
                         "BEGIN:VALARM\nACTION:DISPLAY\nEND:VALARM\n"));
    write("known/events.ics", events);
    write("unknown/events.ics", events);
    const auto archive = open(knowing("known", -900, -86400));
    ASSERT_EQ(archive.events().size(), 10u);
    std::vector<Seconds> alarms;
    for (const auto& event : archive.events())
        alarms.push_back(relativeAlarms(event));

    // Explicit alarms don't replace the default; the default alarm's own trigger isn't read.
    // Without an account there is no default to add, nor one for X-APPLE-DEFAULT-ALARM to stand for.
    EXPECT_EQ(alarms, (std::vector<Seconds>{{-900}, {-86400}, {}, {-900}, {-1800, -900}, {}, {}, {}, {}, {-1800}}));
    EXPECT_EQ(archive.events()[4].snapshot.alarms.back(), AlarmSpec::absolute(Date{utc(2026, 1, 1, 8)}));
}

TEST_F(IcsArchiveTest, UnreadableFilesAreNotedButAnUnlistableRootFails) {
    const auto latin1 = write("cal/a.ics", vcalendar(vevent("UID:latin\nSUMMARY:Caf\xE9\nDTSTART:20260101\n")));
    write("cal/b.ics", vcalendar(vevent("UID:ok\nDTSTART:20260101\n")));
    const auto marked = write("cal/c.ics", "\xEF\xBB\xBF" + vcalendar(vevent("UID:bom\nDTSTART:20260101\n")));
    const auto folderNamedICS = folder.makeFolder("cal/d.ics");
    const auto binary =
        write("cal/e.ics", vcalendar(vevent(std::string("UID:nul\nSUMMARY:a\0b\nDTSTART:20260101\n", 37))));
    // Neither waited on nor read without end.
    const auto pipe = folder.path() / "cal/f.ics";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const auto zero = folder.path() / "cal/g.ics";
    fs::create_symlink("/dev/zero", zero);
    ASSERT_EQ(::mkfifo((folder.path() / "cal/displayname").c_str(), 0600), 0);
    write("other/displayname", "Caf\xE9");

    const testing::Deadline deadline(std::chrono::seconds(30), "reading an archive of pipes and devices");
    const auto archive = open();
    EXPECT_EQ(archive.unreadableFiles(),
              (std::vector<std::string>{latin1.string(), marked.string(), folderNamedICS.string(), binary.string(),
                                        pipe.string(), zero.string()}));
    EXPECT_EQ(archive.calendars()[1].title, "other") << "an unreadable display name counts as none";
    ASSERT_EQ(archive.events().size(), 1u);
    EXPECT_EQ(archive.events()[0].uniqueIdentifier, "ok");
    EXPECT_EQ(archive.calendars()[0].title, "cal");

    for (const auto& root : {folder.path() / "missing", latin1}) {
        const auto error = testing::errorText<PlatformError>([&] { IcsArchive unlistable(root, {}); });
        EXPECT_TRUE(error.starts_with("Couldn't list folder " + root.string() + ": ")) << error;
    }
}

// An event that can't be read whole is left out with its reason, never read as something else:
// a series that repeats more often than daily read as one event would restore one occurrence.
TEST_F(IcsArchiveTest, EventsThatCantBeReadWholeAreListedWithTheirReason) {
    const auto file =
        write("cal/events.ics", vcalendar(vevent("DTSTART:20260101\n") + vevent("UID:no-start\n") +
                                          vevent("UID:bad-start\nDTSTART:tomorrow\n") +
                                          vevent("UID:bad-end\nDTSTART:20260101T090000Z\nDTEND:soon\nDURATION:PT1H\n") +
                                          vevent("UID:bad-length\nDTSTART:20260101T090000Z\nDURATION:1 hour\n") +
                                          vevent("UID:hourly\nDTSTART:20260101T090000Z\nRRULE:FREQ=HOURLY;COUNT=3\n") +
                                          vevent("UID:minutely\nDTSTART:20260101T090000Z\nRRULE:freq=minutely\n") +
                                          vevent("UID:odd-rule\nDTSTART:20260101T090000Z\nRRULE:FREQ=FORTNIGHTLY\n") +
                                          vevent("UID:kept\nDTSTART:20260101T090000Z\nRRULE:FREQ=DAILY\n")))
            .string();
    const auto archive = open();
    ASSERT_EQ(archive.events().size(), 1u);
    EXPECT_EQ(archive.events()[0].uniqueIdentifier, "kept");
    EXPECT_EQ(archive.skipped(),
              (std::vector<SkippedEvent>{
                  {file, "", "it has no UID"},
                  {file, "no-start", "it has no start (DTSTART)"},
                  {file, "bad-start", "its start (DTSTART) can't be read"},
                  {file, "bad-end", "its end (DTEND) can't be read"},
                  {file, "bad-length", "its length (DURATION) can't be read"},
                  {file, "hourly", "it repeats hourly (FREQ=HOURLY), which a calendar event can't"},
                  {file, "minutely", "it repeats every minute (FREQ=MINUTELY), which a calendar event can't"},
                  {file, "odd-rule", "its repeat rule (RRULE) can't be read"},
              }));
}

// --- Real trees ------------------------------------------------------------------------------

const fs::path realTrees = fs::path(MORVANE_SHARED_TEST_DATA_DIR) / "ics-archive-real";

class RealArchives : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::is_directory(realTrees)) GTEST_SKIP() << "the shared archive trees are not at " << realTrees;
    }

    static std::vector<const BackupEvent*> withIdentifier(const IcsArchive& archive, std::string_view identifier) {
        std::vector<const BackupEvent*> found;
        for (const auto& event : archive.events()) {
            if (event.uniqueIdentifier == identifier) found.push_back(&event);
        }
        return found;
    }

    static const BackupEvent& only(const IcsArchive& archive, std::string_view identifier) {
        const auto found = withIdentifier(archive, identifier);
        if (found.size() != 1) throw std::runtime_error(std::string(identifier) + " is not there exactly once");
        return *found.front();
    }

    // Events per calendar, in calendar order, then the number of detached occurrences.
    static std::vector<size_t> counts(const IcsArchive& archive) {
        std::vector<size_t> counts(archive.calendars().size() + 1);
        for (const auto& event : archive.events()) {
            ++counts.at(static_cast<size_t>(event.calendar.rowID - 1));
            if (event.isDetachedOccurrence()) ++counts.back();
        }
        return counts;
    }
};

TEST_F(RealArchives, EveryTreeOpensAndItsTotalsHold) {
    for (const auto* root : {"calendarserver", "mixed-producers", "edge-cases"})
        EXPECT_TRUE(IcsArchive::looksLikeArchive(realTrees / root)) << root;

    // Lotus Notes ends its lines with a bare CR, which the reader doesn't take for a line end:
    // those nine files give no event.
    const IcsArchive server(realTrees / "calendarserver", {});
    EXPECT_EQ(counts(server), (std::vector<size_t>{47, 0, 6, 0}));
    EXPECT_TRUE(server.unreadableFiles().empty());

    const IcsArchive producers(realTrees / "mixed-producers", {});
    EXPECT_EQ(counts(producers), (std::vector<size_t>{16, 7, 29, 31, 12, 37, 22, 35, 46}));
    EXPECT_EQ(producers.unreadableFiles(),
              std::vector<std::string>{realTrees / "mixed-producers/other-producers/ical4j--valid_1106817412.ics"});

    const IcsArchive edges(realTrees / "edge-cases", {});
    EXPECT_EQ(counts(edges), (std::vector<size_t>{16, 0, 2, 2, 1}));
    const auto broken = realTrees / "edge-cases/broken-and-odd";
    EXPECT_EQ(edges.unreadableFiles(),
              (std::vector<std::string>{broken / "python-icalendar--calendars_bom_calendar.ics",
                                        broken / "thunderbird--unit_data_importLatin1.ics"}));
    EXPECT_EQ(edges.skipped(),
              (std::vector<SkippedEvent>{{broken / "khal--without_uid.ics", "", "it has no UID"},
                                         {broken / "python-icalendar--calendars_broken_dtstart.ics", "test-123",
                                          "its start (DTSTART) can't be read"},
                                         {broken / "python-icalendar--calendars_issue_1549_binary_attachment.ics",
                                          "binary-attachment-event", "it has no start (DTSTART)"}}));
    EXPECT_TRUE(server.skipped().empty() && producers.skipped().empty());
    EXPECT_EQ(testing::mapped(edges.calendars(), &BackupCalendar::title),
              (std::vector<std::string>{"Bröken & odd – Ünïcödé name 🗓", "Empty calendar",
                                        "padded name with trailing newline", "no-displayname"}));
}

TEST_F(RealArchives, GoldenEvents) {
    const IcsArchive server(realTrees / "calendarserver", {});
    const auto& groundhog = only(server, "C3188B3A-1ED0-11D9-A5E0-000A958A3252");
    EXPECT_EQ(groundhog.snapshot.start, Date{utc(2002, 2, 2)});
    EXPECT_EQ(groundhog.snapshot.end, Date{utc(2002, 2, 2) + 86399}) << "DURATION:P1D, all-day";
    EXPECT_EQ(groundhog.snapshot.recurrence->description(), "FREQ=YEARLY;BYMONTH=2");
    // A stale and a current copy of one event: two rows, neither hiding the other.
    const auto copies = withIdentifier(server, "F756C5EB-2D97-41AA-8E70-31AC0C0217DB");
    ASSERT_EQ(copies.size(), 2u);
    EXPECT_EQ(copies[0]->snapshot.start, Date{utc(2007, 4, 1, 16)});
    EXPECT_EQ(copies[1]->snapshot.start, Date{utc(2007, 12, 10, 17)});

    // Every calendar known, with the defaults of an iCloud account.
    const IcsArchive producers(
        realTrees / "mixed-producers", [](const std::string&, const std::optional<std::string>&) {
            return std::optional(ArchiveCalendarInfo{
                .title = "Any", .storeName = "iCloud", .defaultAlarmOffset = -900, .defaultAllDayAlarmOffset = -32400});
        });
    // Outlook's Windows zone names: a known one is mapped, another reads as floating.
    const auto& outlook = only(producers, "9177c616-46dc-4755-bab1-5fdfecd31b6b");
    EXPECT_EQ(outlook.snapshot.timeZone, "America/Los_Angeles");
    EXPECT_EQ(outlook.snapshot.start, Date{utc(2014, 1, 31, 21, 30)});
    EXPECT_EQ(relativeAlarms(outlook), (Seconds{-900, -900}));
    const auto uffe = withIdentifier(producers, "040000008200E00074C5B7101A82E00800000000687C546B5596DA01000000000000"
                                                "000010000000309AE93C8C3A94489F90ADBEA30C2F2B");
    ASSERT_EQ(uffe.size(), 2u);
    EXPECT_EQ(uffe[0]->snapshot.timeZone, std::nullopt) << "W. Europe Standard Time";
    EXPECT_EQ(uffe[0]->snapshot.start, Date{utc(2024, 4, 26, 14)});

    // A daily series with ten overrides and ten exception dates, over folded EXDATE lines.
    const auto& tvRoom = only(producers, "event_issue1812");
    EXPECT_EQ(tvRoom.snapshot.recurrence->description(), "FREQ=DAILY");
    const auto& exceptions = producers.exceptions().at(tvRoom.rowID);
    EXPECT_EQ(exceptions.size(), 10u);
    EXPECT_EQ(exceptions.front(), Date{utc(2023, 12, 22, 18)});
    EXPECT_EQ(std::count_if(producers.events().begin(), producers.events().end(),
                            [&](const BackupEvent& event) { return event.masterRowID == tvRoom.rowID; }),
              10);
    const auto& january = only(producers, "event_issue1812/RID=726861600");
    EXPECT_EQ(january.originalDate, Date{utc(2024, 1, 13, 18)});
    EXPECT_EQ(january.snapshot.start, Date{utc(2024, 1, 13, 18, 30)});

    // All-day overrides written before their series, with alarms of their own; EXDATEs on two
    // lines, out of order.
    const auto& amex = only(producers, "D9182220");
    EXPECT_EQ(relativeAlarms(amex), (Seconds{-86400, -32400}));
    EXPECT_EQ(producers.exceptions().at(amex.rowID), (std::vector<Date>{{utc(2004, 2, 24)}, {utc(2004, 3, 24)}}));
    const auto& february = only(producers, "D9182220/RID=99273600");
    EXPECT_EQ(february.masterRowID, amex.rowID);
    EXPECT_EQ(february.snapshot.end, Date{utc(2004, 2, 25) - 1});
    EXPECT_EQ(relativeAlarms(february), (Seconds{-57720, -32400}));

    // ACTION:NONE, as the system writes an event whose alarm was removed: no default either.
    EXPECT_TRUE(only(producers, "E96B9F38-8F70-4F1D-AAAC-2CD0BAC40551").snapshot.alarms.empty());

    // A date-only RECURRENCE-ID against a timed series: linked, at midnight UTC.
    const IcsArchive edges(realTrees / "edge-cases", {});
    const auto& override = only(edges, "event_mixed_recurrence_id_dt_type/RID=157939200");
    EXPECT_EQ(override.masterRowID, only(edges, "event_mixed_recurrence_id_dt_type").rowID);
    EXPECT_EQ(override.originalDate, Date{utc(2006, 1, 3)});
}

} // namespace
} // namespace morvane
