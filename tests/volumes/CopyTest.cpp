// Copies of used units alone, of real volumes whose free space holds random bytes: sound, complete, and told apart from
// changed ones.
#include "support/TempDirectory.h"
#include "volumes/CopyCase.h"
#include "volumes/ExtRecipe.h"
#include "volumes/VolumeAnswers.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <unistd.h>

namespace tests {

namespace {

constexpr unsigned kFreeSpaceSeed = 2;
constexpr unsigned kTargetSeed = 3;

std::optional<std::string> refusalOf(CopyCase const& copyCase) {
    if (copyCase.needsRoot && ::geteuid() != 0) {
        return "mounting needs root";
    }
    for (std::string const& program : copyCase.programs) {
        if (auto const reason = missingProgram({program.c_str()})) {
            return reason;
        }
    }
    return missingProgram({"sha256sum"});
}

/// The same in this system's units: one that also holds something else is not free. The tools know sectors where a
/// cluster need not begin with a unit.
SpaceAnswer inUnitsOf(imaging::Geometry const& geometry, SpaceAnswer const& space) {
    SpaceAnswer units{BlockMap(geometry.units, false), geometry.unitSize, geometry.start};
    for (std::size_t i = 0; i < space.used.size(); ++i) {
        if (space.used[i]) {
            units.used.at((space.offsetOf(i) - geometry.start) / geometry.unitSize) = true;
        }
    }
    return units;
}

std::optional<std::string> missingDevices() {
    if (::geteuid() != 0) {
        return "making loop devices needs root";
    }
    return missingProgram({"losetup"});
}

} // namespace

void addCheck(Verdict& verdict, std::vector<std::string> const& arguments, std::string const& volume) {
    CommandResult const result = runTool(arguments);
    verdict.isSound = verdict.isSound && result.succeeded();
    std::string text =
        arguments.front() + " ends with " + std::to_string(result.exitCode) + "\n" + result.output + result.error;
    for (std::size_t at = text.find(volume); at != std::string::npos; at = text.find(volume, at)) {
        text.replace(at, volume.size(), "VOLUME");
    }
    verdict.text += text;
}

void CopiedVolume::SetUp() {
    CopyCase const& made = GetParam();
    if (auto const reason = refusalOf(made)) {
        GTEST_SKIP() << *reason;
    }
    try {
        made.make(directory.path());
    } catch (CannotBeMadeHere const& reason) {
        GTEST_SKIP() << reason.what();
    }
    space = made.askSpace(volume);
    ASSERT_GT(overwriteFreeSpace(volume, space, kFreeSpaceSeed) * space.unitBytes, std::uint64_t{1} << 20);
    verdict = made.check(volume);
    ASSERT_TRUE(verdict.isSound) << verdict.text;
    hashes = extracted(volume);
    ASSERT_EQ(hashes, hashesOf(directory.path() / "content"));
}

std::map<std::string, std::string> CopiedVolume::extracted(std::string const& from) const {
    TempDirectory const target(TempDirectory::Place::Memory);
    GetParam().extract(from, directory.path() / "content", target.path());
    return hashesOf(target.path());
}

void CopiedVolume::copyToImage() {
    CommandResult const result = runFsparser({"copy", volume, image});
    ASSERT_EQ(result.exitCode, 0) << result;
    ASSERT_EQ(result.error, "");
}

void CopiedVolume::expectEqual(std::string const& copy) {
    CommandResult const result = verify(copy);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_THAT(result.output, testing::StartsWith("equal: "));
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(digest(copy), digest(volume));
    EXPECT_EQ(findOtherUsedByte(volume, copy, space), std::nullopt);
    Verdict const found = GetParam().check(copy);
    EXPECT_TRUE(found.isSound);
    EXPECT_EQ(found.text, verdict.text);
    EXPECT_EQ(extracted(copy), hashes);
}

CommandResult CopiedVolume::verify(std::string const& copy) const {
    return runFsparser({"verify", volume, copy});
}

std::string CopiedVolume::digest(std::string const& path) const {
    CommandResult const result = runFsparser({"digest", path});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    EXPECT_THAT(result.output, testing::MatchesRegex("[0-9a-f]+  " + path + "\n"));
    std::string const number = result.output.substr(0, result.output.find(' '));
    EXPECT_EQ(number.size(), 64U);
    return number;
}

std::uint64_t CopiedVolume::findFreeByte() const {
    LibraryMap const map = readMap(volume);
    SpaceAnswer const units = inUnitsOf(map.geometry, space);
    for (std::size_t unit = map.used.size() / 2; unit < map.used.size(); ++unit) {
        if (!map.used[unit] && !units.used[unit]) {
            return units.offsetOf(unit);
        }
    }
    throw std::runtime_error("nothing is free in the second half of " + volume);
}

void CopiedDevice::expectDirectCopy(unsigned sectorBytes) {
    if (auto const reason = missingDevices()) {
        GTEST_SKIP() << *reason;
    }
    std::string const original = disk.file("volume.img");
    std::string const target = disk.file("target");
    std::filesystem::copy_file(volume, original);
    makeRandomFile(target, std::filesystem::file_size(volume), kTargetSeed);
    WritableLoop const source(original, WritableLoop::Io::Direct, sectorBytes);
    WritableLoop const device(target, WritableLoop::Io::Direct);
    for (WritableLoop const* const loop : {&source, &device}) {
        if (!loop->problem().empty()) {
            GTEST_SKIP() << loop->problem();
        }
    }
    CommandResult const result = runFsparser({"copy", "--to-device", source.path(), device.path()});
    ASSERT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(result.error, "");
    expectEqual(device.path());
    EXPECT_EQ(runFsparser({"verify", source.path(), device.path()}).exitCode, 0);
    EXPECT_EQ(digest(source.path()), digest(device.path()));
    ASSERT_EQ(runFsparser({"copy", source.path(), image}).exitCode, 0);
    EXPECT_EQ(findOtherUsedByte(volume, image, space), std::nullopt);
    EXPECT_EQ(verify(image).exitCode, 0);
}

TEST_P(CopiedVolume, IsSoundAndHoldsEveryFileAndNoFreeSpaceAsAnImage) {
    ASSERT_NO_FATAL_FAILURE(copyToImage());
    expectEqual(image);
    EXPECT_EQ(std::filesystem::file_size(image), std::filesystem::file_size(volume));
    EXPECT_LT(allocatedBytes(image), std::filesystem::file_size(volume));
    SpaceAnswer const units = inUnitsOf(readMap(volume).geometry, space);
    EXPECT_NE(findNonZeroFreeByte(volume, units), std::nullopt); // it finds what is there
    EXPECT_EQ(findNonZeroFreeByte(image, units), std::nullopt);
}

TEST_P(CopiedVolume, IsSoundAndHoldsEveryFileOnADeviceThatWasFullOfRandomBytes) {
    if (auto const reason = missingDevices()) {
        GTEST_SKIP() << *reason;
    }
    std::string const target = directory.file("target");
    makeRandomFile(target, std::filesystem::file_size(volume), kTargetSeed);
    WritableLoop const device(target);
    if (!device.problem().empty()) {
        GTEST_SKIP() << device.problem();
    }
    CommandResult const result = runFsparser({"copy", "--to-device", volume, device.path()});
    ASSERT_EQ(result.exitCode, 0) << result;
    expectEqual(device.path());
}

TEST_P(CopiedVolume, IsTheSameOnADeviceThatWasFullOfRandomBytesAndGotItsImage) {
    if (auto const reason = missingDevices()) {
        GTEST_SKIP() << *reason;
    }
    std::string const target = directory.file("target");
    makeRandomFile(target, std::filesystem::file_size(volume), kTargetSeed);
    WritableLoop const device(target);
    if (!device.problem().empty()) {
        GTEST_SKIP() << device.problem();
    }
    ASSERT_NO_FATAL_FAILURE(copyToImage());
    CommandResult const result = runFsparser({"copy", "--to-device", image, device.path()});
    ASSERT_EQ(result.exitCode, 0) << result;
    EXPECT_EQ(findOtherUsedByte(volume, device.path(), space), std::nullopt);
    EXPECT_EQ(verify(device.path()).exitCode, 0);
    EXPECT_EQ(digest(device.path()), digest(volume));
    EXPECT_EQ(digest(image), digest(volume));
}

TEST_P(CopiedVolume, ChangedInAUsedByteIsFoundWithOffsetAndUnit) {
    ASSERT_NO_FATAL_FAILURE(copyToImage());
    std::uint64_t const offset = findInVolume(volume, copyMarker()) + 7;
    imaging::Geometry const geometry = readMap(volume).geometry;
    std::uint64_t const unit = (offset - geometry.start) / geometry.unitSize;
    flipByte(image, offset);

    CommandResult const result = verify(image);
    EXPECT_EQ(result.exitCode, 5) << result;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.error,
              fmt::format("fsparser: {}: differs from {} at byte {} (unit {}): the volume holds "
                          "0x{:02x}, the image 0x{:02x}\n",
                          image, volume, offset, unit, readByte(volume, offset), readByte(image, offset)));
    EXPECT_NE(digest(image), digest(volume));

