// ICalParser.parse against libical's parser on the same bytes in the same run: every file of the
// shared real-world corpus, and its largest file alone (a 1.6 MB Google export). Both sides get
// the whole text of one file per call and build their complete tree of components; throughput is
// in bytes of input. See bench/README.md.
#include "MorvaneCore/IcsArchives/ICalendar.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <filesystem>
#include <fstream>
#include <libical/ical.h>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path corpus = fs::path(MORVANE_SHARED_TEST_DATA_DIR) / "ics-real";
const fs::path largest = corpus / "python-recurring-ical-events/large/issue42.ics";

struct ComponentDeleter {
    void operator()(icalcomponent* component) const { icalcomponent_free(component); }
};
using LibicalComponent = std::unique_ptr<icalcomponent, ComponentDeleter>;

std::string contentsOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

// libical reads up to the first NUL; both sides get the same text, so the few binary crashers of
// the corpus are cut there for both.
std::string asCString(std::string text) {
    text.resize(std::min(text.size(), text.find('\0')));
    return text;
}

const std::vector<std::string>& corpusFiles() {
    static const std::vector<std::string> files = [] {
        std::vector<fs::path> paths;
        if (fs::is_directory(corpus)) {
            for (const auto& entry : fs::recursive_directory_iterator(corpus)) {
                if (entry.is_regular_file() && entry.path().extension() == ".ics") paths.push_back(entry.path());
            }
        }
        std::sort(paths.begin(), paths.end());
        std::vector<std::string> texts;
        for (const auto& path : paths)
            texts.push_back(asCString(contentsOf(path)));
        return texts;
    }();
    return files;
}

const std::vector<std::string>& largestFile() {
    static const std::vector<std::string> files = [] {
        std::vector<std::string> texts;
        if (fs::exists(largest)) texts.push_back(asCString(contentsOf(largest)));
        return texts;
    }();
    return files;
}

int64_t totalBytes(const std::vector<std::string>& texts) {
    int64_t bytes = 0;
    for (const auto& text : texts)
        bytes += static_cast<int64_t>(text.size());
    return bytes;
}

template <const std::vector<std::string>& (*Inputs)()> void morvaneParse(benchmark::State& state) {
    const auto& texts = Inputs();
    if (texts.empty()) state.SkipWithError("the shared corpus is missing");
    for (auto _ : state) {
        for (const auto& text : texts) {
            auto components = morvane::ICalParser::parse(text);
            benchmark::DoNotOptimize(components.data());
        }
    }
    state.SetBytesProcessed(state.iterations() * totalBytes(texts));
}

template <const std::vector<std::string>& (*Inputs)()> void libicalParse(benchmark::State& state) {
    const auto& texts = Inputs();
    if (texts.empty()) state.SkipWithError("the shared corpus is missing");
    for (auto _ : state) {
        for (const auto& text : texts) {
            LibicalComponent component(icalparser_parse_string(text.c_str()));
            benchmark::DoNotOptimize(component.get());
        }
    }
    state.SetBytesProcessed(state.iterations() * totalBytes(texts));
}

BENCHMARK(morvaneParse<corpusFiles>)->Name("Corpus/morvane")->Unit(benchmark::kMillisecond);
BENCHMARK(libicalParse<corpusFiles>)->Name("Corpus/libical")->Unit(benchmark::kMillisecond);
BENCHMARK(morvaneParse<largestFile>)->Name("LargestFile/morvane")->Unit(benchmark::kMillisecond);
BENCHMARK(libicalParse<largestFile>)->Name("LargestFile/libical")->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
