#include "MorvanePlatform/SHA256.h"

#include <new>
#include <openssl/evp.h>
#include <stdexcept>

namespace morvane {
namespace {

EVP_MD_CTX* context(void* pointer) { return static_cast<EVP_MD_CTX*>(pointer); }

} // namespace

void SHA256::Free::operator()(void* pointer) const { EVP_MD_CTX_free(context(pointer)); }

SHA256::SHA256() : context_(EVP_MD_CTX_new()) {
    // Only allocation can fail here: SHA-256 is always available in OpenSSL's default provider.
    if (!context_ || EVP_DigestInit_ex(context(context_.get()), EVP_sha256(), nullptr) != 1) throw std::bad_alloc();
}

SHA256::~SHA256() = default;

void SHA256::update(std::string_view bytes) { EVP_DigestUpdate(context(context_.get()), bytes.data(), bytes.size()); }

SHA256::Digest SHA256::finish() {
    Digest digest{};
    unsigned int length = 0;
    EVP_DigestFinal_ex(context(context_.get()), digest.data(), &length);
    return digest;
}

SHA256::Digest SHA256::of(std::string_view bytes) {
    SHA256 hash;
    hash.update(bytes);
    return hash.finish();
}

std::string SHA256::hex(const std::uint8_t* bytes, size_t count) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(count * 2);
    for (size_t i = 0; i < count; ++i) {
        text.push_back(digits[bytes[i] >> 4]);
        text.push_back(digits[bytes[i] & 0x0F]);
    }
    return text;
}

} // namespace morvane
