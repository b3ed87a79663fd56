#include "Lzfse/BitStream.h"
#include "Lzfse/Format.h"
#include "Lzfse/Fse.h"
#include "Lzfse/Lzfse.h"
#include "Lzfse/Lzvn.h"

#include <array>
#include <memory>
#include <string>
#include <utility>

// Decoding runs in two passes. The first walks the block headers only: it checks that every
// block lies inside the input, that the stream ends where it should, and adds up the output
// size, so that the output is allocated once. The second decodes each block into its slice of
// the output. Every count, state and distance read from the input is checked before it is used;
// the fast copies may write up to 32 bytes past a block's end, into slack kept behind the output.

namespace morvane::lzfse {

void damaged(const char* reason) { throw LzfseError(std::string("The compressed data is damaged: ") + reason); }

namespace {

using namespace format;

constexpr std::size_t outputSlack = 64;
constexpr std::size_t literalSlack = 64;

// Where a block's parts are, as read from its header; sizes already checked against the input.
struct BlockLayout {
    std::uint32_t magic = 0;
    std::size_t headerSize = 0;
    std::size_t payloadSize = 0;
    std::uint32_t rawBytes = 0;

    std::size_t size() const { return headerSize + payloadSize; }
};

BlockLayout readLayout(const std::uint8_t* p, std::size_t available) {
    const auto need = [&](std::size_t bytes) {
        if (available < bytes) damaged("the stream is truncated");
    };
    need(4);
    BlockLayout block;
    block.magic = load32(p);
    switch (block.magic) {
    case magicEnd: block.headerSize = 4; break;
    case magicRaw:
        need(rawHeaderSize);
        block.headerSize = rawHeaderSize;
        block.rawBytes = load32(p + 4);
        block.payloadSize = block.rawBytes;
        break;
    case magicLzvn:
        need(lzvnHeaderSize);
        block.headerSize = lzvnHeaderSize;
        block.rawBytes = load32(p + 4);
        block.payloadSize = load32(p + 8);
        // No opcode produces more than 271 bytes from 2: a bigger claim can't be honest.
        if (block.rawBytes / 136 > block.payloadSize) damaged("an LZVN block claims more data than it can hold");
        break;
    case magicUnpackedFse:
        need(unpackedHeaderSize);
        block.headerSize = unpackedHeaderSize;
        block.rawBytes = load32(p + 4);
        block.payloadSize = std::size_t{load32(p + 20)} + load32(p + 24);
        break;
    case magicPackedFse: {
        need(packedFixedHeaderSize);
        block.rawBytes = load32(p + 4);
        const std::uint64_t a = load64(p + 8);
        const std::uint64_t b = load64(p + 16);
        block.headerSize = load64(p + 24) & 0xFFFFFFFF;
        block.payloadSize = ((a >> 20) & 0xFFFFF) + ((b >> 40) & 0xFFFFF);
        if (block.headerSize < packedFixedHeaderSize || block.headerSize > packedMaxHeaderSize)
            damaged("a block header has an impossible size");
        break;
    }
    default: damaged("a block has an unknown kind");
    }
    if (block.magic == magicUnpackedFse || block.magic == magicPackedFse) {
        // Every byte comes from a literal or a match of at most maxM bytes.
        const std::uint64_t literals = block.magic == magicPackedFse ? load64(p + 8) & 0xFFFFF : load32(p + 12);
        const std::uint64_t matches = block.magic == magicPackedFse ? (load64(p + 8) >> 40) & 0xFFFFF : load32(p + 16);
        if (block.rawBytes > literals + matches * maxM) damaged("a block claims more data than it can hold");
    }
    need(block.headerSize);
    if (available - block.headerSize < block.payloadSize) damaged("the stream is truncated");
    return block;
}

// Everything an LZFSE block header holds, whichever of the two forms it came in.
struct FseHeader {
    std::uint32_t literalCount = 0;
    std::uint32_t matchCount = 0;
    std::uint32_t literalPayloadSize = 0;
    std::uint32_t lmdPayloadSize = 0;
    int literalBits = 0;
    int lmdBits = 0;
    std::array<std::uint32_t, 4> literalStates{};
    std::uint32_t lState = 0;
    std::uint32_t mState = 0;
    std::uint32_t dState = 0;
    // L, M, D and literal frequencies, in that order, as stored.
    std::array<std::uint16_t, frequencyCount> frequencies{};

