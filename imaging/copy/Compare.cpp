// Reading both and looking for the first difference.
#include "imaging/copy/Compare.h"

#include "imaging/Error.h"
#include "imaging/copy/TakenRanges.h"
#include "imaging/copy/Window.h"

#include <algorithm>
#include <cstring>
#include <system_error>

namespace imaging {

namespace {

/// Ends the walk once a difference is found.
struct Found {
    Difference difference;
};

class Comparer {
public:
    Comparer(Compared const& volume, Compared const& copy, Geometry const& geometry,
             VolumeMap::Progress const& progress)
        : volume_(volume), copy_(copy), geometry_(geometry), progress_(progress), expected_(volume.source),
          found_(copy.source) {}

    void compare(ByteRange const& range) {
        for (std::uint64_t begin = range.begin; begin < range.end;) {
            std::uint64_t const end = std::min(range.end, begin + kWindowBytes);
            if (!areBothHoles({begin, end})) {
                comparePart({begin, end});
            }
            compared_ += end - begin;
            begin = end;
            if (progress_) {
                progress_(0); // a chunk of the map may stand for hours of reading
            }
        }
    }

    std::uint64_t compared() const { return compared_; }

private:
    bool areBothHoles(ByteRange const& part) const {
        if (part.end > copy_.size) {
            return false;
        }
        Source::Stretch const here = volume_.source.stretchAt(part.begin);
        if (!here.isHole || here.end < part.end) {
            return false;
        }
        Source::Stretch const there = copy_.source.stretchAt(part.begin);
        return there.isHole && there.end >= part.end;
    }

    static void read(Window& window, ByteRange const& part, std::string const& path) {
        try {
            window.read(part, path);
        } catch (std::system_error const& error) {
            throw VolumeError(Trouble::Io, path + ": cannot be read between byte " + std::to_string(part.begin) +
                                               " and byte " + std::to_string(part.end) + ": " + error.code().message());
        }
    }

    void comparePart(ByteRange const& part) {
        read(expected_, part, volume_.path);
        std::span<std::uint8_t const> const expected = expected_.bytes(part);
        ByteRange const there{part.begin, std::max(part.begin, std::min(part.end, copy_.size))};
        if (!there.isEmpty()) {
            read(found_, there, copy_.path);
            std::span<std::uint8_t const> const found = found_.bytes(there);
            if (std::memcmp(expected.data(), found.data(), found.size()) != 0) {
                auto const at = std::mismatch(found.begin(), found.end(), expected.begin());
                auto const index = static_cast<std::uint64_t>(at.first - found.begin());
                throw Found{describe(part.begin + index, *at.second, *at.first)};
            }
        }
        if (there.end < part.end) {
            throw Found{describe(there.end, expected[there.end - part.begin], std::nullopt)};
        }
    }

    Difference describe(std::uint64_t offset, std::uint8_t expected, std::optional<std::uint8_t> found) const {
        Difference difference{offset, std::nullopt, expected, found};
        if (offset >= geometry_.start && offset < geometry_.start + geometry_.units * geometry_.unitSize) {
            difference.unit = (offset - geometry_.start) / geometry_.unitSize;
        }
        return difference;
    }

    Compared const& volume_;
    Compared const& copy_;
    Geometry const& geometry_;
    VolumeMap::Progress const& progress_;
    Window expected_;
    Window found_;
    std::uint64_t compared_ = 0;
};

} // namespace

Comparison compareVolumes(CopyPlan& plan, Compared const& volume, Compared const& copy,
                          VolumeMap::Progress const& progress) {
    Comparison comparison;
    Comparer comparer(volume, copy, plan.geometry(), progress);
    TakenRanges ranges(plan, volume.path, progress, {"compared", "nothing is said of the copy", false});
    comparison.totals = ranges.totals();
    comparison.warnings = ranges.warnings();
    try {
        ranges.walk([&comparer](ByteRange const& range) { comparer.compare(range); });
    } catch (Found const& found) {
        comparison.difference = found.difference;
    }
    comparison.compared = comparer.compared();
    return comparison;
}

} // namespace imaging
