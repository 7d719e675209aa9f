// Two walks over the map: one to know, one to copy.
#include "imaging/copy/CopyVolume.h"

#include "imaging/Error.h"
#include "imaging/copy/TakenRanges.h"

namespace imaging {

namespace {

void requireSum(std::string const& path, char const* what, std::uint64_t sum, std::uint64_t expected) {
    if (sum != expected) {
        throw VolumeError(Trouble::Io, path + ": " + what + " add up to " + std::to_string(sum) + " bytes and not to " +
                                           std::to_string(expected) + "; the copy is not kept");
    }
}

} // namespace

CopyReport copyVolume(CopyPlan& plan, Source const& source, Destination& destination, std::string const& path,
                      std::uint64_t size, bool skipUnreadable, CopyWatch const& watch) {
    TakenRanges ranges(plan, path, watch.chunk, {"copied", "the copy is not kept", true});
    CopyReport report;
    report.warnings = ranges.warnings();
    report.totals = ranges.totals();
    requireSum(path, "used, kept and free space", report.totals.taken() + report.totals.free, size);
    if (watch.begin) {
        watch.begin(report.totals);
    }
    Copier copier(source, destination, path, skipUnreadable, watch.progress);
    ranges.walk([&copier](ByteRange const& range) { copier.add(range); });
    report.result = copier.finish();
    CopyResult const& result = report.result;
    requireSum(path, "copied, empty and unreadable bytes", result.copied + result.zero + result.unreadableBytes(),
               report.totals.taken());
    if (!result.unreadable.empty()) {
        report.warnings.push_back(path + ": " + std::to_string(result.unreadableBytes()) + " bytes in " +
                                  std::to_string(result.unreadable.size()) +
                                  " places could not be read and are zeros in the copy");
    }
    if (watch.beforeFinish) {
        watch.beforeFinish(result);
    }
    destination.finish();
    return report;
}

} // namespace imaging
