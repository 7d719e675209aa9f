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
constexpr std::uint64_t kFallbackChunk = std::uint64_t{1} << 20;

/// What is left past the last whole unit belongs to none.
Geometry fallbackGeometry(Volume const& volume, std::uint64_t unit) {
    Geometry geometry;
    geometry.unitSize = unit != 0 ? unit : volume.size() < kFallbackUnit ? kSectorBytes : kFallbackUnit;
    geometry.units = volume.size() / geometry.unitSize;
    geometry.bytes = geometry.units * geometry.unitSize;
    geometry.chunkBytes = kFallbackChunk;
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
    return allUsed(fallbackGeometry(volume, unit));
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
        return allUsed(std::move(geometry));
    }
}

} // namespace

VolumeMap::VolumeMap(Volume& volume, Refused refused, std::uint64_t unit)
    : volume_(volume), answerer_(openOrAllUsed(volume, refused, unit)) {}

std::uint64_t VolumeMap::bytesPastLastUnit() const {
    return volume_.size() > endOfUnits() ? volume_.size() - endOfUnits() : 0;
}

MapTotals VolumeMap::walk(RunSink const& sink, Progress const& progress) {
    MapTotals totals;
    RunBuilder runs(sink);
    if (geometry().notBelieved) {
        totals.warnings.push_back(volume_.path() + ": " + *geometry().notBelieved + "; every unit counts as used");
    }
    checkSize(totals);
    walkParser(runs, totals, progress);
    runs.finish();
    totals.used = runs.usedUnits();
    totals.free = runs.units() - runs.usedUnits();
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
        throw VolumeError(Trouble::Io, where + volume_.logger().takeReason("code " + std::to_string(count)));
    } catch (VolumeError const&) {
        throw;
    } catch (std::exception const& error) {
        throw VolumeError(Trouble::Io, where + error.what());
    }
}

void VolumeMap::walkParser(RunBuilder& runs, MapTotals& totals, Progress const& progress) {
    BitOrder const order = answerer_.provider->isMostSignificantBitFirst() ? BitOrder::MostSignificantFirst
                                                                           : BitOrder::LeastSignificantFirst;
    std::uint64_t const units = geometry().units;
    std::uint64_t const wholeMap = (units + 7) / 8;
    std::vector<char> chunk(geometry().isOneRequest ? wholeMap : std::min(wholeMap, geometry().chunkBytes));
    while (runs.units() < units) {
        bool const mayAsk = runs.units() == 0 || !geometry().isOneRequest;
        std::uint64_t const count = mayAsk ? nextChunk(runs.units(), chunk) : 0;
        if (count == 0) {
            totals.warnings.push_back(volume_.path() + ": the map ends at unit " + std::to_string(runs.units()) +
                                      " of " + std::to_string(units) + "; the rest counts as used");
            runs.addRun(units - runs.units(), true);
            return;
        }
        std::uint64_t const known = std::min(count, units - runs.units());
        runs.addBits({reinterpret_cast<std::uint8_t const*>(chunk.data()), chunk.size()}, known, order);
        if (progress) {
            progress(runs.units());
        }
    }
}

} // namespace imaging
