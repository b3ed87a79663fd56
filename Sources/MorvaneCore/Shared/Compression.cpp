#include "MorvaneCore/Shared/Compression.h"

#include "Lzfse/Lzfse.h"

#include <cstdint>
#include <span>

namespace morvane::compression {
namespace {

std::span<const std::uint8_t> asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string asText(const std::vector<std::uint8_t>& bytes) { return {bytes.begin(), bytes.end()}; }

} // namespace

std::string compress(std::string_view bytes) { return asText(lzfse::compress(asBytes(bytes))); }

std::string decompress(std::string_view bytes, std::size_t maxSize) {
    return asText(lzfse::decompress(asBytes(bytes), maxSize));
}

} // namespace morvane::compression
