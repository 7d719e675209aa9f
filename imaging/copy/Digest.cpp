// Hashing run by run.
#include "imaging/copy/Digest.h"

#include "imaging/ByteRange.h"
#include "imaging/Error.h"
#include "imaging/copy/Window.h"

#include <algorithm>
#include <array>
#include <memory>
#include <openssl/evp.h>
#include <string_view>
#include <system_error>

namespace imaging {

namespace {

constexpr std::string_view kName = "fsparser digest 1\n";
constexpr std::size_t kZeroBytes = std::size_t{64} * 1024;

class Sha256 {
public:
    Sha256() : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
        require(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
    }

    void add(void const* bytes, std::size_t size) { require(EVP_DigestUpdate(context_.get(), bytes, size) == 1); }

    void add(std::uint64_t number) {
        std::array<std::uint8_t, 8> bytes{};
        for (std::uint8_t& byte : bytes) {
            byte = static_cast<std::uint8_t>(number);
            number >>= 8;
        }
        add(bytes.data(), bytes.size());
    }

    std::string hexadecimal() {
        std::array<std::uint8_t, 32> digest{};
        require(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1);
        std::string text;
        for (std::uint8_t const byte : digest) {
            text += "0123456789abcdef"[byte >> 4U];
            text += "0123456789abcdef"[byte & 0xFU];
        }
        return text;
    }

private:
    static void require(bool ok) {
        if (!ok) {
            throw VolumeError(Trouble::Io, "SHA-256: the cryptography library failed");
        }
    }

    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
};

class Hasher {
public:
    Hasher(Source const& source, std::string const& path) : source_(source), path_(path), window_(source) {}

    void addContent(ByteRange const& range) {
        for (std::uint64_t begin = range.begin; begin < range.end;) {
            ByteRange part{begin, std::min(range.end, begin + kWindowBytes)};
            Source::Stretch const stretch = source_.stretchAt(begin);
            if (stretch.isHole) {
                part.end = std::min(range.end, stretch.end);
                addZeros(part.size());
            } else {
                addRead(part);
            }
            begin = part.end;
        }
    }

    Sha256& hash() { return hash_; }

private:
    void addZeros(std::uint64_t count) {
        static std::array<std::uint8_t, kZeroBytes> const zeros{};
        for (; count != 0; count -= std::min<std::uint64_t>(count, kZeroBytes)) {
            hash_.add(zeros.data(), static_cast<std::size_t>(std::min<std::uint64_t>(count, kZeroBytes)));
        }
    }

    void addRead(ByteRange const& part) {
        try {
            window_.read(part, path_);
        } catch (std::system_error const& error) {
            throw VolumeError(Trouble::Io, path_ + ": cannot be read between byte " + std::to_string(part.begin) +
                                               " and byte " + std::to_string(part.end) + ": " + error.code().message());
        }
        hash_.add(window_.bytes(part).data(), part.size());
    }

    Source const& source_;
    std::string const& path_;
    Window window_;
    Sha256 hash_;
};

} // namespace

Digest digestVolume(VolumeMap& map, Source const& source, std::string const& path,
                    VolumeMap::Progress const& progress) {
    Geometry const& geometry = map.geometry();
    Hasher hasher(source, path);
    hasher.hash().add(kName.data(), kName.size());
    for (std::uint64_t const number : {geometry.unitSize, geometry.units, geometry.start}) {
        hasher.hash().add(number);
    }
    std::uint64_t const end = std::min(map.volumeSize(), geometry.start + geometry.bytes);
    auto const add = [&](Run const& run) {
        if (!run.used) {
            return;
        }
        hasher.hash().add(run.first);
        hasher.hash().add(run.count);
        std::uint64_t const first = geometry.start + run.first * geometry.unitSize;
        hasher.addContent({first, std::min(end, first + run.count * geometry.unitSize)});
    };
    MapTotals totals = map.walk(add, progress);
    return {hasher.hash().hexadecimal(), std::move(totals)};
}

} // namespace imaging
