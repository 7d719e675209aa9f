// Reading in whole alignment units.
#include "imaging/copy/Window.h"

#include "imaging/Error.h"

namespace imaging {

namespace {

/// The address of a buffer, at least: what direct I/O and large pages like.
constexpr std::uint64_t kPage = 4096;

} // namespace

Window::Window(Source const& source)
    : source_(source),
      buffer_(agent::AlignedAllocator<std::uint8_t>(std::max<std::uint64_t>(source.alignment(), kPage))) {
    buffer_.resize(kWindowBytes + 2 * source.alignment()); // a stretch may begin and end inside a unit
}

void Window::read(ByteRange const& range, std::string const& path) {
    std::uint64_t const alignment = source_.alignment();
    start_ = range.begin / alignment * alignment;
    std::uint64_t const end = (range.end + alignment - 1) / alignment * alignment;
    std::size_t const count = source_.read(start_, {buffer_.data(), static_cast<std::size_t>(end - start_)});
    if (start_ + count < range.end) {
        throw VolumeError(Trouble::Io, path + ": ends at byte " + std::to_string(start_ + count) +
                                           ", where it was longer when the reading began");
    }
}

std::span<std::uint8_t const> Window::bytes(ByteRange const& range) const {
    return {buffer_.data() + (range.begin - start_), static_cast<std::size_t>(range.size())};
}

} // namespace imaging
