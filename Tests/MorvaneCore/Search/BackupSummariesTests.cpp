#include "MorvaneCore/Search/BackupSummaries.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "Support/Fakes.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::utc;

class BackupSummariesTest : public ::testing::Test {
protected:
    // A copy of the live database as it is now, as a picked file.
    BackupSource backupNow(const std::string& name) {
        const auto path = user.home() / name / "Calendar.sqlitedb";
        fs::create_directories(path.parent_path());
        // With its write-ahead log, which holds what the store wrote last.
        const auto staged = BackupLocator::stageCopy(BackupLocator::liveDBPath());
        for (const auto& file : fs::directory_iterator(staged.file().parent_path()))
            fs::copy_file(file.path(), path.parent_path() / file.path().filename());
        return {BackupSource::Kind::file(path.string()), std::nullopt};
    }

    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
    EKEventStore store;
};

TEST_F(BackupSummariesTest, CountsWhatIsLostAndChangedAgainstALiveIndexKeptUntilTheCalendarsChange) {
    auto dentist = testing::saveEvent(store, "Dentist", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17));
    auto review = testing::saveEvent(store, "Review", utc(2024, 6, 4, 16), utc(2024, 6, 4, 17));
    auto choir = testing::saveEvent(store, "Choir", utc(2024, 6, 5, 2), utc(2024, 6, 5, 4), testing::pinnedZone,
                                    testing::repeating(EKRecurrenceFrequency::weekly, 6));
    const auto backup = backupNow("backup");

    BackupSummaries summaries;
    EXPECT_EQ(summaries.summary(backup), (BackupSummaries::Summary{0, 0}));

    store.removeEvent(*dentist, EKSpan::thisEvent, true);
    review->title = "Quarterly review";
    store.saveEvent(*review, EKSpan::thisEvent, true);
    store.removeEvent(*testing::occurrenceAt(store, *choir, utc(2024, 6, 12, 2)), EKSpan::thisEvent, true);
    // The next occurrence, taken out of the series and kept as an event of its own.
    store.removeEvent(*testing::occurrenceAt(store, *choir, utc(2024, 6, 19, 2)), EKSpan::thisEvent, true);
    testing::saveEvent(store, "Choir", utc(2024, 6, 19, 2), utc(2024, 6, 19, 4));

    EXPECT_EQ(summaries.summary(backup), (BackupSummaries::Summary{0, 0})) << "the index is kept";
    summaries.calendarsChanged();
    // Gone: the dentist and one occurrence; changed: the review. The occurrence that an event
    // stands in for counts nowhere.
    EXPECT_EQ(summaries.summary(backup), (BackupSummaries::Summary{2, 1}));
}

TEST_F(BackupSummariesTest, GivesNothingWhereANumberWouldCostAMountOrCantBeHad) {
    testing::saveEvent(store, "Dentist", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17));
    testing::Installed<testing::RecordingToolLauncher> tools;
    const auto damaged = user.home() / "damaged.sqlitedb";
    files::write(damaged, "not a database");

    BackupSummaries summaries;
    EXPECT_FALSE(summaries.summary({BackupSource::Kind::timeMachine("/Volumes/Backup/Backups.backupdb/Mac/2024-06-01-"
                                                                    "120000/Macintosh HD - Data"),
                                    std::nullopt}));
    EXPECT_FALSE(summaries.summary(
        {BackupSource::Kind::localSnapshot("com.apple.TimeMachine.2024-06-01-120000.local"), std::nullopt}));
    EXPECT_TRUE(tools->commandLines().empty());
    EXPECT_FALSE(summaries.summary({BackupSource::Kind::file(damaged.string()), std::nullopt}));
    EXPECT_EQ(summaries.summary(backupNow("fine")), (BackupSummaries::Summary{0, 0}));
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());
}

} // namespace
} // namespace morvane
