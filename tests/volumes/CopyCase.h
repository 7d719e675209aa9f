// One volume that is copied, whatever its file system, and how independent tools judge the copy.
#pragma once

#include "support/TempDirectory.h"
#include "volumes/CopyProof.h"

#include <functional>
#include <gtest/gtest.h>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tests {

/// What a file system's own checkers find, without changing anything.
struct Verdict {
    bool isSound = true;
    std::string text; ///< all that they print, with VOLUME for the path
};

/// Why a volume cannot be made on this machine, though the programs are there: the test is skipped.
class CannotBeMadeHere : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A volume of some file system.
struct CopyCase {
    std::string name;                  ///< letters and digits: part of the test's name
    std::vector<std::string> programs; ///< needed beside those of every case
    bool needsRoot = false;

    /// Makes the sound volume as `volume.img` in a directory, with some files deleted again. What it holds afterwards
    /// stands in the directory's `content`, too.
    /// @throws CannotBeMadeHere  nothing is wrong, but the machine does not allow it
    std::function<void(std::filesystem::path const& directory)> make;

    /// Asks an independent tool for the free space.
    std::function<SpaceAnswer(std::string const& volume)> askSpace;

    std::function<Verdict(std::string const& volume)> check;

    /// Takes every file out of a volume with an independent program.
    /// @param content  what was put in: tells the names where the program asks for them
    /// @param target   an empty directory
    std::function<void(std::string const& volume, std::filesystem::path const& content,
                       std::filesystem::path const& target)>
        extract;
};

inline void PrintTo(CopyCase const& copyCase, std::ostream* out) {
    *out << copyCase.name;
}

inline std::string copyCaseName(testing::TestParamInfo<CopyCase> const& parameter) {
    return parameter.param.name;
}

/// Adds to a verdict what one checker says; only 0 is sound.
void addCheck(Verdict& verdict, std::vector<std::string> const& arguments, std::string const& volume);

/// The volume of a case, sound and with random bytes in all its free space. The tests are in CopyTest.cpp; the test
/// files of the file systems instantiate them.
class CopiedVolume : public testing::TestWithParam<CopyCase> {
protected:
    void SetUp() override;

    /// Copies to `image.img`, used only.
    void copyToImage();

    /// That a copy is as sound as the volume, holds every file, and that verify and digest call it equal.
    void expectEqual(std::string const& copy);

    /// What verify says of a changed copy.
    CommandResult verify(std::string const& copy) const;
    std::string digest(std::string const& path) const;

    /// A unit that is free both for the tool and in this system's map.
    std::uint64_t findFreeByte() const;

    TempDirectory directory{TempDirectory::Place::Memory}; ///< the tools sync each change
    std::string volume = directory.file("volume.img");
    std::string image = directory.file("image.img");
    SpaceAnswer space;
    Verdict verdict;                           ///< of the volume
    std::map<std::string, std::string> hashes; ///< of its files

private:
    std::map<std::string, std::string> extracted(std::string const& from) const;
};

/// The same on a disk, where loop devices can have direct I/O.
class CopiedDevice : public CopiedVolume {
protected:
    /// Copies to a device full of random bytes, and to an image.
    /// @param sectorBytes  of the device that the volume is on
    void expectDirectCopy(unsigned sectorBytes);

    TempDirectory disk;
};

} // namespace tests
