// SHA-256.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct evp_md_ctx_st; // the cryptography library's own name

namespace imaging {

/// Hashes bytes as they come.
class Sha256 {
public:
    /// Digits of a hash.
    static constexpr std::size_t kDigits = 64;

    /// @throws VolumeError  the cryptography library failed, here and below
    Sha256();

    void add(void const* bytes, std::size_t size);

    /// Adds a number as 64 bits, little-endian.
    void add(std::uint64_t number);

    /// The hash as lower-case digits. Nothing can be added afterwards.
    std::string hexadecimal();

private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> context_;
};

} // namespace imaging
