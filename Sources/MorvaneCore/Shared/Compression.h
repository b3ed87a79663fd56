#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The one compression of the system's stored files: an LZFSE stream, the platform's algorithm
// raw value 0. Restore points, cached backups and event store documents are each one stream.
namespace morvane::compression {

// The most a stored file may hold once decompressed. A stream's headers say how much it holds,
// and a few hundred bytes can claim gigabytes; what claims more than this is refused before any
// of it is allocated. Real calendar databases and documents stay far below it.
inline constexpr std::size_t maxStoredSize = std::size_t{4} << 30;

std::string compress(std::string_view bytes);

// Throws lzfse::LzfseError (a morvane::Error) for a damaged or truncated stream, and for one
// that would decompress to more than `maxSize` bytes: "The compressed data is too large: it
// would decompress to more than 4 GiB".
std::string decompress(std::string_view bytes, std::size_t maxSize = maxStoredSize);

} // namespace morvane::compression
