// What a volume reader answers when it implements reading and seeking alone.
#include "agent/core/IVolumeDevice.h"
#include "agent/core/IVolumeReader.h"

namespace agent::core {

IVolumeReader::~IVolumeReader() = default;

std::string IVolumeReader::getVolumePath() const {
    return {};
}

int IVolumeReader::getHandle() const {
    return -1;
}

int IVolumeReader::getLastError() const {
    return 0;
}

bool IVolumeReader::open() {
    return true;
}

long IVolumeReader::size() {
    return -1;
}

IVolumeDevice::~IVolumeDevice() = default;

} // namespace agent::core
