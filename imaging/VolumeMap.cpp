// Walking a parser's bitmap, and checking that it covers the volume.
#include "imaging/VolumeMap.h"

#include "imaging/Detection.h"
#include "imaging/Error.h"
#include "imaging/ext/ExtGeometry.h"
#include "imaging/fat/FatGeometry.h"
#include "imaging/hfs/HfsGeometry.h"
#include "imaging/ntfs/NtfsGeometry.h"
#include "imaging/xfs/XfsGeometry.h"

#include <algorithm>

namespace imaging {

using namespace agent::core::fs;

namespace {

/// The unit of a volume whose own is not known.
constexpr std::uint64_t kFallbackUnit = 4096;

/// What is left past the last whole unit belongs to none.
Geometry fallbackGeometry(Volume const& volume, std::uint64_t unit) {
    Geometry geometry;
    geometry.unitSize = unit != 0 ? unit : volume.size() < kFallbackUnit ? kSectorBytes : kFallbackUnit;
    geometry.units = volume.size() / geometry.unitSize;
    geometry.bytes = geometry.units * geometry.unitSize;
    geometry.chunkBytes = kAllUsedChunk;
    if (geometry.units == 0) {
        throw VolumeError(Trouble::NotUnderstood, volume.path() + ": has " + std::to_string(volume.size()) +
                                                      " bytes, less than one unit of " + std::to_string(unit));
    }
    return geometry;
}

Answerer openFileSystem(Volume& volume, std::uint64_t unit) {
    switch (volume.fileSystem()) {
    case kNtfs:
        return ntfs::open(volume);
    case kFat32:
        return fat::open(volume);
    case kExt:
        return ext::open(volume);
    case kHfsPlus:
        return hfs::open(volume);
    case kXfs:
        return xfs::open(volume);
    case kUnrecognized:
        break;
    }
    return allUsed(fallbackGeometry(volume, unit), volume.size());
}

Answerer openOrAllUsed(Volume& volume, VolumeMap::Refused refused, std::uint64_t unit) {
    try {
        return openFileSystem(volume, unit);
    } catch (VolumeError const& error) {
        if (refused == VolumeMap::Refused::IsError || volume.fileSystem() == kUnrecognized) {
            throw;
        }
        Geometry geometry = fallbackGeometry(volume, unit);
        geometry.notBelieved = std::string("the volume is refused (") + error.what() + ")";
        return allUsed(std::move(geometry), volume.size());
    }
}

/// Hands runs on, and counts as used what no sound map calls free.
class Corrector {
public:
    /// @param ranges  in order
    Corrector(Geometry const& geometry, std::vector<ByteRange> const& ranges, RunBuilder& target) : target_(target) {
        for (ByteRange const& range : ranges) {
            std::uint64_t const first = (range.begin - geometry.start) / geometry.unitSize;
            std::uint64_t const last = (range.end - geometry.start + geometry.unitSize - 1) / geometry.unitSize;
            units_.push_back({first, std::min(last, geometry.units)});
        }
    }

    void add(Run const& run) {
        std::uint64_t const end = run.first + run.count;
        for (std::uint64_t unit = run.first; unit < end;) {
            while (next_ < units_.size() && units_[next_].end <= unit) {
                ++next_;
            }
            bool const isWithin = next_ < units_.size() && units_[next_].begin <= unit;
            std::uint64_t const border = next_ == units_.size() ? end
                                         : isWithin             ? units_[next_].end
                                                                : units_[next_].begin;
            std::uint64_t const stop = std::min(end, border);
            if (isWithin && !run.used && !firstFault_) {
                firstFault_ = unit;
            }
            target_.addRun(stop - unit, run.used || isWithin);
            unit = stop;
        }
    }

    /// The first unit that was free and may not be.
    std::optional<std::uint64_t> firstFault() const { return firstFault_; }

private:
    std::vector<ByteRange> units_; // in units
    RunBuilder& target_;
    std::size_t next_ = 0;
    std::optional<std::uint64_t> firstFault_;
};

/// Counts the free units of each stretch and compares them with the volume's own count.
class Audit {
public:
    explicit Audit(FreeCounts const& counts) : first_(counts.first), counts_(counts.stretches) {}

    void add(Run const& run) {
        std::uint64_t const before = run.first < first_ ? std::min(run.count, first_ - run.first) : 0;
        for (std::uint64_t left = run.count - before; left != 0 && stretch_ < counts_.size();) {
            std::uint64_t const piece = std::min(left, counts_[stretch_].units - done_);
            free_ += run.used ? 0 : piece;
            done_ += piece;
            left -= piece;
            if (done_ == counts_[stretch_].units) {
                finishStretch();
            }
        }
    }

    /// The first stretch that differs.
    struct Fault {
        std::size_t stretch;
        std::uint64_t inMap;
        std::uint64_t byVolume;
    };
    std::optional<Fault> const& fault() const { return fault_; }

private:
    void finishStretch() {
        if (free_ != counts_[stretch_].free && !fault_) {
            fault_ = Fault{stretch_, free_, counts_[stretch_].free};
        }
        ++stretch_;
        done_ = 0;
        free_ = 0;
    }

