// A file that appears under its name only when it is whole.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace imaging {

/// Writes under a temporary name beside the destination; commit() syncs it and gives it its name. Without commit(),
/// also when an exception passes by, the temporary file goes and whatever stood under the name is untouched.
class OutputFile {
public:
    /// @param path    the name; an existing file is replaced by commit(), through a symbolic link the file it leads to
    /// @param source  path of the volume that is read: a destination that is the same file is refused
    /// @throws VolumeError  the file cannot be created, or the name belongs to something that is not a regular file
    OutputFile(std::string const& path, std::string const& source);
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;
    ~OutputFile();

    /// Appends bytes.
    /// @throws VolumeError  they cannot be written
    void write(std::span<std::uint8_t const> bytes);

    /// Makes the file durable under its name.
    /// @throws VolumeError  that failed; nothing stands under the name that was not there before
    void commit();

private:
    [[noreturn]] void fail(char const* what) const;

    std::string path_;
    std::string temporary_;
    int descriptor_ = -1;
};

} // namespace imaging