    const std::uint16_t* lFrequencies() const { return frequencies.data(); }
    const std::uint16_t* mFrequencies() const { return frequencies.data() + lSymbols; }
    const std::uint16_t* dFrequencies() const { return frequencies.data() + lSymbols + mSymbols; }
    const std::uint16_t* literalFrequencies() const { return frequencies.data() + lSymbols + mSymbols + dSymbols; }
};

void readUnpackedHeader(const std::uint8_t* p, FseHeader& h) {
    const auto u16 = [&](std::size_t at) { return static_cast<std::uint16_t>(p[at] | (p[at + 1] << 8)); };
    h.literalCount = load32(p + 12);
    h.matchCount = load32(p + 16);
    h.literalPayloadSize = load32(p + 20);
    h.lmdPayloadSize = load32(p + 24);
    h.literalBits = static_cast<std::int32_t>(load32(p + 28));
    for (std::size_t i = 0; i < 4; ++i)
        h.literalStates[i] = u16(32 + 2 * i);
    h.lmdBits = static_cast<std::int32_t>(load32(p + 40));
    h.lState = u16(44);
    h.mState = u16(46);
    h.dState = u16(48);
    for (std::size_t i = 0; i < frequencyCount; ++i)
        h.frequencies[i] = u16(50 + 2 * i);
}

void readPackedHeader(const std::uint8_t* p, std::size_t headerSize, FseHeader& h) {
    const std::uint64_t a = load64(p + 8);
    const std::uint64_t b = load64(p + 16);
    const std::uint64_t c = load64(p + 24);
    h.literalCount = a & 0xFFFFF;
    h.literalPayloadSize = (a >> 20) & 0xFFFFF;
    h.matchCount = (a >> 40) & 0xFFFFF;
    h.literalBits = static_cast<int>((a >> 60) & 7) - 7;
    for (std::size_t i = 0; i < 4; ++i)
        h.literalStates[i] = (b >> (10 * i)) & 0x3FF;
    h.lmdPayloadSize = (b >> 40) & 0xFFFFF;
    h.lmdBits = static_cast<int>((b >> 60) & 7) - 7;
    h.lState = (c >> 32) & 0x3FF;
    h.mState = (c >> 42) & 0x3FF;
    h.dState = (c >> 52) & 0x3FF;
    if (headerSize == packedFixedHeaderSize) return; // no tables: every frequency is 0

    // The frequencies follow as prefix codes of 2 to 14 bits, read from the low bits up.
    const std::uint8_t* area = p + packedFixedHeaderSize;
    const std::size_t areaSize = headerSize - packedFixedHeaderSize;
    std::size_t next = 0;
    std::uint64_t bits = 0;
    int bitCount = 0;
    for (auto& frequency : h.frequencies) {
        while (bitCount < 14 && next < areaSize) {
            bits |= std::uint64_t{area[next++]} << bitCount;
            bitCount += 8;
        }
        int length;
        std::uint32_t value;
        if ((bits & 1) == 0) {
            length = 2;
            value = (bits >> 1) & 1;
        } else if ((bits & 3) == 1) {
            length = 3;
            value = 2 + ((bits >> 2) & 1);
        } else if ((bits & 7) == 3) {
            length = 5;
            value = 4 + ((bits >> 3) & 3);
        } else if ((bits & 15) == 7) {
            length = 8;
            value = 8 + ((bits >> 4) & 15);
        } else {
            length = 14;
            value = 24 + ((bits >> 4) & 1023);
        }
        if (length > bitCount) damaged("a block's frequency tables are truncated");
        frequency = static_cast<std::uint16_t>(value);
        bits >>= length;
        bitCount -= length;
    }
    if (next != areaSize || bitCount >= 8) damaged("a block's frequency tables are followed by stray bytes");
}

// Decoder tables and the literal buffer of one LZFSE block; reused from block to block.
struct FseBlockDecoder {
    std::array<fse::LiteralEntry, literalStates> literalTable;
    std::array<fse::ValueEntry, lStates> lTable;
    std::array<fse::ValueEntry, mStates> mTable;
    std::array<fse::ValueEntry, dStates> dTable;
    std::array<std::uint8_t, maxLiteralsPerBlock + literalSlack> literals{};

