// Making and removing a directory.
#include "support/TempDirectory.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <stdlib.h>
#include <unistd.h>

namespace tests {

namespace {

std::filesystem::path parentOf(TempDirectory::Place place) {
    constexpr char const* kMemory = "/dev/shm";
    bool const useMemory = place == TempDirectory::Place::Memory && ::access(kMemory, W_OK | X_OK) == 0;
    return useMemory ? std::filesystem::path(kMemory) : std::filesystem::temp_directory_path();
}

} // namespace

TempDirectory::TempDirectory(Place place) {
    std::string name = (parentOf(place) / "fsparser-tests-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error(name + ": " + std::strerror(errno));
    }
    path_ = name;
}

TempDirectory::~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

} // namespace tests
