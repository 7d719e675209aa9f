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
    /// What to do with a file that stands under the name.
    enum class Existing { IsReplaced, IsRefused };

    /// @param path      the name; an existing file is replaced by commit(), through a symbolic link the file it leads
    /// to
    /// @param source    path of the volume that is read: a destination that is the same file is refused
    /// @param existing  IsRefused: nothing that stands under the name is replaced, also when it came meanwhile
    /// @throws VolumeError  the file cannot be created, or the name belongs to something that may not be replaced
    OutputFile(std::string const& path, std::string const& source, Existing existing = Existing::IsReplaced);
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;
    ~OutputFile();

    /// Appends bytes.
    /// @throws VolumeError  they cannot be written
    void write(std::span<std::uint8_t const> bytes);

    /// Writes bytes at a place of their own.
    /// @throws VolumeError  they cannot be written
    void writeAt(std::uint64_t offset, std::span<std::uint8_t const> bytes);

    /// Gives the file a size; what was never written is a hole.
    /// @throws VolumeError  the file cannot be that long
    void resize(std::uint64_t size);

    /// Makes the file durable under its name.
    /// @throws VolumeError  that failed; nothing stands under the name that was not there before
    void commit();

private:
    bool isRenamed() const;
    [[noreturn]] void fail(char const* what) const;

    std::string path_;
    std::string temporary_;
    Existing existing_;
    int descriptor_ = -1;
};

} // namespace imaging
