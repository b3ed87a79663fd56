#pragma once

// Our LZFSE codec: whole-buffer compression and decompression of LZFSE streams (the
// "algorithm raw value 0" of stored restore points, cached backups and event store documents).
//
// Both functions are pure: they keep no state between calls and may run on any number of
// threads at once.

#include "MorvanePlatform/Error.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

namespace morvane::lzfse {

// A stream that can't be decompressed: damaged, truncated, or larger than the caller allows.
// `description()` says so in the user's words, with the technical reason after a colon.
class LzfseError : public Error {
public:
    using Error::Error;
};

// Compresses `input` into one complete stream. Deterministic: the same input always gives the
// same bytes. Inputs under 8 bytes are stored, inputs under 4 KiB use the small LZVN form when
// it saves space, larger ones the full LZFSE form, with stored blocks where data doesn't
// compress. Never fails (short of memory).
std::vector<std::uint8_t> compress(std::span<const std::uint8_t> input);

// Decompresses one complete stream, which must end with its end-of-stream block and nothing
// after it. Throws LzfseError on any damage, or when the output would exceed `maxOutputSize`;
// nothing is returned then. A valid block of a hundred bytes may expand to 23 MB, so callers
// reading streams from outside pass a limit that fits what they expect.
std::vector<std::uint8_t> decompress(std::span<const std::uint8_t> input,
                                     std::size_t maxOutputSize = std::numeric_limits<std::size_t>::max());

// The same, into `output`, whose content is replaced and whose storage is reused: for callers
// that decompress many streams, this saves allocating and clearing the output every time. On
// failure `output` is left empty.
void decompress(std::span<const std::uint8_t> input, std::vector<std::uint8_t>& output,
                std::size_t maxOutputSize = std::numeric_limits<std::size_t>::max());

} // namespace morvane::lzfse
