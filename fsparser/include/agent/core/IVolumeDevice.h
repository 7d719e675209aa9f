/// @file
/// A volume that stands for a device of the system.
#pragma once

#include "agent/core/IVolumeReader.h"

namespace agent::core {

/// A volume reader that is opened by path and knows its size: it answers for everything itself. The operations are
/// those of IVolumeReader, under the same rules of ownership and threads.
///
/// @code
/// std::unique_ptr<agent::core::IVolumeDevice> const device =
///     std::make_unique<agent::core::backup::VolumeReader>(logger, "/dev/sdb1");
/// if (!device->open()) { use(device->getVolumePath(), device->getLastError()); } // the path, and the errno
/// use(device->size());                                                           // bytes
/// @endcode
class AGENT_EXPORT IVolumeDevice : public IVolumeReader {
public:
    IVolumeDevice() = default;
    IVolumeDevice(IVolumeDevice const&) = default;
    IVolumeDevice& operator=(IVolumeDevice const&) = default;
    ~IVolumeDevice() override;

    std::string getVolumePath() const override = 0;
    int getHandle() const override = 0;
    int getLastError() const override = 0;
    bool open() override = 0;
    long size() override = 0;
};

} // namespace agent::core
