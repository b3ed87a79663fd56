#pragma once

#include <string>
#include <string_view>

// The one compression of the system's stored files: an LZFSE stream, the platform's algorithm
// raw value 0. Restore points, cached backups and event store documents are each one stream.
namespace morvane::compression {

std::string compress(std::string_view bytes);

// Throws lzfse::LzfseError (a morvane::Error) for a damaged or truncated stream.
std::string decompress(std::string_view bytes);

} // namespace morvane::compression
