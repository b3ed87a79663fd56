#pragma once

// Helpers shared by the codec's tests: the reference vectors, generated inputs, and a reader of
// block headers that checks what decoders require of every block we write.

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace morvane::lzfse::testing {

using Bytes = std::vector<std::uint8_t>;

// The reference encoder's vectors, in ../shared; tests skip when the folder is absent.
std::filesystem::path vectorFolder();
bool haveVectors();
Bytes readBytes(const std::filesystem::path& path);
std::string sha256Hex(std::span<const std::uint8_t> bytes);

// "62 76 78 24" -> bytes; spaces and line breaks are ignored.
Bytes hexBytes(std::string_view hex);
void appendU16(Bytes& out, std::uint32_t value);
void appendU32(Bytes& out, std::uint32_t value);

// Deterministic inputs: noise, text lines in the shape of calendar rows, a repeating pattern.
Bytes randomBytes(std::size_t size, std::uint32_t seed);
Bytes calendarText(std::size_t size);
Bytes periodic(std::size_t size, std::size_t period);

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
std::vector<BlockInfo> blocksOf(std::span<const std::uint8_t> stream);

} // namespace morvane::lzfse::testing