    std::uint64_t first_;
    std::vector<FreeCount> const& counts_;
    std::size_t stretch_ = 0;
    std::uint64_t done_ = 0; ///< units of the stretch
    std::uint64_t free_ = 0;
    std::optional<Fault> fault_;
};

} // namespace

VolumeMap::VolumeMap(Volume& volume, Refused refused, std::uint64_t unit)
    : volume_(volume), answerer_(openOrAllUsed(volume, refused, unit)) {}

std::uint64_t VolumeMap::bytesPastLastUnit() const {
    return volume_.size() > endOfUnits() ? volume_.size() - endOfUnits() : 0;
}

std::vector<ByteRange> VolumeMap::alwaysKept() const {
    return answerer_.alwaysKept ? answerer_.alwaysKept() : std::vector<ByteRange>();
}

std::vector<ByteRange> VolumeMap::mustBeUsed() const {
    return answerer_.mustBeUsed ? normalized(answerer_.mustBeUsed(), volume_.size()) : std::vector<ByteRange>();
}

std::optional<std::string> VolumeMap::uncleanReason() const {
    return answerer_.uncleanReason ? answerer_.uncleanReason() : std::nullopt;
}

MapTotals VolumeMap::walk(RunSink const& sink, Progress const& progress) {
    volume_.forgetReads(); // a second walk tells whether the volume changed
    MapTotals totals;
    RunBuilder corrected(sink);
    Corrector quiet(geometry(), normalized(answerer_.countedAsUsed, volume_.size()), corrected);
    RunBuilder believed([&quiet](Run const& run) { quiet.add(run); });
    Corrector corrector(geometry(), mustBeUsed(), believed);
    Audit audit(answerer_.freeCounts);
    RunBuilder runs([&corrector, &audit](Run const& run) {
        corrector.add(run);
        audit.add(run);
    });
    if (geometry().notBelieved) {
        totals.warnings.push_back(volume_.path() + ": " + *geometry().notBelieved + "; every unit counts as used");
    }
    checkSize(totals);
    bool const isWhole = walkParser(runs, totals, progress);
    runs.finish();
    believed.finish();
    corrected.finish();
    totals.used = corrected.usedUnits();
    totals.free = corrected.units() - corrected.usedUnits();
    if (corrector.firstFault()) {
        totals.isDoubtful = true;
        totals.warnings.push_back(volume_.path() + ": the map calls unit " + std::to_string(*corrector.firstFault()) +
                                  " free, which holds the file system's own structures; those count as used, and the "
                                  "rest of the map is not to be trusted");
    }
    if (isWhole && audit.fault()) {
        totals.isDoubtful = true;
        bool const isGroup = answerer_.freeCounts.areOfGroups;
        totals.warnings.push_back(volume_.path() + ": the map has " + std::to_string(audit.fault()->inMap) +
                                  " free units" +
                                  (isGroup ? " in group " + std::to_string(audit.fault()->stretch) : "") +
                                  ", and the " + (isGroup ? "group" : "volume") + "'s own header counts " +
                                  std::to_string(audit.fault()->byVolume) + ": the map is not to be trusted");
    }
    return totals;
}

void VolumeMap::checkSize(MapTotals& totals) const {
    std::uint64_t const end = geometry().start + geometry().bytes;
    if (volume_.size() < end) {
        totals.warnings.push_back(volume_.path() + ": ends at byte " + std::to_string(volume_.size()) + ", " +
                                  std::to_string(end - volume_.size()) + " bytes before the end of its " +
                                  fileSystemName(volume_.fileSystem()) + " file system");
    }
}

std::uint64_t VolumeMap::nextChunk(std::uint64_t unit, std::vector<char>& chunk) {
    std::string const where = volume_.path() + ": the map cannot be read from unit " + std::to_string(unit) + " on: ";
    try {
        long const count = answerer_.provider->getChunk(unit, chunk.data(), chunk.size());
        if (count >= 0) {
            return static_cast<std::uint64_t>(count);
        }
        throw VolumeError(volume_.readTrouble(), where + volume_.logger().takeReason("code " + std::to_string(count)));
    } catch (VolumeError const&) {
        throw;
    } catch (std::exception const& error) {
        throw VolumeError(volume_.readTrouble(), where + error.what());
    }
}

bool VolumeMap::walkParser(RunBuilder& runs, MapTotals& totals, Progress const& progress) {
    BitOrder const order = answerer_.provider->isMostSignificantBitFirst() ? BitOrder::MostSignificantFirst
                                                                           : BitOrder::LeastSignificantFirst;
    std::uint64_t const units = geometry().units;
    if (geometry().notBelieved) {
        runs.addRun(units, true);
        return true;
    }
    std::uint64_t const wholeMap = (units + 7) / 8;
    std::vector<char> chunk(std::min(wholeMap, geometry().chunkBytes));
    while (runs.units() < units) {
        std::uint64_t const count = nextChunk(runs.units(), chunk);
        if (count == 0) {
            totals.warnings.push_back(volume_.path() + ": the map ends at unit " + std::to_string(runs.units()) +
                                      " of " + std::to_string(units) + "; the rest counts as used");
            runs.addRun(units - runs.units(), true);
            return false;
        }
        std::uint64_t const known = std::min(count, units - runs.units());
        runs.addBits({reinterpret_cast<std::uint8_t const*>(chunk.data()), chunk.size()}, known, order);
        if (progress) {
            progress(runs.units());
        }
    }
    return true;
}

} // namespace imaging
