// One walk to know, and more of the same.
#include "imaging/formats/TakenRanges.h"

#include "imaging/Error.h"

#include <utility>

namespace imaging {

TakenRanges::TakenRanges(CopyPlan& plan, std::string path, VolumeMap::Progress progress)
    : plan_(plan), path_(std::move(path)), progress_(std::move(progress)) {
    std::string unclean = plan_.uncleanWarning();
    if (!unclean.empty()) {
        warnings_.push_back(std::move(unclean));
    }
    auto const count = [this] { return plan_.walk([](ByteRange const&) {}, progress_, warnings_); };
    totals_ = count();
    if (plan_.takesEverything()) {
        warnings_.push_back(path_ + ": everything is listed");
        totals_ = count();
    }
}

void TakenRanges::walk(CopyPlan::RangeSink const& sink) {
    std::vector<std::string> again;
    CopyTotals const totals = plan_.walk(sink, progress_, again);
    if (totals != totals_) {
        throw VolumeError(Trouble::Io, path_ + ": changed while it was read: " + std::to_string(totals.used) +
                                           " bytes are in use, and " + std::to_string(totals_.used) +
                                           " were before; the list is not whole");
    }
}

} // namespace imaging
