// Merging the map with what must be kept.
#include "imaging/copy/CopyPlan.h"

#include "imaging/Detection.h"

#include <algorithm>

namespace imaging {

namespace {

std::vector<ByteRange> findKept(Volume const& volume, VolumeMap const& map) {
    Geometry const& geometry = map.geometry();
    std::uint64_t const endOfUnits = geometry.start + geometry.units * geometry.unitSize;
    std::vector<ByteRange> kept = map.alwaysKept();
    kept.push_back({0, geometry.start});
    // From the end of the file system on, which may lie inside the last unit.
    kept.push_back({std::min(geometry.start + geometry.bytes, endOfUnits), volume.size()});
    return normalized(std::move(kept), volume.size());
}

/// Puts the runs of a map and the kept ranges together.
class Merger {
public:
    Merger(Geometry const& geometry, std::uint64_t size, std::vector<ByteRange> const& kept,
           CopyPlan::RangeSink const& sink)
        : geometry_(geometry), size_(size), kept_(kept), sink_(sink) {}

    void addRun(Run const& run) {
        addTo(std::min(size_, geometry_.start + run.first * geometry_.unitSize), false);
        addTo(std::min(size_, geometry_.start + (run.first + run.count) * geometry_.unitSize), run.used);
    }

    CopyTotals finish() {
        addTo(size_, false);
        emit();
        return totals_;
    }

private:
    /// Decides the bytes up to `end`, which are used or, but for what is kept of them, free.
    void addTo(std::uint64_t end, bool used) {
        if (used) {
            totals_.used += end - done_;
            take({done_, end});
            done_ = end;
        }
        while (done_ < end) {
            while (next_ < kept_.size() && kept_[next_].end <= done_) {
                ++next_;
            }
            bool const isKept = next_ < kept_.size() && kept_[next_].begin <= done_;
            std::uint64_t const border = next_ == kept_.size() ? end : isKept ? kept_[next_].end : kept_[next_].begin;
            ByteRange const piece{done_, std::min(end, border)};
            (isKept ? totals_.kept : totals_.free) += piece.size();
            if (isKept) {
                take(piece);
            }
            done_ = piece.end;
        }
    }

    void take(ByteRange const& range) {
        if (range.isEmpty()) {
            return;
        }
        if (range.begin != pending_.end) {
            emit();
            pending_.begin = range.begin;
        }
        pending_.end = range.end;
    }

    void emit() {
        if (!pending_.isEmpty()) {
            sink_(pending_);
        }
    }

    Geometry const& geometry_;
    std::uint64_t size_;
    std::vector<ByteRange> const& kept_;
    CopyPlan::RangeSink const& sink_;
    CopyTotals totals_;
    std::uint64_t done_ = 0; ///< bytes decided so far
    std::size_t next_ = 0;   ///< the first kept range that may reach past them
    ByteRange pending_{0, 0};
};

} // namespace

CopyPlan::CopyPlan(Volume& volume, VolumeMap::Refused refused, std::uint64_t unit)
    : volume_(volume), map_(volume, refused, unit), kept_(findKept(volume, map_)) {}

CopyTotals CopyPlan::walk(RangeSink const& sink, VolumeMap::Progress const& progress,
                          std::vector<std::string>& warnings) {
    if (takesEverything_) {
        sink({0, volume_.size()});
        return {volume_.size(), 0, 0};
    }
    Merger merger(geometry(), volume_.size(), kept_, sink);
    MapTotals const totals = map_.walk([&merger](Run const& run) { merger.addRun(run); }, progress);
    warnings.insert(warnings.end(), totals.warnings.begin(), totals.warnings.end());
    takesEverything_ = totals.isDoubtful;
    return merger.finish();
}

std::string CopyPlan::uncleanWarning() const {
    std::optional<std::string> const reason = map_.uncleanReason();
    if (!reason) {
        return {};
    }
    return volume_.path() + ": was not unmounted cleanly (" + *reason +
           "): what its journal alone says is in use may be missing from the copy; unmount it and copy again";
}

} // namespace imaging
