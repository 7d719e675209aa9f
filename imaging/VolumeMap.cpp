// Walking a parser's bitmap, and checking that it covers the volume.
#include "imaging/VolumeMap.h"

#include "agent/core/fs/EXTParser.h"
#include "agent/core/fs/UnrecognizedParser.h"
#include "imaging/Detection.h"
#include "imaging/Error.h"
#include "imaging/ext/ExtGeometry.h"

#include <algorithm>

namespace imaging {

using namespace agent::core::fs;

namespace {

Geometry readGeometry(Volume& volume) {
    switch (volume.fileSystem()) {
    case kExt:
        return ext::readGeometry(volume);
    case kUnrecognized:
        throw VolumeError(Trouble::NotUnderstood, unrecognizedSentence(volume.path()));
    default:
        throw VolumeError(Trouble::NotUnderstood, volume.path() + ": holds " + fileSystemName(volume.fileSystem()) +
                                                      ", whose map this version does not read");
    }
}

std::unique_ptr<IBlockBitmapChunkProvider> makeParser(Volume& volume, Geometry const& geometry) {
    if (geometry.notBelieved) {
        return std::make_unique<UnrecognizedParser>(geometry.units);
    }
    try {
        return std::make_unique<EXTParser>(volume.logger(), static_cast<unsigned>(volume.alignment()), volume.reader());
    } catch (std::runtime_error const& error) {
        throw VolumeError(Trouble::Io, volume.path() + ": " + volume.logger().takeReason(error.what()));
    }
}

} // namespace

VolumeMap::VolumeMap(Volume& volume) : volume_(volume), geometry_(readGeometry(volume)) {
    if (volume_.size() < geometry_.units * geometry_.unitSize) {
        volume_.reader().forbidTail(); // the last unit of a truncated volume may cut through a bitmap
    }
    parser_ = makeParser(volume_, geometry_);
}

std::uint64_t VolumeMap::bytesPastLastUnit() const {
    std::uint64_t const covered = geometry_.units * geometry_.unitSize;
    return volume_.size() > covered ? volume_.size() - covered : 0;
}

MapTotals VolumeMap::walk(RunSink const& sink, Progress const& progress) {
    MapTotals totals;
    RunBuilder runs(sink);
    if (geometry_.notBelieved) {
        totals.warnings.push_back(volume_.path() + ": " + *geometry_.notBelieved + "; every unit counts as used");
    }
    checkSize(totals);
    walkParser(runs, totals, progress);
    runs.finish();
    totals.used = runs.usedUnits();
    totals.free = runs.units() - runs.usedUnits();
    return totals;
}

void VolumeMap::checkSize(MapTotals& totals) const {
    std::uint64_t const covered = geometry_.units * geometry_.unitSize;
    if (volume_.size() < covered) {
        totals.warnings.push_back(volume_.path() + ": ends at byte " + std::to_string(volume_.size()) + ", " +
                                  std::to_string(covered - volume_.size()) + " bytes before the end of its " +
                                  fileSystemName(volume_.fileSystem()) + " file system");
    }
}

void VolumeMap::walkParser(RunBuilder& runs, MapTotals& totals, Progress const& progress) {
    BitOrder const order =
        parser_->isMostSignificantBitFirst() ? BitOrder::MostSignificantFirst : BitOrder::LeastSignificantFirst;
    std::uint64_t const units = geometry_.units;
    std::vector<char> chunk(std::clamp<std::uint64_t>((units + 7) / 8, 1, geometry_.chunkBytes));
    while (runs.units() < units) {
        long const count = parser_->getChunk(runs.units(), chunk.data(), chunk.size());
        if (count < 0) {
            throw VolumeError(Trouble::Io, volume_.path() + ": the map cannot be read from unit " +
                                               std::to_string(runs.units()) +
                                               " on: " + volume_.logger().takeReason("code " + std::to_string(count)));
        }
        if (count == 0) {
            totals.warnings.push_back(volume_.path() + ": the map ends at unit " + std::to_string(runs.units()) +
                                      " of " + std::to_string(units) + "; the rest counts as used");
            runs.addRun(units - runs.units(), true);
            return;
        }
        auto const known = std::min(static_cast<std::uint64_t>(count), units - runs.units());
        runs.addBits({reinterpret_cast<std::uint8_t const*>(chunk.data()), chunk.size()}, known, order);
        if (progress) {
            progress(runs.units());
        }
    }
}

} // namespace imaging
