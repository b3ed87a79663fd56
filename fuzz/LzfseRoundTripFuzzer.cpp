// Compresses arbitrary bytes and decompresses the stream: the result must be the input again.
// Inputs are cut to 64 KiB, enough for two blocks of noise, so that the fuzzer keeps its pace.
#include "Lzfse/Lzfse.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    size = std::min<std::size_t>(size, 64 << 10);
    const std::vector<std::uint8_t> stream = morvane::lzfse::compress({data, size});
    const std::vector<std::uint8_t> back = morvane::lzfse::decompress(stream);
    if (back.size() != size || (size > 0 && std::memcmp(back.data(), data, size) != 0)) {
        std::fprintf(stderr, "round trip changed %zu bytes into %zu\n", size, back.size());
        __builtin_trap();
    }
    return 0;
}