    CommandResult const json = runFsparser({"verify", "--json", volume, image});
    EXPECT_EQ(json.exitCode, 5) << json;
    auto const document = nlohmann::json::parse(json.output);
    EXPECT_EQ(document.at("equal"), false);
    EXPECT_EQ(document.at("difference").at("offset"), offset);
    EXPECT_EQ(document.at("difference").at("unit"), unit);

    flipByte(image, offset);
    EXPECT_EQ(verify(image).exitCode, 0);
    EXPECT_EQ(digest(image), digest(volume));
}

TEST_P(CopiedVolume, ChangedInAFreeByteIsStillEqual) {
    ASSERT_NO_FATAL_FAILURE(copyToImage());
    flipByte(image, findFreeByte());
    CommandResult const result = verify(image);
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_THAT(result.output, testing::StartsWith("equal: "));
    EXPECT_EQ(digest(image), digest(volume));
}

TEST_P(CopiedDevice, IsSoundAndHoldsEveryFileFromDeviceToDeviceWithDirectIo) {
    ASSERT_NO_FATAL_FAILURE(expectDirectCopy(512));
}

TEST_P(CopiedDevice, IsSoundAndHoldsEveryFileFromADeviceWithLargeSectorsToOneWithSmallOnes) {
    ASSERT_NO_FATAL_FAILURE(expectDirectCopy(4096));
}

// The file systems' own test files instantiate these, and each is a program's worth of tools that may be missing.
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(CopiedVolume);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(CopiedDevice);

} // namespace tests