    // Decodes the block at `p` (layout already checked) into [dst, dst + rawBytes), where
    // `outStart` is the start of the whole output.
    void decode(const BlockLayout& layout, const std::uint8_t* p, const std::uint8_t* outStart, std::uint8_t* dst);

private:
    void checkHeader(const FseHeader& h, const BlockLayout& layout);
    void decodeLiterals(const FseHeader& h, const std::uint8_t* payload);
};

void FseBlockDecoder::checkHeader(const FseHeader& h, const BlockLayout& layout) {
    if (h.literalCount > maxLiteralsPerBlock || h.literalCount % 4 != 0)
        damaged("a block has an impossible number of literals");
    if (h.matchCount > maxMatchesPerBlock) damaged("a block has an impossible number of matches");
    if (h.literalBits < -7 || h.literalBits > 0 || h.lmdBits < -7 || h.lmdBits > 0)
        damaged("a block has an impossible bit count");
    if (std::size_t{h.literalPayloadSize} + h.lmdPayloadSize != layout.payloadSize)
        damaged("a block's payload sizes disagree");
    for (const std::uint32_t state : h.literalStates)
        if (state >= literalStates) damaged("a block starts from an impossible state");
    if (h.lState >= lStates || h.mState >= mStates || h.dState >= dStates)
        damaged("a block starts from an impossible state");

    // A table that is used must share out exactly all its states; an unused one may be anything
    // that doesn't overflow.
    const auto check = [](const std::uint16_t* frequencies, int symbols, std::uint32_t states, bool used) {
        const std::uint32_t total = fse::sum(frequencies, symbols);
        if (total > states || (used && total != states)) damaged("a block's frequency tables don't add up");
    };
    check(h.literalFrequencies(), literalSymbols, literalStates, h.literalCount > 0);
    check(h.lFrequencies(), lSymbols, lStates, h.matchCount > 0);
    check(h.mFrequencies(), mSymbols, mStates, h.matchCount > 0);
    check(h.dFrequencies(), dSymbols, dStates, h.matchCount > 0);
}

void FseBlockDecoder::decodeLiterals(const FseHeader& h, const std::uint8_t* payload) {
    fse::buildLiteralTable(h.literalFrequencies(), literalStateBits, literalTable.data());
    BackwardBitReader reader;
    if (!reader.start(payload, h.literalPayloadSize, h.literalBits)) damaged("a block's literals are padded wrongly");
    std::uint32_t s0 = h.literalStates[0], s1 = h.literalStates[1], s2 = h.literalStates[2], s3 = h.literalStates[3];
    const fse::LiteralEntry* const table = literalTable.data();
    std::uint8_t* out = literals.data();
    for (std::uint32_t i = 0; i < h.literalCount; i += 4) {
        reader.refill();
        const fse::LiteralEntry e0 = table[s0];
        const fse::LiteralEntry e1 = table[s1];
        const fse::LiteralEntry e2 = table[s2];
        const fse::LiteralEntry e3 = table[s3];
        out[i] = e0.symbol;
        out[i + 1] = e1.symbol;
        out[i + 2] = e2.symbol;
        out[i + 3] = e3.symbol;
        s0 = e0.base + reader.read(e0.bits);
        s1 = e1.base + reader.read(e1.bits);
        s2 = e2.base + reader.read(e2.bits);
        s3 = e3.base + reader.read(e3.bits);
    }
    if (reader.overran()) damaged("a block's literals are truncated");
}

void FseBlockDecoder::decode(const BlockLayout& layout, const std::uint8_t* p, const std::uint8_t* outStart,
                             std::uint8_t* dst) {
    FseHeader h;
    if (layout.magic == magicUnpackedFse)
        readUnpackedHeader(p, h);
    else
        readPackedHeader(p, layout.headerSize, h);
    checkHeader(h, layout);

    const std::uint8_t* const literalPayload = p + layout.headerSize;
    decodeLiterals(h, literalPayload);

    fse::buildValueTable(h.lFrequencies(), lSymbols, lStateBits, lExtraBits.data(), lBase.data(), lTable.data());
    fse::buildValueTable(h.mFrequencies(), mSymbols, mStateBits, mExtraBits.data(), mBase.data(), mTable.data());
    fse::buildValueTable(h.dFrequencies(), dSymbols, dStateBits, dExtraBits.data(), dBase.data(), dTable.data());
    BackwardBitReader reader;
    if (!reader.start(literalPayload + h.literalPayloadSize, h.lmdPayloadSize, h.lmdBits))
        damaged("a block's matches are padded wrongly");

    std::uint32_t lState = h.lState, mState = h.mState, dState = h.dState;
    // The distance carries over between triples of a block, never from the block before.
    std::size_t distance = 0;
    const std::uint8_t* literal = literals.data();
    const std::uint8_t* const literalEnd = literals.data() + h.literalCount;
    std::uint8_t* const blockEnd = dst + layout.rawBytes;
    const auto decodeValue = [&reader](const fse::ValueEntry* table, std::uint32_t& state) {
        const fse::ValueEntry e = table[state];
        const std::uint32_t bits = reader.read(e.totalBits);
        state = e.stateBase + (bits >> e.extraBits);
        return e.valueBase + (bits & ((1u << e.extraBits) - 1));
    };

    for (std::uint32_t t = 0; t < h.matchCount; ++t) {
        reader.refill();
        const std::size_t l = decodeValue(lTable.data(), lState);
        const std::size_t m = decodeValue(mTable.data(), mState);
        const std::size_t d = decodeValue(dTable.data(), dState);
        if (d != 0) distance = d;
        if (l > static_cast<std::size_t>(literalEnd - literal)) damaged("a block uses more literals than it holds");
        if (l + m > static_cast<std::size_t>(blockEnd - dst)) damaged("a block produces more than its size");
        if (distance == 0 || distance > static_cast<std::size_t>(dst - outStart) + l)
            damaged("a match reaches before the start of the data");

        // Literals and far matches are copied 16 bytes at a time, past their end into what the
        // next copy overwrites (or the slack); near matches repeat a pattern and go exactly. The
        // first 16 go unconditionally: most runs are that short, and testing costs more.
        std::memcpy(dst, literal, 16);
        for (std::size_t i = 16; i < l; i += 16)
            std::memcpy(dst + i, literal + i, 16);
        dst += l;
        literal += l;
        if (distance >= 16) {
            const std::uint8_t* from = dst - distance;
            std::memcpy(dst, from, 16);
            for (std::size_t i = 16; i < m; i += 16)
                std::memcpy(dst + i, from + i, 16);
        } else {
            copyMatch(dst, distance, m);
        }
        dst += m;
    }
    if (reader.overran()) damaged("a block's matches are truncated");
    if (dst != blockEnd) damaged("a block produces less than its size");
}

} // namespace

namespace {

// "4 GiB" for a whole number of GiB or MiB, else the bytes: limits are round numbers to a user.
std::string sizeText(std::size_t bytes) {
    for (const auto& [unit, name] :
         {std::pair{std::size_t{1} << 30, " GiB"}, std::pair{std::size_t{1} << 20, " MiB"}}) {
        if (bytes >= unit && bytes % unit == 0) return std::to_string(bytes / unit) + name;
    }
    return std::to_string(bytes) + " bytes";
}

void decompressInto(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& out, std::size_t maxOutputSize) {
    const std::uint8_t* const data = input.data();
    const std::size_t size = input.size();

    std::uint64_t total = 0;
    for (std::size_t at = 0;;) {
        const BlockLayout block = readLayout(data + at, size - at);
        at += block.size();
        total += block.rawBytes;
        if (total > maxOutputSize)
            throw LzfseError("The compressed data is too large: it would decompress to more than " +
                             sizeText(maxOutputSize));
        if (block.magic == magicEnd) {
            if (at != size) damaged("data follows the end of the stream");
            break;
        }
    }

    // Sizes come from headers that a hostile stream can inflate, so the output grows block by
    // block (each checked before it is trusted) unless the total is plausible for the input.
    // The output only ever grows here, so a reused one is not cleared again.
    if (total <= 1024 * std::uint64_t{size} + (std::uint64_t{1} << 20) && out.size() < total + outputSlack)
        out.resize(total + outputSlack);
    std::unique_ptr<FseBlockDecoder> fseDecoder;
    std::size_t produced = 0;
    for (std::size_t at = 0;;) {
        const BlockLayout block = readLayout(data + at, size - at);
        const std::uint8_t* const p = data + at;
        at += block.size();
        if (block.magic == magicEnd) break;

        if (out.size() < produced + block.rawBytes + outputSlack) out.resize(produced + block.rawBytes + outputSlack);
        std::uint8_t* const dst = out.data() + produced;
        switch (block.magic) {
        case magicRaw: std::memcpy(dst, p + rawHeaderSize, block.rawBytes); break;
        case magicLzvn:
            lzvn::decode(p + lzvnHeaderSize, block.payloadSize, out.data(), dst, dst + block.rawBytes);
            break;
        default:
            if (!fseDecoder) fseDecoder = std::make_unique<FseBlockDecoder>();
            fseDecoder->decode(block, p, out.data(), dst);
        }
        produced += block.rawBytes;
    }
    out.resize(produced);
}

} // namespace

void decompress(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& output, std::size_t maxOutputSize) {
    try {
        decompressInto(input, output, maxOutputSize);
    } catch (...) {
        output.clear();
        throw;
    }
}

std::vector<std::uint8_t> decompress(std::span<const std::uint8_t> input, std::size_t maxOutputSize) {
    std::vector<std::uint8_t> output;
    decompressInto(input, output, maxOutputSize);
    return output;
}

} // namespace morvane::lzfse
