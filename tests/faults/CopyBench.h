// Copies, verifies and digests a volume in a file, and tells how that ended.
#pragma once

#include "imaging/Error.h"
#include "imaging/copy/Compare.h"
#include "imaging/copy/CopyVolume.h"
#include "imaging/copy/Digest.h"
#include "support/CopyVolumes.h"
#include "support/Files.h"
#include "support/RecordingLogger.h"

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tests {

/// How a task ended.
struct TaskEnd {
    std::string error; ///< the sentence; empty where it ended well
    std::vector<std::string> warnings = {};
    std::string digest = {};
    bool isEqual = false;

    bool isSure() const { return error.empty() && warnings.empty(); }
};

/// A volume in a file, and a place for its copy.
class CopyBench {
public:
    explicit CopyBench(CopyVolume const& volume) : volume_(volume) { writeFile(path, volume.bytes); }

    /// The whole copy, from opening the volume on. Only the documented exception is caught.
    TaskEnd copy() const {
        return ending([this] {
            SilentLogger logger;
            imaging::Volume volume(path, 0, logger);
            imaging::CopyPlan plan(volume, imaging::VolumeMap::Refused::IsError, 0);
            imaging::FileSource const source(path, volume.size());
            imaging::FileDestination destination(copyPath, path, volume.size(),
                                                 imaging::OutputFile::Existing::IsRefused);
            auto const report = imaging::copyVolume(plan, source, destination, path, volume.size(), false, {});
            return TaskEnd{"", report.warnings};
        });
    }

    /// Compares the volume with a file.
    TaskEnd verify(std::string const& image) const {
        return ending([this, &image] {
            SilentLogger logger;
            imaging::Volume volume(path, 0, logger);
            imaging::CopyPlan plan(volume, imaging::VolumeMap::Refused::IsError, 0);
            imaging::FileSource const expected(path, volume.size());
            std::uint64_t const size = std::filesystem::file_size(image);
            imaging::FileSource const found(image, size);
            auto const comparison =
                imaging::compareVolumes(plan, {expected, path, volume.size()}, {found, image, size}, {});
            return TaskEnd{"", comparison.warnings, "", !comparison.difference};
        });
    }

    TaskEnd digest() const {
        return ending([this] {
            SilentLogger logger;
            imaging::Volume volume(path, 0, logger);
            imaging::VolumeMap map(volume);
            imaging::FileSource const source(path, volume.size());
            imaging::Digest const digest = imaging::digestVolume(map, source, path, {});
            return TaskEnd{"", digest.totals.warnings, digest.sha256};
        });
    }

    /// Whether the copy is there and lacks something in use.
    std::optional<std::uint64_t> lostUnit() const {
        std::uint64_t const unit = firstLoss(volume_, readFile(copyPath));
        return unit == volume_.used.size() ? std::nullopt : std::optional(unit);
    }

    /// A copy of the volume with another byte in its last used unit.
    std::string writeWrongCopy() const {
        auto bytes = volume_.bytes;
        auto const& used = volume_.used;
        auto const last = static_cast<std::uint64_t>(used.rend() - std::find(used.rbegin(), used.rend(), true)) - 1;
        bytes.at(last * volume_.unitSize) ^= 0x10;
        return writeFile(directory.file("wrong"), bytes);
    }

    bool hasCopy() const { return std::filesystem::exists(copyPath); }
    void removeCopy() const { std::filesystem::remove(copyPath); }

    CopyVolume const& volume() const { return volume_; }

    TempDirectory directory{TempDirectory::Place::Memory};
    std::string path = directory.file("volume");
    std::string copyPath = directory.file("copy");

private:
    template <typename Task>
    static TaskEnd ending(Task const& task) {
        try {
            return task();
        } catch (imaging::VolumeError const& error) {
            return {error.what()};
        }
    }

    CopyVolume const& volume_;
};

} // namespace tests
