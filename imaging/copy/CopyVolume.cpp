// Two walks over the map: one to know, one to copy.
#include "imaging/copy/CopyVolume.h"

#include "imaging/Error.h"

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
    CopyReport report;
    std::string const unclean = plan.uncleanWarning();
    if (!unclean.empty()) {
        report.warnings.push_back(unclean);
    }
    auto const count = [&] { return plan.walk([](ByteRange const&) {}, watch.chunk, report.warnings); };
    report.totals = count();
    if (plan.takesEverything()) {
        report.warnings.push_back(path + ": everything is copied");
        report.totals = count();
    }
    requireSum(path, "used, kept and free space", report.totals.taken() + report.totals.free, size);
    if (watch.begin) {
        watch.begin(report.totals);
    }
    Copier copier(source, destination, path, skipUnreadable, watch.progress);
    std::vector<std::string> again;
    CopyTotals const totals = plan.walk([&copier](ByteRange const& range) { copier.add(range); }, watch.chunk, again);
    report.result = copier.finish();
    if (totals != report.totals) {
        throw VolumeError(Trouble::Io, path + ": changed while it was copied: " + std::to_string(totals.used) +
                                           " bytes are in use, and " + std::to_string(report.totals.used) +
                                           " were before; the copy is not kept");
    }
    CopyResult const& result = report.result;
    requireSum(path, "copied, empty and unreadable bytes", result.copied + result.zero + result.unreadableBytes(),
               totals.taken());
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
