#include "Lzfse/Lzfse.h"
#include "Lzfse/LzfseTestSupport.h"
#include "Support/Mapped.h"
#include "Support/TemporaryDirectory.h"
#include "lzfse-tool/Tool.h"

#include <gtest/gtest.h>
#include <sstream>

namespace morvane::lzfse {
namespace {

using namespace testing;

// Round trip through our strict decoder, with every block header within the decoders' limits.
std::vector<BlockInfo> expectRoundTrip(const Bytes& input) {
    const Bytes stream = compress(input);
    EXPECT_EQ(compress(input), stream) << "the encoder must be deterministic";
    EXPECT_EQ(decompress(stream), input);
    std::vector<BlockInfo> blocks = blocksOf(stream);
    EXPECT_EQ(blocks.back().magic, "bvx$");
    std::uint64_t total = 0;
    for (const BlockInfo& block : blocks)
        total += block.rawBytes;
    EXPECT_EQ(total, input.size());
    return blocks;
}

std::vector<std::string> kinds(const std::vector<BlockInfo>& blocks) {
    return morvane::testing::mapped(blocks, &BlockInfo::magic);
}

TEST(LzfseEncoder, ChoosesTheBlockKindBySize) {
    // The empty stream is byte for byte the reference encoder's.
    EXPECT_EQ(compress({}), hexBytes("62 76 78 2D 00 00 00 00 62 76 78 24"));
    EXPECT_EQ(kinds(expectRoundTrip(calendarText(1))), (std::vector<std::string>{"bvx-", "bvx$"}));
    EXPECT_EQ(kinds(expectRoundTrip(calendarText(7))), (std::vector<std::string>{"bvx-", "bvx$"}));
    // From 8 bytes LZVN is tried (the last 8 bytes are never searched), and kept only when it
    // saves space.
    EXPECT_EQ(kinds(expectRoundTrip(Bytes(40, 'z'))), (std::vector<std::string>{"bvxn", "bvx$"}));
    EXPECT_EQ(kinds(expectRoundTrip(calendarText(9))), (std::vector<std::string>{"bvx-", "bvx$"}));
    EXPECT_EQ(kinds(expectRoundTrip(calendarText(4095))), (std::vector<std::string>{"bvxn", "bvx$"}));
    EXPECT_EQ(kinds(expectRoundTrip(randomBytes(4095, 1))), (std::vector<std::string>{"bvx-", "bvx$"}));
    EXPECT_EQ(kinds(expectRoundTrip(calendarText(4096))), (std::vector<std::string>{"bvx2", "bvx$"}));
    EXPECT_EQ(kinds(expectRoundTrip(calendarText(4097))), (std::vector<std::string>{"bvx2", "bvx$"}));
}

TEST(LzfseEncoder, RoundTripsLongRunsAndShortPeriods) {
    // 1 MiB of zeros: matches far longer than one triple may carry, split at 2359 bytes.
    const auto zeros = expectRoundTrip(Bytes(1 << 20, 0));
    EXPECT_LT(zeros.size(), 10u);
    // Periods shorter than a copy step overlap the bytes being written.
    for (const std::size_t period : {1, 2, 3, 5, 17})
        expectRoundTrip(periodic(300000, period));
    // Runs of a few LZVN-sized matches and literals.
    for (const std::size_t size : {20, 100, 1000, 3000})
        expectRoundTrip(periodic(size, 7));
}

TEST(LzfseEncoder, StoresDataThatDoesNotCompress) {
    // 1 MiB of noise: literal runs far longer than a triple carries, in blocks that end up
    // stored, costing 8 bytes each and 4 at the end.
    const Bytes noise = randomBytes(1 << 20, 2);
    const auto blocks = expectRoundTrip(noise);
    EXPECT_LE(compress(noise).size(), noise.size() + 8 * blocks.size() + 4);
    for (std::size_t b = 0; b + 1 < blocks.size(); ++b)
        EXPECT_EQ(blocks[b].magic, "bvx-");
}

TEST(LzfseEncoder, SplitsBlocksAtTheirLimits) {
    // Text whose matches are short and frequent fills a block with triples first; noise mixed in
    // fills it with literals. Matches reach back across block boundaries either way.
    Bytes input = calendarText(600000);
    const Bytes noise = randomBytes(200000, 3);
    for (std::size_t i = 0; i < noise.size(); i += 3)
        input[i * 3] = noise[i];
    const auto blocks = expectRoundTrip(input);
    EXPECT_GT(blocks.size(), 4u);
    bool fullOfMatches = false;
    for (const BlockInfo& block : blocks)
        fullOfMatches |= block.matches > 9000;
    EXPECT_TRUE(fullOfMatches);
}

TEST(LzfseEncoder, CompressesTheReferenceVectorsAsWellAsTheReference) {
    if (!haveVectors()) GTEST_SKIP() << "the shared LZFSE vectors are not at " << vectorFolder();
    for (const char* name : {"short_text.txt", "text_4095.txt", "text_4096.txt", "repetitive_text.txt",
                             "random_200k.bin", "calendar_20k.sqlite"}) {
        SCOPED_TRACE(name);
        const Bytes input = readBytes(vectorFolder() / name);
        const std::size_t reference = readBytes(vectorFolder() / (std::string(name) + ".lzfse")).size();
        expectRoundTrip(input);
        EXPECT_LE(compress(input).size(), reference + reference / 100);
    }
}

TEST(LzfseTool, RoundTripsFilesAndLeavesNothingBehindOnFailure) {
    const morvane::testing::TemporaryDirectory folder;
    const std::string text(reinterpret_cast<const char*>(calendarText(50000).data()), 50000);
    const std::string plain = folder.write("plain.txt", text).string();
    const std::string packed = (folder.path() / "plain.lzfse").string();
    const std::string unpacked = (folder.path() / "unpacked.txt").string();
    std::ostringstream err;
    const auto run = [&](std::initializer_list<const char*> arguments) {
        std::vector<const char*> argv{"lzfse"};
        argv.insert(argv.end(), arguments);
        return lzfsetool::run(static_cast<int>(argv.size()), argv.data(), err);
    };

    EXPECT_EQ(run({"-encode", "-i", plain.c_str(), "-o", packed.c_str()}), lzfsetool::success);
    EXPECT_EQ(run({"-decode", "-v", "-i", packed.c_str(), "-o", unpacked.c_str()}), lzfsetool::success);
    EXPECT_EQ(readBytes(unpacked), readBytes(plain));
    EXPECT_NE(err.str().find("decode: "), std::string::npos) << err.str();

    const std::string missing = (folder.path() / "never.txt").string();
    EXPECT_EQ(run({"-decode", "-i", plain.c_str(), "-o", missing.c_str()}), lzfsetool::failure);
    EXPECT_NE(err.str().find("lzfse: The compressed data is damaged: "), std::string::npos) << err.str();
    EXPECT_FALSE(std::filesystem::exists(missing));
    EXPECT_EQ(run({"-i", plain.c_str()}), lzfsetool::usageFailure);
    EXPECT_EQ(run({"-encode", "-x"}), lzfsetool::usageFailure);
}

} // namespace
} // namespace morvane::lzfse
