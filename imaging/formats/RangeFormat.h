// Lists of what a copy takes along, as other programs read them.
#pragma once

#include "imaging/ByteRange.h"
#include "imaging/copy/Source.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace imaging {

/// What a list is made from.
struct FormatInput {
    using RangeSink = std::function<void(ByteRange const&)>;

    std::string path;     ///< of the volume; begins the sentences of errors
    std::uint64_t size;   ///< bytes of the volume
    Source const& source; ///< its content, for the formats that hold hashes of it

    /// Walks what must be taken along: not empty, in order, apart from each other, inside the volume. It may be called
    /// more than once, and gives the same each time.
    std::function<void(RangeSink const&)> walk;

    /// Called after each read of the content, if set; what it throws ends the writing.
    std::function<void()> pause = {};
};

/// Takes text piece by piece; what it throws ends the writing.
using TextSink = std::function<void(std::string_view)>;

/// A way to write the ranges down. One without state serves any number of volumes.
class RangeFormat {
public:
    RangeFormat() = default;
    RangeFormat(RangeFormat const&) = delete;
    RangeFormat& operator=(RangeFormat const&) = delete;
    virtual ~RangeFormat() = default;

    /// Writes the whole list. It is never held in memory: a volume may have more ranges than memory holds.
    /// @throws VolumeError  the volume cannot be read
    virtual void write(FormatInput const& input, TextSink const& sink) const = 0;
};

/// The format of a name: "bmap", "ddrescue", "extentlist" or "fallocate"; none for any other name.
std::unique_ptr<RangeFormat> makeRangeFormat(std::string_view name);

/// Calls a function with each stretch of the volume in turn, from its first byte to its last: taken along, or not.
void walkWhole(FormatInput const& input, std::function<void(ByteRange const&, bool isTaken)> const& sink);

} // namespace imaging
