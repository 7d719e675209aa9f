// Counting reads, bytes and seconds.
#include "imaging/BudgetReader.h"

#include <algorithm>

namespace imaging {

using agent::info::Level;
using agent::info::Logger;

namespace {

/// The clock is looked at once for so many reads.
constexpr std::uint64_t kReadsForEachLook = 64;

} // namespace

BudgetReader::BudgetReader(Logger& logger, agent::core::IVolumeReader const& inner, Budget const& budget)
    : logger_(logger), inner_(inner), budget_(budget) {}

bool BudgetReader::isWithin() const {
    if (!spent_.empty()) {
        return false;
    }
    if (reads_ >= budget_.reads) {
        spent_ = "after " + std::to_string(reads_) + " reads";
    } else if (bytes_ >= budget_.bytes) {
        spent_ = "after " + std::to_string(bytes_) + " bytes";
    } else if (sinceSeek_ >= budget_.atOnce) {
        spent_ = "after " + std::to_string(sinceSeek_) + " bytes at once";
    } else if (reads_ % kReadsForEachLook == 0 && Clock::now() - begin_ >= budget_.time) {
        spent_ = "after " + std::to_string(budget_.time.count()) + " seconds";
    }
    if (!spent_.empty()) {
        Logger::Entry(logger_, Level::Error) << "The volume is read no further " << spent_;
    }
    return spent_.empty();
}

long BudgetReader::read(void* buffer, long length) const {
    if (!isWithin()) {
        return -1;
    }
    long const result = inner_.read(buffer, length);
    ++reads_;
    bytes_ += static_cast<std::uint64_t>(std::max(result, 0L));
    sinceSeek_ += static_cast<std::uint64_t>(std::max(result, 0L));
    return result;
}

long BudgetReader::seek(long offset, int whence) const {
    sinceSeek_ = 0;
    return inner_.seek(offset, whence);
}

std::string BudgetReader::getVolumePath() const {
    return inner_.getVolumePath();
}

} // namespace imaging
