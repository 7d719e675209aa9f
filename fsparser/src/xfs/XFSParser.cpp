// Recognition of XFS volumes.
#include "agent/core/fs/XFSParser.h"

#include <string_view>

namespace agent::core::fs {

bool XFSParser::isXFSFileSystem(void* buffer) {
    return buffer != nullptr && std::string_view(static_cast<char const*>(buffer), 4) == "XFSB";
}

} // namespace agent::core::fs
