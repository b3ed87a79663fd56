#include "MorvaneCore/Shared/Compression.h"

#include "Lzfse/Lzfse.h"
#include "Support/ErrorText.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

// Stored files are read with a limit, so that a small stream that expands to a huge output is
// refused before the output is allocated. The limit is small here, and the data too.
TEST(Compression, DecompressionStopsAtTheCallersLimit) {
    const std::string zeros((std::size_t{1} << 20) + 1, '\0');
    const auto stream = compression::compress(zeros);
    ASSERT_LT(stream.size(), 4096u);
    EXPECT_EQ(compression::decompress(stream, zeros.size()), zeros);
    const std::string tooLarge = "The compressed data is too large: it would decompress to more than ";
    for (const auto& [limit, refusal] : std::initializer_list<std::pair<std::size_t, std::string>>{
             {zeros.size() - 1, tooLarge + "1 MiB"},
             {1000, tooLarge + "1000 bytes"},
             {0, tooLarge + "0 bytes"},
         }) {
        EXPECT_EQ(testing::errorText<lzfse::LzfseError>([&] { compression::decompress(stream, limit); }), refusal);
    }
}

} // namespace
} // namespace morvane
