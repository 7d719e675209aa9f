// What a copy would take along, walked as often as a list needs it.
#pragma once

#include "imaging/copy/CopyPlan.h"

#include <string>
#include <vector>

namespace imaging {

/// A plan whose first walk is done: by then it is known whether the map is to be trusted, and each later walk must give
/// the same.
class TakenRanges {
public:
    /// Reads the map once, or twice where it turns out to be doubtful.
    /// @param plan  not owned
    /// @param path  of the volume; begins the sentences
    /// @throws VolumeError  the map cannot be read
    TakenRanges(CopyPlan& plan, std::string path, VolumeMap::Progress progress);

    /// @throws VolumeError  the map cannot be read, or is not what it was
    void walk(CopyPlan::RangeSink const& sink);

    /// What is to be said of the volume, a sentence each; empty for a sound one.
    std::vector<std::string> const& warnings() const { return warnings_; }

private:
    CopyPlan& plan_;
    std::string path_;
    VolumeMap::Progress progress_;
    std::vector<std::string> warnings_;
    CopyTotals totals_;
};

} // namespace imaging
