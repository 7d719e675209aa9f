// One walk to know, and more of the same.
#include "imaging/copy/TakenRanges.h"

#include "imaging/Error.h"

#include <utility>

namespace imaging {

TakenRanges::TakenRanges(CopyPlan& plan, std::string path, VolumeMap::Progress progress, Purpose const& purpose)
    : plan_(plan), path_(std::move(path)), progress_(std::move(progress)), purpose_(purpose) {
    std::string unclean = purpose_.tellsUnclean ? plan_.uncleanWarning() : "";
    if (!unclean.empty()) {
        warnings_.push_back(std::move(unclean));
    }
    walkAndKeep();
    if (plan_.takesEverything()) {
        warnings_.push_back(path_ + ": everything is " + purpose_.done);
        walkAndKeep();
    }
}

void TakenRanges::walkAndKeep() {
    found_ = walkOnce([](ByteRange const&) {});
    warnings_.insert(warnings_.end(), found_.warnings.begin(), found_.warnings.end());
}

TakenRanges::Findings TakenRanges::walkOnce(CopyPlan::RangeSink const& sink) {
    Findings found;
    Sha256 hash;
    auto const take = [&](ByteRange const& range) {
        hash.add(range.begin);
        hash.add(range.end);
        sink(range);
    };
    found.totals = plan_.walk(take, progress_, found.warnings);
    found.ranges = hash.hexadecimal();
    return found;
}

void TakenRanges::walk(CopyPlan::RangeSink const& sink) {
    Findings const found = walkOnce(sink);
    if (found == found_) {
        return;
    }
    std::string const what = found.totals.used == found_.totals.used
                                 ? "other bytes are in use than before"
                                 : std::to_string(found.totals.used) + " bytes are in use, and " +
                                       std::to_string(found_.totals.used) + " were before";
    throw VolumeError(Trouble::Io,
                      path_ + ": changed while it was " + purpose_.done + ": " + what + "; " + purpose_.consequence);
}

} // namespace imaging
