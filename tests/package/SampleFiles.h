// The files and devices that the examples of the documents speak of.
#pragma once

#include "support/Command.h"
#include "support/LoopDevice.h"
#include "support/TempDirectory.h"

#include <memory>
#include <string>

namespace tests {

/// A directory with:
/// - disk.img, full-copy.img, dev/sdb1: an NTFS volume with the files of mnt;
/// - dev/sdb: a disk with that volume as its partition 1;
/// - dev/sdc1: a block device of the same length, where that is possible;
/// - mnt: a directory with the files of the volume; paths.txt: their names.
class SampleFiles {
public:
    SampleFiles();

    TempDirectory const& directory() const { return directory_; }

    /// Makes dev/sdc1.
    /// @return whether it could be made
    bool makeDevice();

    /// Runs lines of shell there, with fsparser in the PATH, and the samples in place of the devices.
    CommandResult run(std::string script) const;

private:
    TempDirectory directory_;
    std::unique_ptr<Loop> device_;
};

} // namespace tests
