// SHA-256 of the cryptography library.
#include "imaging/Sha256.h"

#include "imaging/Error.h"

#include <array>
#include <openssl/evp.h>

namespace imaging {

namespace {

void require(bool ok) {
    if (!ok) {
        throw VolumeError(Trouble::Io, "SHA-256: the cryptography library failed");
    }
}

} // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
    require(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
}

void Sha256::add(void const* bytes, std::size_t size) {
    require(EVP_DigestUpdate(context_.get(), bytes, size) == 1);
}

void Sha256::add(std::uint64_t number) {
    std::array<std::uint8_t, 8> bytes{};
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(number);
        number >>= 8;
    }
    add(bytes.data(), bytes.size());
}

std::string Sha256::hexadecimal() {
    std::array<std::uint8_t, kDigits / 2> digest{};
    require(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1);
    std::string text;
    for (std::uint8_t const byte : digest) {
        text += "0123456789abcdef"[byte >> 4U];
        text += "0123456789abcdef"[byte & 0xFU];
    }
    return text;
}

} // namespace imaging
