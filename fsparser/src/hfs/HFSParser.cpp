// Recognition of HFS+ and HFSX volumes.
#include "agent/core/fs/HFSParser.h"

#include <string_view>

namespace agent::core::fs {

bool HFSParser::isHFSFileSystem(void* buffer) {
    if (buffer == nullptr) {
        return false;
    }
    std::string_view const signature(static_cast<char const*>(buffer), 2);
    return signature == "H+" || signature == "HX";
}

} // namespace agent::core::fs
