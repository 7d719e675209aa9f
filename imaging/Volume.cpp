// Opening a volume and finding out what it is.
#include "imaging/Volume.h"

#include "agent/PosixError.h"
#include "agent/core/fs/FSUtil.h"
#include "imaging/Detection.h"
#include "imaging/Device.h"
#include "imaging/Error.h"

#include <algorithm>
#include <utility>

namespace imaging {

namespace {

/// 8 MiB of what was read last.
constexpr std::size_t kCachedPages = 128;

/// 64 MiB: the records of tens of thousands of files, and the indexes that lead to them.
constexpr std::size_t kPagesForFiles = 1024;

} // namespace

Volume::Volume(std::string const& path, std::uint64_t alignment, agent::info::Logger& logger, Place place,
               Budget const& budget)
    : filePath_(path), place_(std::move(place)), path_(path + (place_.name.empty() ? "" : " (" + place_.name + ")")),
      logger_(logger), alignment_(alignment), limits_(budget) {
    requireVolumePath(filePath_);
    open();
    detect();
}

void Volume::open() {
    try {
        device_.emplace(logger_, filePath_);
    } catch (agent::PosixError const& error) {
        throw VolumeError(Trouble::Io, path_ + ": cannot be opened: " + agent::PosixError::strerror(error.code()));
    }
    if (!device_->open()) {
        throw VolumeError(Trouble::Io,
                          path_ + ": cannot be opened: " + agent::PosixError::strerror(device_->getLastError()));
    }
    size_ = static_cast<std::uint64_t>(device_->size());
    std::uint64_t const needed = directIoAlignment(device_->getHandle());
    if (alignment_ == 0) {
        alignment_ = needed;
    }
    aligning_.emplace(*device_, needed);
    agent::core::IVolumeReader const* inner = &*aligning_;
    if (usesDirectIo(device_->getHandle())) {
        inner = &ahead_.emplace(logger_, *aligning_);
    }
    inner = &cache_.emplace(logger_, *inner, kCachedPages);
    if (place_.start != 0 || place_.size) {
        std::uint64_t const rest = size_ - std::min(size_, place_.start);
        size_ = std::min(rest, place_.size.value_or(rest));
        inner = &slice_.emplace(*cache_, place_.start, size_);
    }
    budget_.emplace(logger_, *inner, limits_);
    strict_.emplace(logger_, *budget_, size_, alignment_);
}

void Volume::detect() {
    if (size_ < kSectorBytes) {
        throw VolumeError(Trouble::NotUnderstood, path_ + ": ends at byte " + std::to_string(size_) +
                                                      ", before the end of a first sector (512 bytes)");
    }
    code_ = detectFileSystem(logger_, *strict_, alignment_, size_);
    // What a test found wrong with bytes that another one recognised is no reason for anything later.
    refusal_ = logger_.takeReason("");
}

void Volume::keepMoreReads() {
    cache_->keepPages(kPagesForFiles);
}

void Volume::forgetReads() {
    cache_->forget();
    if (ahead_) {
        ahead_->forget();
    }
}

std::vector<std::uint8_t> Volume::readBytes(std::uint64_t offset, std::uint64_t length) {
    std::vector<std::uint8_t> bytes(length);
    unsigned long bytesRead = 0;
    if (agent::core::fs::fs_seek_read_aligned(logger_, *strict_, alignment_, offset, bytes.data(), length,
                                              &bytesRead) != 0) {
        throw VolumeError(readTrouble(), path_ + ": cannot be read at byte " + std::to_string(offset) + ": " +
                                             logger_.takeReason("the read failed"));
    }
    return bytes;
}

} // namespace imaging
