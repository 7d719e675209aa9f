// What a copy would take along, walked as often as it is needed.
#pragma once

#include "imaging/Sha256.h"
#include "imaging/copy/CopyPlan.h"

#include <string>
#include <vector>

namespace imaging {

/// A plan whose first walk is done: by then it is known whether the map is to be trusted, and each later walk must give
/// the same ranges.
class TakenRanges {
public:
    /// What the ranges are for, in the words of the sentences.
    struct Purpose {
        char const* done;        ///< "copied": what is being done to the volume
        char const* consequence; ///< what becomes of it when the volume changes meanwhile; ends the sentence
        bool tellsUnclean;       ///< whether a volume that was not unmounted cleanly is worth a warning
    };

    /// Reads the map once, or twice where it turns out to be doubtful.
    /// @param plan  not owned
    /// @param path  of the volume; begins the sentences
    /// @throws VolumeError  the map cannot be read
    TakenRanges(CopyPlan& plan, std::string path, VolumeMap::Progress progress, Purpose const& purpose);

    /// @throws VolumeError  the map cannot be read, or is not what it was; then the ranges that came are worth nothing
    void walk(CopyPlan::RangeSink const& sink);

    /// What is to be said of the volume, a sentence each; empty for a sound one.
    std::vector<std::string> const& warnings() const { return warnings_; }

    CopyTotals const& totals() const { return found_.totals; }

private:
    /// What a walk found.
    struct Findings {
        CopyTotals totals;
        std::string
            ranges; ///< a hash of them: sums alone would not show a used range that another one took the place of
        std::vector<std::string> warnings;

        bool operator==(Findings const&) const = default;
    };

    Findings walkOnce(CopyPlan::RangeSink const& sink);
    void walkAndKeep();

    CopyPlan& plan_;
    std::string path_;
    VolumeMap::Progress progress_;
    Purpose purpose_;
    Findings found_;
    std::vector<std::string> warnings_;
};

} // namespace imaging
