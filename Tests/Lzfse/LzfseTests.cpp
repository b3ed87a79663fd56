// The codec's tests: the reference vectors, hand-made blocks, generated inputs, and a reader of
// block headers that checks what decoders require of every block we write.
#include "Lzfse/Lzfse.h"
#include "MorvanePlatform/SHA256.h"
#include "Support/ErrorText.h"
#include "Support/Mapped.h"
#include "Support/TemporaryDirectory.h"
#include "lzfse-tool/Tool.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <sstream>

namespace morvane::lzfse {
namespace {

using Bytes = std::vector<std::uint8_t>;

// The reference encoder's vectors, in ../shared; tests skip when the folder is absent.
std::filesystem::path vectorFolder() { return std::filesystem::path(MORVANE_SHARED_TEST_DATA_DIR) / "lzfse"; }

bool haveVectors() { return std::filesystem::is_directory(vectorFolder()); }

Bytes readBytes(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("can't read " + path.string());
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

std::string sha256Hex(std::span<const std::uint8_t> bytes) {
    return SHA256::hex(SHA256::of(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size())));
}

// "62 76 78 24" -> bytes.
Bytes hexBytes(std::string_view hex) {
    std::istringstream in{std::string(hex)};
    Bytes out;
    for (unsigned byte = 0; in >> std::hex >> byte;)
        out.push_back(static_cast<std::uint8_t>(byte));
    return out;
}

void appendU16(Bytes& out, std::uint32_t value) {
    out.push_back(static_cast<std::uint8_t>(value));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}

void appendU32(Bytes& out, std::uint32_t value) {
    appendU16(out, value & 0xFFFF);
    appendU16(out, value >> 16);
}

// Deterministic inputs: noise, text lines in the shape of calendar rows, a repeating pattern.
Bytes randomBytes(std::size_t size, std::uint32_t seed) {
    std::mt19937 generator(seed);
    Bytes out(size);
    for (auto& byte : out)
        byte = static_cast<std::uint8_t>(generator() >> 24);
    return out;
}

Bytes calendarText(std::size_t size) {
    static constexpr const char* titles[] = {"Standup", "Dentist", "Review", "Lunch with Sam", "Planning", "Gym"};
    static constexpr const char* places[] = {"Room 4", "Online", "12 High Street", "Cafe Lumen"};
    std::string text;
    std::mt19937 generator(7);
    for (unsigned row = 0; text.size() < size; ++row) {
        text += std::to_string(row) + "|" + titles[generator() % 6] + "|" + places[generator() % 4] + "|2024-" +
                std::to_string(1 + generator() % 12) + "-" + std::to_string(1 + generator() % 28) + "T" +
                std::to_string(8 + generator() % 10) + ":00|confirmed\n";
    }
    text.resize(size);
    return Bytes(text.begin(), text.end());
}

Bytes periodic(std::size_t size, std::size_t period) {
    Bytes out(size);
    for (std::size_t i = 0; i < size; ++i)
        out[i] = static_cast<std::uint8_t>('a' + i % period);
    return out;
}

// What a block header says.
struct BlockInfo {
    std::string magic;
    std::uint32_t rawBytes = 0;
    std::uint32_t literals = 0; // bvx2 only
    std::uint32_t matches = 0;
    std::uint32_t lmdPayloadBytes = 0;
    std::uint32_t headerSize = 0;
};

// The blocks of a stream, `bvx$` last. Adds a test failure for any header field beyond what
// decoders accept (the caller checks the decoding itself).
std::vector<BlockInfo> blocksOf(std::span<const std::uint8_t> stream) {
    std::vector<BlockInfo> blocks;
    const auto u32 = [&](std::size_t at) {
        std::uint32_t v;
        std::memcpy(&v, stream.data() + at, 4);
        return v;
    };
    const auto u64 = [&](std::size_t at) {
        std::uint64_t v;
        std::memcpy(&v, stream.data() + at, 8);
        return v;
    };
    for (std::size_t at = 0; at + 4 <= stream.size();) {
        BlockInfo block;
        block.magic.assign(reinterpret_cast<const char*>(stream.data() + at), 4);
        blocks.push_back(block);
        BlockInfo& b = blocks.back();
        if (b.magic == "bvx$") break;
        b.rawBytes = u32(at + 4);
        if (b.magic == "bvx-") {
            at += 8 + b.rawBytes;
        } else if (b.magic == "bvxn") {
            at += 12 + u32(at + 8);
        } else if (b.magic == "bvx2") {
            const std::uint64_t a = u64(at + 8), w = u64(at + 16), c = u64(at + 24);
            b.literals = a & 0xFFFFF;
            b.matches = (a >> 40) & 0xFFFFF;
            b.lmdPayloadBytes = (w >> 40) & 0xFFFFF;
            b.headerSize = c & 0xFFFFFFFF;
            EXPECT_LE(b.literals, 40000u);
            EXPECT_EQ(b.literals % 4, 0u);
            EXPECT_LE(b.matches, 10000u);
            EXPECT_GE(b.lmdPayloadBytes, 8u) << "decoders load 8 bytes of the L/M/D payload at once";
            EXPECT_GE(b.headerSize, 32u + 90u);
            EXPECT_LE(b.headerSize, 662u);
            at += b.headerSize + ((a >> 20) & 0xFFFFF) + b.lmdPayloadBytes;
        } else {
            ADD_FAILURE() << "unexpected block " << b.magic;
            break;
        }
    }
    return blocks;
}

Bytes decodeText(std::string_view text) { return Bytes(text.begin(), text.end()); }

Bytes rawBlock(std::string_view content) {
    Bytes out = hexBytes("62 76 78 2D");
    appendU32(out, static_cast<std::uint32_t>(content.size()));
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

Bytes lzvnBlock(std::uint32_t rawBytes, std::string_view payloadHex) {
    const Bytes payload = hexBytes(payloadHex);
    Bytes out = hexBytes("62 76 78 6E");
    appendU32(out, rawBytes);
    appendU32(out, static_cast<std::uint32_t>(payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

Bytes endBlock() { return hexBytes("62 76 78 24"); }

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

// A `bvx1` block whose tables give all states to one symbol each, so that neither payload needs
// a single bit: `literalCount` copies of `literal`, then `matches` identical triples. The L/M/D
// payload is the 8 zero bytes every block carries.
struct UnpackedBlock {
    std::uint32_t rawBytes = 0;
    std::uint32_t literalCount = 4;
    char literal = 'x';
    std::uint32_t matches = 1;
    int lSymbol = 1; // L = symbol for symbols 0-15
    int mSymbol = 5; // M likewise
    int dSymbol = 3; // D = 0..3 for symbols 0..3; 0 means "the previous distance"
    std::uint16_t lState = 0;
    std::uint16_t extraLFrequency = 0;

    Bytes bytes() const {
        Bytes out = hexBytes("62 76 78 31");
        appendU32(out, rawBytes);
        appendU32(out, 8); // payload bytes, informative only
        appendU32(out, literalCount);
        appendU32(out, matches);
        appendU32(out, 0); // literal payload bytes
        appendU32(out, 8); // L/M/D payload bytes
        appendU32(out, 0); // literal bits
        for (int i = 0; i < 4; ++i)
            appendU16(out, 0);
        appendU32(out, 0); // L/M/D bits
        appendU16(out, lState);
        appendU16(out, 0);
        appendU16(out, 0);
        for (int s = 0; s < 20; ++s)
            appendU16(out, (s == lSymbol ? 64 : 0) + (s == 0 ? extraLFrequency : 0));
        for (int s = 0; s < 20; ++s)
            appendU16(out, s == mSymbol ? 64 : 0);
        for (int s = 0; s < 64; ++s)
            appendU16(out, s == dSymbol ? 256 : 0);
        for (int s = 0; s < 256; ++s)
            appendU16(out, s == static_cast<unsigned char>(literal) ? 1024 : 0);
        appendU16(out, 0);
        out.insert(out.end(), 8, 0);
        return out;
    }
};

TEST(LzfseDecoder, DecodesEveryReferenceStreamExactly) {
    if (!haveVectors()) GTEST_SKIP() << "the shared LZFSE vectors are not at " << vectorFolder();
    std::ifstream sums(vectorFolder() / "SHA256SUMS");
    std::map<std::string, std::string> expected;
    for (std::string sum, name; sums >> sum >> name;)
        expected[name] = sum;
    int streams = 0;
    for (const auto& [name, sum] : expected) {
        if (!name.ends_with(".lzfse")) continue;
        SCOPED_TRACE(name);
        const Bytes stream = readBytes(vectorFolder() / name);
        ASSERT_EQ(sha256Hex(stream), sum) << "the vector itself is damaged";
        EXPECT_EQ(sha256Hex(decompress(stream)), expected.at(name.substr(0, name.size() - 6)));
        ++streams;
    }
    EXPECT_EQ(streams, 8);
}

TEST(LzfseDecoder, ReadsEmptyStreamsInBothForms) {
    EXPECT_TRUE(decompress(endBlock()).empty());
    EXPECT_TRUE(decompress(concat({rawBlock(""), endBlock()})).empty());
    EXPECT_TRUE(decompress(concat({rawBlock(""), lzvnBlock(0, "06 00 00 00 00 00 00 00"), endBlock()})).empty());
}

TEST(LzfseDecoder, FollowsMatchesIntoEarlierBlocksOfAnyKind) {
    // LZVN: 0E and 16 are no-ops; 38 0D is L=0, M=10, D=13, reaching into the stored block.
    EXPECT_EQ(decompress(concat(
                  {rawBlock("hello world, "), lzvnBlock(10, "0E 16 38 0D 06 00 00 00 00 00 00 00"), endBlock()})),
              decodeText("hello world, hello worl"));
    // LZFSE: one literal, then 5 bytes from 3 back, overlapping itself and the stored block.
    EXPECT_EQ(decompress(concat({rawBlock("abcdef"), UnpackedBlock{.rawBytes = 6}.bytes(), endBlock()})),
              decodeText("abcdefxefxef"));
    // Two triples of L=1, M=2, D=2: the second copies what the first produced.
    EXPECT_EQ(decompress(
                  concat({rawBlock("ab"),
                          UnpackedBlock{.rawBytes = 6, .matches = 2, .mSymbol = 2, .dSymbol = 2}.bytes(), endBlock()})),
              decodeText("abxbxxxx"));
}

TEST(LzfseDecoder, ReadsBlocksOfDifferentKindsInOneStream) {
    if (!haveVectors()) GTEST_SKIP() << "the shared LZFSE vectors are not at " << vectorFolder();
    // Every block is self-contained when it opens a stream, so blocks of different streams chain.
    const Bytes lzvn = readBytes(vectorFolder() / "short_text.txt.lzfse");
    const Bytes fse = readBytes(vectorFolder() / "text_4096.txt.lzfse");
    Bytes stream = concat({rawBlock("start|"), Bytes(lzvn.begin(), lzvn.end() - 4), Bytes(fse.begin(), fse.end() - 4),
                           rawBlock("|end"), endBlock()});
    Bytes expected = decodeText("start|");
    for (const char* name : {"short_text.txt", "text_4096.txt"}) {
        const Bytes part = readBytes(vectorFolder() / name);
        expected.insert(expected.end(), part.begin(), part.end());
    }
    const Bytes tail = decodeText("|end");
    expected.insert(expected.end(), tail.begin(), tail.end());
    EXPECT_EQ(decompress(stream), expected);
}

void expectDamaged(const Bytes& stream, std::string_view why) {
    const auto error = morvane::testing::errorText<LzfseError>([&] { decompress(stream); });
    EXPECT_TRUE(error.starts_with("The compressed data is damaged: ")) << why << ": " << error;
}

TEST(LzfseDecoder, RejectsDamagedStoredAndLzvnBlocks) {
    const Bytes hello = rawBlock("hello world, ");
    expectDamaged(rawBlock("abc"), "no end block");
    expectDamaged(concat({endBlock(), hexBytes("00")}), "a byte after the end block");
    expectDamaged(concat({hexBytes("62 76 78 33 00 00 00 00"), endBlock()}), "unknown block kind bvx3");
    expectDamaged(concat({Bytes(hello.begin(), hello.end() - 1), endBlock()}), "stored block shorter than its length");
    expectDamaged(concat({hello, lzvnBlock(10, "1E 38 0D 06 00 00 00 00 00 00 00"), endBlock()}), "undefined opcode");
    expectDamaged(concat({hello, lzvnBlock(3, "F3 06 00 00 00 00 00 00 00"), endBlock()}),
                  "match-only opcode before any distance");
    expectDamaged(concat({hello, lzvnBlock(10, "38 0E 06 00 00 00 00 00 00 00"), endBlock()}),
                  "distance 14 with 13 bytes out");
    expectDamaged(concat({hello, lzvnBlock(11, "38 0D 06 00 00 00 00 00 00 00"), endBlock()}), "one byte short");
    expectDamaged(concat({hello, lzvnBlock(9, "38 0D 06 00 00 00 00 00 00 00"), endBlock()}), "one byte over");
    expectDamaged(concat({hello, lzvnBlock(10, "38 0D"), endBlock()}), "no end opcode");
    expectDamaged(concat({hello, lzvnBlock(10, "38 0D 06 00 00 00 00 00 00 00 00"), endBlock()}),
                  "bytes after the end opcode");
    expectDamaged(concat({lzvnBlock(300000, "F0 FF 06 00 00 00 00 00 00 00"), endBlock()}),
                  "more output than the payload can hold");
}

TEST(LzfseDecoder, RejectsDamagedLzfseBlocks) {
    const Bytes six = rawBlock("abcdef");
    const auto damagedWith = [&](UnpackedBlock block, std::string_view why) {
        expectDamaged(concat({six, block.bytes(), endBlock()}), why);
    };
    damagedWith({.rawBytes = 6, .dSymbol = 0}, "distance 0 in the first triple");
    damagedWith({.rawBytes = 7}, "produces less than its size");
    damagedWith({.rawBytes = 5}, "produces more than its size");
    damagedWith({.rawBytes = 10, .lSymbol = 5}, "uses 5 literals of 4");
    damagedWith({.rawBytes = 6, .literalCount = 40004}, "more literals than a block may hold");
    damagedWith({.rawBytes = 6, .literalCount = 6}, "literal count not a multiple of 4");
    damagedWith({.rawBytes = 6, .matches = 10001}, "more matches than a block may hold");
    damagedWith({.rawBytes = 6, .lState = 64}, "state beyond its table");
    damagedWith({.rawBytes = 6, .extraLFrequency = 1}, "frequencies adding up to more than the table");
    damagedWith({.rawBytes = 100000}, "more output than the block can hold");
    // Without the stored block before it, the first match reaches before the start.
    expectDamaged(concat({UnpackedBlock{.rawBytes = 6}.bytes(), endBlock()}), "distance beyond the output");

    if (!haveVectors()) GTEST_SKIP() << "the shared LZFSE vectors are not at " << vectorFolder();
    const Bytes reference = readBytes(vectorFolder() / "text_4096.txt.lzfse");
    const auto patched = [&](std::size_t at, std::uint8_t value) {
        Bytes copy = reference;
        copy[at] = value;
        return copy;
    };
    // The bvx2 header: n_raw_bytes at 4, header_size in the low bytes of word C at 24.
    expectDamaged(patched(4, static_cast<std::uint8_t>(reference[4] + 1)), "n_raw_bytes one too many");
    expectDamaged(patched(24, static_cast<std::uint8_t>(reference[24] + 1)), "header one byte longer than its codes");
    expectDamaged(patched(24, static_cast<std::uint8_t>(reference[24] - 1)), "header cut inside its codes");
    expectDamaged(patched(24, 31), "header shorter than its fixed part");
}

TEST(LzfseDecoder, RejectsEveryTruncation) {
    if (!haveVectors()) GTEST_SKIP() << "the shared LZFSE vectors are not at " << vectorFolder();
    for (const char* name : {"one_byte.bin.lzfse", "short_text.txt.lzfse", "text_4096.txt.lzfse"}) {
        const Bytes stream = readBytes(vectorFolder() / name);
        for (std::size_t length = 0; length < stream.size(); ++length)
            EXPECT_THROW(decompress(std::span(stream).first(length)), LzfseError) << name << " cut to " << length;
    }
}

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
