#pragma once

// LZVN, the byte-oriented LZ77 code of `bvxn` blocks, used for small inputs.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace morvane::lzfse::lzvn {

// The opcode stream, end opcode included, for `size` bytes at `src`. Matches stay inside them.
std::vector<std::uint8_t> encode(const std::uint8_t* src, std::size_t size);

// Decodes one opcode stream into [out, outEnd), which it must fill exactly, ending with the end
// opcode at the very end of the payload. Matches may reach back to `outStart`, the start of the
// stream's output. Throws LzfseError on any damage.
void decode(const std::uint8_t* payload, std::size_t payloadSize, const std::uint8_t* outStart, std::uint8_t* out,
            std::uint8_t* outEnd);

} // namespace morvane::lzfse::lzvn
