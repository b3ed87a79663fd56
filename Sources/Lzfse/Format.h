#pragma once

// Constants of the stream format shared by the encoder and the decoder: block magics, the
// per-block limits, the FSE table sizes and the fixed L/M/D value alphabets.

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace morvane::lzfse::format {

constexpr std::uint32_t magicEnd = 0x24787662;         // "bvx$"
constexpr std::uint32_t magicRaw = 0x2D787662;         // "bvx-"
constexpr std::uint32_t magicLzvn = 0x6E787662;        // "bvxn"
constexpr std::uint32_t magicUnpackedFse = 0x31787662; // "bvx1"
constexpr std::uint32_t magicPackedFse = 0x32787662;   // "bvx2"

constexpr std::size_t rawHeaderSize = 8;
constexpr std::size_t lzvnHeaderSize = 12;
constexpr std::size_t unpackedHeaderSize = 772;
constexpr std::size_t packedFixedHeaderSize = 32;
constexpr std::size_t packedMaxHeaderSize = packedFixedHeaderSize + 630;

// Decoders reject blocks beyond these, so no block we write may exceed them.
constexpr std::uint32_t maxLiteralsPerBlock = 40000;
constexpr std::uint32_t maxMatchesPerBlock = 10000;
constexpr std::uint32_t maxL = 315;
constexpr std::uint32_t maxM = 2359;
constexpr std::uint32_t maxD = 262139;
constexpr std::uint32_t maxLzvnD = 65535;

constexpr int literalStateBits = 10;
constexpr int lStateBits = 6;
constexpr int mStateBits = 6;
constexpr int dStateBits = 8;
constexpr int literalStates = 1 << literalStateBits;
constexpr int lStates = 1 << lStateBits;
constexpr int mStates = 1 << mStateBits;
constexpr int dStates = 1 << dStateBits;

constexpr int literalSymbols = 256;
constexpr int lSymbols = 20;
constexpr int mSymbols = 20;
constexpr int dSymbols = 64;
constexpr int frequencyCount = lSymbols + mSymbols + dSymbols + literalSymbols;

constexpr std::array<std::uint8_t, lSymbols> lExtraBits{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 3, 5, 8};
constexpr std::array<std::uint32_t, lSymbols> lBase{0,  1,  2,  3,  4,  5,  6,  7,  8,  9,
                                                    10, 11, 12, 13, 14, 15, 16, 20, 28, 60};
constexpr std::array<std::uint8_t, mSymbols> mExtraBits{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 5, 8, 11};
constexpr std::array<std::uint32_t, mSymbols> mBase{0,  1,  2,  3,  4,  5,  6,  7,  8,  9,
                                                    10, 11, 12, 13, 14, 15, 16, 24, 56, 312};

constexpr std::array<std::uint8_t, dSymbols> dExtraBits = [] {
    std::array<std::uint8_t, dSymbols> bits{};
    for (int s = 0; s < dSymbols; ++s)
        bits[s] = static_cast<std::uint8_t>(s / 4);
    return bits;
}();
constexpr std::array<std::uint32_t, dSymbols> dBase = [] {
    std::array<std::uint32_t, dSymbols> base{};
    for (int s = 1; s < dSymbols; ++s)
        base[s] = base[s - 1] + (1u << dExtraBits[s - 1]);
    return base;
}();
static_assert(dBase[63] + (1u << dExtraBits[63]) - 1 == maxD);

inline std::uint32_t load32(const std::uint8_t* p) {
    std::uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
inline std::uint64_t load64(const std::uint8_t* p) {
    std::uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
inline void store32(std::uint8_t* p, std::uint32_t v) { std::memcpy(p, &v, sizeof v); }
inline void store64(std::uint8_t* p, std::uint64_t v) { std::memcpy(p, &v, sizeof v); }

// Copies `length` bytes from `distance` bytes back, exactly: nothing past dst + length is written.
// A distance shorter than the length repeats the pattern, as the format wants.
inline void copyMatch(std::uint8_t* dst, std::size_t distance, std::size_t length) {
    const std::uint8_t* src = dst - distance;
    if (distance >= length) {
        std::memcpy(dst, src, length);
        return;
    }
    // Each pass copies everything produced so far, so the copied span doubles.
    while (length > 0) {
        const std::size_t n = std::min<std::size_t>(length, static_cast<std::size_t>(dst - src));
        std::memcpy(dst, src, n);
        dst += n;
        length -= n;
    }
}

static_assert(std::endian::native == std::endian::little, "the codec reads and writes words in host order");

} // namespace morvane::lzfse::format

namespace morvane::lzfse {

// Throws the LzfseError for a damaged stream, with `reason` after the user's text.
[[noreturn]] void damaged(const char* reason);

} // namespace morvane::lzfse
