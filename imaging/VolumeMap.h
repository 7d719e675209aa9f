// Used and free units of a volume, as runs.
#pragma once

#include "imaging/Answerer.h"
#include "imaging/Runs.h"
#include "imaging/Volume.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace imaging {

/// What a walk found.
struct MapTotals {
    std::uint64_t used = 0; ///< units
    std::uint64_t free = 0; ///< units; used and free add up to the volume's units

    /// What does not fit together, a sentence each; empty for a sound volume. A map with warnings is complete and errs
    /// towards used.
    std::vector<std::string> warnings;

    /// The map calls something free that cannot be; nothing in it should be left out.
    bool isDoubtful = false;
};

/// The map of a volume. Where the parser's answer must not be believed, every unit counts as used.
class VolumeMap {
public:
    /// What to do with a volume that its parser refuses.
    enum class Refused { IsError, CountsAsUsed };

    /// @param volume   must outlive the map
    /// @param refused  CountsAsUsed: a volume whose file system was detected and whose parser refuses it gets a map in
    ///     which everything is used, with a warning
    /// @param unit     bytes, at least 1: the unit of a volume in which no file system is understood, all of which is
    ///     used; 0 for 4096, or 512 where the volume is shorter
    /// @throws VolumeError  the parser refuses the volume, or it has less than one unit; the sentence holds the reason
    explicit VolumeMap(Volume& volume, Refused refused = Refused::IsError, std::uint64_t unit = 0);

    Geometry const& geometry() const { return answerer_.geometry; }

    /// Bytes of the volume.
    std::uint64_t volumeSize() const { return volume_.size(); }

    /// Bytes of the volume after its last unit. They belong to no unit, as do those before the first
    /// (geometry().start).
    std::uint64_t bytesPastLastUnit() const;

    /// What a copy must keep although the map may call it free; ranges may overlap.
    /// @throws VolumeError  the volume cannot be read for it
    std::vector<ByteRange> alwaysKept() const;

    /// What the volume says of itself when it was not cleanly unmounted, as one clause.
    /// @throws VolumeError  the volume cannot be read for it
    std::optional<std::string> uncleanReason() const;

    /// Called after each chunk with the units done; what it throws ends the walk.
    using Progress = std::function<void(std::uint64_t units)>;

    /// Walks the whole volume, reading it anew, with one chunk in memory. The runs alternate between used and free and
    /// cover every unit.
    /// @throws VolumeError  the parser failed: a negative code is an error with its reason, never "free"
    MapTotals walk(RunSink const& sink, Progress const& progress = {});

private:
    std::vector<ByteRange> mustBeUsed() const;
    std::uint64_t endOfUnits() const { return geometry().start + geometry().units * geometry().unitSize; }
    std::uint64_t nextChunk(std::uint64_t unit, std::vector<char>& chunk);
    /// False when the map ends before the units do.
    bool walkParser(RunBuilder& runs, MapTotals& totals, Progress const& progress);
    void checkSize(MapTotals& totals) const;

    Volume& volume_;
    Answerer answerer_;
};

} // namespace imaging
