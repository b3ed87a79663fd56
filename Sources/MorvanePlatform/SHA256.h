#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace morvane {

// A streaming SHA-256 (OpenSSL): feed bytes in any number of pieces, then take the digest once.
//
// Threads: one object is fed on one thread at a time (or handed on with a lock or a join);
// separate objects, and the static members, work on any threads at once.
class SHA256 {
public:
    using Digest = std::array<std::uint8_t, 32>;

    SHA256();
    ~SHA256();
    SHA256(const SHA256&) = delete;
    SHA256& operator=(const SHA256&) = delete;

    void update(std::string_view bytes);
    // Finishes the hash; the object can't be fed after this.
    Digest finish();

    static Digest of(std::string_view bytes);
    // Lower-case hexadecimal, two digits a byte.
    static std::string hex(const std::uint8_t* bytes, size_t count);
    static std::string hex(const Digest& digest) { return hex(digest.data(), digest.size()); }

private:
    struct Free {
        void operator()(void* context) const;
    };
    std::unique_ptr<void, Free> context_; // EVP_MD_CTX
};

} // namespace morvane
