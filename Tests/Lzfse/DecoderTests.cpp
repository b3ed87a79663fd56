#include "Lzfse/Lzfse.h"
#include "Lzfse/LzfseTestSupport.h"
#include "Support/ErrorText.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace morvane::lzfse {
namespace {

using namespace testing;

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

} // namespace
} // namespace morvane::lzfse
