#include "Lzfse/LzfseTestSupport.h"

#include "MorvanePlatform/SHA256.h"

#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <random>

namespace morvane::lzfse::testing {

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

Bytes hexBytes(std::string_view hex) {
    Bytes out;
    int high = -1;
    for (const char c : hex) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) continue;
        const int nibble = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : (std::tolower(c) - 'a' + 10);
        if (high < 0) {
            high = nibble;
        } else {
            out.push_back(static_cast<std::uint8_t>(high << 4 | nibble));
            high = -1;
        }
    }
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

} // namespace morvane::lzfse::testing
