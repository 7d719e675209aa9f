// A whole copy.
#pragma once

#include "imaging/copy/Copier.h"
#include "imaging/copy/CopyPlan.h"

namespace imaging {

/// What there is to say of a finished copy.
struct CopyReport {
    CopyTotals totals;
    CopyResult result;
    std::vector<std::string> warnings; ///< a sentence each; empty for a sound volume that was copied whole
};

/// How a copy is watched.
struct CopyWatch {
    /// Called once, when the map was read and before anything is copied; the totals are final.
    std::function<void(CopyTotals const&)> begin;

    /// Called now and then while bytes are copied.
    Copier::Progress progress;

    /// Called when everything is copied and before the copy gets its name; what it throws ends the copy.
    std::function<void(CopyResult const&)> beforeFinish;

    /// Called after each chunk of the map; what it throws ends the copy.
    VolumeMap::Progress chunk;
};

/// Copies what the plan takes along and finishes the destination. The map is read twice: once for the totals.
/// @param path  of the volume; begins the sentences of errors
/// @throws VolumeError  reading or writing failed, or the volume changed so much that the sums do not fit; the
///     destination is not finished then
CopyReport copyVolume(CopyPlan& plan, Source const& source, Destination& destination, std::string const& path,
                      std::uint64_t size, bool skipUnreadable, CopyWatch const& watch);

} // namespace imaging
