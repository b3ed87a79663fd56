// A restore point of a CalDAV account of 10,000 events on the local radicale (the test suite's
// server, Tests/Support/Radicale): each iteration opens a fresh store, so that discovery and the
// calendar's whole REPORT are paid for, and captures it as `morvane snapshot` does. The
// counters split the CPU time between radicale's process and ours; what is left of the wall
// time is waiting (the two share the machine's cores).
//
// Four events in five are single events, one in five a weekly series with an exception date;
// half are zoned (Europe/Berlin), half floating. The zone is pinned to Los Angeles and `now` to
// 1 June 2025.
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"
#include "MorvanePlatform/EventKit.h"
#include "Support/Radicale.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using morvane::EKEventStore;
using morvane::EventKitSnapshot;
using morvane::testing::Radicale;

constexpr morvane::Date now{770472000}; // 2025-06-01T12:00:00Z in seconds since 2001

const char* berlin = "BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\n"
                     "BEGIN:DAYLIGHT\r\nTZOFFSETFROM:+0100\r\nTZOFFSETTO:+0200\r\nDTSTART:19810329T020000\r\n"
                     "RRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=-1SU\r\nEND:DAYLIGHT\r\n"
                     "BEGIN:STANDARD\r\nTZOFFSETFROM:+0200\r\nTZOFFSETTO:+0100\r\nDTSTART:19961027T030000\r\n"
                     "RRULE:FREQ=YEARLY;BYMONTH=10;BYDAY=-1SU\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n";

std::string calendarOf(int events) {
    std::ostringstream text;
    text << "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Morvane bench//EN\r\n" << berlin;
    for (int i = 0; i < events; ++i) {
        // Spread over 2023 to 2025, one a day at some hour.
        const time_t start = 1672531200 + static_cast<time_t>(i % 1000) * 86400 + (i % 9 + 8) * 3600;
        std::tm parts{};
        gmtime_r(&start, &parts);
        char date[32];
        std::strftime(date, sizeof date, "%Y%m%dT%H%M%S", &parts);
        const bool zoned = i % 2 == 0;
        const std::string zone = zoned ? ";TZID=Europe/Berlin" : "";
        text << "BEGIN:VEVENT\r\nUID:bench-" << i << "\r\nDTSTAMP:20250101T000000Z\r\nSUMMARY:Event " << i
             << "\r\nLOCATION:Room " << i % 17 << "\r\nDTSTART" << zone << ":" << date << "\r\nDURATION:PT1H\r\n";
        if (i % 5 == 0) {
            text << "RRULE:FREQ=WEEKLY;COUNT=20\r\n";
            const time_t skipped = start + 2 * 7 * 86400;
            gmtime_r(&skipped, &parts);
            std::strftime(date, sizeof date, "%Y%m%dT%H%M%S", &parts);
            text << "EXDATE" << zone << ":" << date << "\r\n";
        }
        text << "END:VEVENT\r\n";
    }
    text << "END:VCALENDAR\r\n";
    return text.str();
}

double processSeconds(pid_t process) {
    std::ifstream stat("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    std::getline(stat, line);
    // Fields after the command's closing parenthesis; utime and stime are the 12th and 13th.
    std::istringstream fields(line.substr(line.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 1; i <= 13 && fields >> field; ++i) {
        if (i >= 12) ticks += std::stod(field);
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double ownSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void captureAccount(benchmark::State& state) {
    auto& server = Radicale::shared();
    if (server.skipReason()) {
        state.SkipWithError(server.skipReason()->c_str());
        return;
    }
    static bool filled = false;
    if (!filled) {
        server.makeCalendar("bench", "Bench");
        // One PUT of the whole calendar: radicale splits it into a resource per UID.
        if (server.put("/" + Radicale::user() + "/bench/", calendarOf(static_cast<int>(state.range(0)))) >= 300) {
            state.SkipWithError("radicale refused the calendar");
            return;
        }
        // radicale builds its cache on the first read; that is paid once, not per capture.
        EKEventStore warm(server.account());
        (void)EventKitSnapshot::capture(warm, now);
        filled = true;
    }
    double serverSeconds = 0;
    double ourSeconds = 0;
    EventKitSnapshot snapshot;
    for (auto _ : state) {
        const double serverBefore = processSeconds(server.process());
        const double ourBefore = ownSeconds();
        EKEventStore store(server.account());
        snapshot = EventKitSnapshot::capture(store, now);
        benchmark::DoNotOptimize(snapshot.events.data());
        serverSeconds += processSeconds(server.process()) - serverBefore;
        ourSeconds += ownSeconds() - ourBefore;
    }
    const auto iterations = static_cast<double>(state.iterations());
    state.counters["events"] = static_cast<double>(snapshot.events.size());
    state.counters["radicale_cpu_ms"] = serverSeconds / iterations * 1000;
    state.counters["our_cpu_ms"] = ourSeconds / iterations * 1000;
}
BENCHMARK(captureAccount)->Arg(10000)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    ::setenv("TZ", "America/Los_Angeles", 1);
    ::tzset();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
