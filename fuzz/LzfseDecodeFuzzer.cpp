// Feeds arbitrary bytes to the decoder: it must return or throw LzfseError, never crash, overrun
// a buffer or hang. The output cap keeps honest but huge streams within the fuzzer's memory.
#include "Lzfse/Lzfse.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        morvane::lzfse::decompress({data, size}, std::size_t{64} << 20);
    } catch (const morvane::lzfse::LzfseError&) {
    }
    return 0;
}
