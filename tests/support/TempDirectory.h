// A directory for the files of one test, gone at its end.
#pragma once

#include <filesystem>
#include <string>

namespace tests {

/// A new directory of its own; it and all in it are removed at the end, whatever happened to the test.
class TempDirectory {
public:
    /// Where it is made.
    enum class Place {
        Disk,   ///< in TMPDIR, or where the system has temporary files
        Memory, ///< in /dev/shm: quick, and files may be larger than 16 TiB; where there is none, as Disk
    };

    /// @throws std::runtime_error  it cannot be made there
    explicit TempDirectory(Place place = Place::Disk);
    TempDirectory(TempDirectory const&) = delete;
    TempDirectory& operator=(TempDirectory const&) = delete;
    ~TempDirectory();

    std::filesystem::path const& path() const { return path_; }

    /// The path of a file in it.
    std::string file(std::string const& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

} // namespace tests
