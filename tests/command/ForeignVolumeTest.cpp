// Contents that are not read: they are named, alone and inside a partition, and every unit counts as used.
#include "command/Fsparser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>

namespace {

using namespace tests;
using testing::HasSubstr;

using Bytes = std::vector<std::uint8_t>;

void put(Bytes& bytes, std::size_t offset, std::string_view text) {
    std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

void putNumber(Bytes& bytes, std::size_t offset, unsigned length, std::uint64_t value) {
    for (unsigned i = 0; i < length; ++i) {
        bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

/// Boot sector with the places of three metadata blocks, which repeat its signature.
Bytes makeBitLocker() {
    Bytes bytes(4 << 20);
    put(bytes, 0, "\xEB\x58\x90-FVE-FS-");
    putNumber(bytes, 11, 2, 512); // bytes per sector
    bytes[13] = 8;                // sectors per cluster
    bytes[21] = 0xF8;             // media
    put(bytes, 71, "NO NAME    FAT32   ");
    put(bytes, 160, "\x3B\xD6\x67\x49\x29\x2E\xD8\x4A\x83\x99\xF6\xA3\x39\xE3\xD0\x01");
    putNumber(bytes, 510, 2, 0xAA55);
    for (std::size_t i = 0; i < 3; ++i) {
        std::size_t const block = (i + 1) << 20;
        putNumber(bytes, 176 + 8 * i, 8, block);
        put(bytes, block, "-FVE-FS-");
        putNumber(bytes, block + 8, 2, 64); // bytes of this header
        putNumber(bytes, block + 10, 2, 2); // version
    }
    return bytes;
}

/// Of its first version, whose boot sector is that of an NTFS volume under another name.
Bytes makeFirstBitLocker() {
    Bytes bytes(4 << 20);
    put(bytes, 0, "\xEB\x52\x90-FVE-FS-");
    putNumber(bytes, 11, 2, 512);
    bytes[13] = 8;
    bytes[21] = 0xF8;
    putNumber(bytes, 40, 8, 8191); // sectors
    putNumber(bytes, 56, 8, 256);  // cluster of the metadata
    putNumber(bytes, 510, 2, 0xAA55);
    std::size_t const block = 256 * 8 * 512;
    put(bytes, block, "-FVE-FS-");
    putNumber(bytes, block + 8, 2, 64);
    putNumber(bytes, block + 10, 2, 1);
    return bytes;
}

Bytes makeRefs() {
    Bytes bytes(4 << 20);
    put(bytes, 3, "ReFS");
    return bytes;
}

/// The label in sector 1, with a checksum of what follows that field.
Bytes makeLvm() {
    Bytes bytes(4 << 20);
    put(bytes, 512, "LABELONE");
    putNumber(bytes, 512 + 8, 8, 1);   // the sector that it stands in
    putNumber(bytes, 512 + 20, 4, 32); // where its content begins
    put(bytes, 512 + 24, "LVM2 001");
    put(bytes, 512 + 32, "LSGTQKYZvXq61Mqq8fZEvn6MVrfeU8Op");
    putNumber(bytes, 512 + 64, 8, bytes.size());
    std::uint32_t checksum = 0xF597A6CF;
    for (std::size_t i = 512 + 20; i < 1024; ++i) {
        checksum ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit) {
            checksum = (checksum >> 1) ^ ((checksum & 1) != 0 ? 0xEDB88320U : 0U);
        }
    }
    putNumber(bytes, 512 + 16, 4, checksum);
    return bytes;
}

/// The header's magic, version 1 and a UUID in text.
Bytes makeLuks() {
    Bytes bytes(4 << 20);
    put(bytes, 0, std::string_view("LUKS\xBA\xBE\x00\x01", 8));
    put(bytes, 168, "8d3cd0b2-0a1c-4b36-9f0e-6d6f6d6f6d6f");
    return bytes;
}

struct Content {
    char const* label;                ///< in the test's name
    char const* name;                 ///< that the command prints
    std::function<Bytes()> make;      ///< null: a program does
    std::uint64_t size = 0;           ///< for the program
    std::vector<std::string> program; ///< takes the path behind its arguments
};

void PrintTo(Content const& content, std::ostream* out) {
    *out << content.label;
}

class CommandOnForeignVolume : public testing::TestWithParam<Content> {
protected:
    void SetUp() override {
        if (GetParam().make) {
            writeFile(path, GetParam().make());
            return;
        }
        std::vector<std::string> program = GetParam().program;
        if (!findProgram(program[0])) {
            GTEST_SKIP() << "there is no " << program[0] << " to make the volume";
        }
        writeFile(path, {});
        std::filesystem::resize_file(path, GetParam().size);
        program.push_back(path);
        CommandResult const made = runCommand(program);
        ASSERT_EQ(made.exitCode, 0) << made;
    }

    std::string sentence() const { return path + ": holds " + GetParam().name + ", which is not read"; }
    std::string note() const { return "fsparser: note: " + sentence() + "; every unit counts as used\n"; }

    TempDirectory directory;
    std::string path = directory.file("volume");
};

TEST_P(CommandOnForeignVolume, IsNamedByDetect) {
    CommandResult const result = fsparser({"detect", path});
    EXPECT_EQ(result.exitCode, 3) << result;
    EXPECT_EQ(result.output, std::string(GetParam().name) + "\n");
    EXPECT_EQ(result.error, "fsparser: " + sentence() + "\n");
    Json const document = Json::parse(fsparser({"detect", "--json", path}).output);
    EXPECT_EQ(document["file_system"], "unrecognized");
    EXPECT_EQ(document.value("content", ""), GetParam().name);
}

TEST_P(CommandOnForeignVolume, CountsAsUsedAsAWhole) {
    std::uint64_t const units = std::filesystem::file_size(path) / 4096;
    for (char const* const verb : {"info", "map", "ranges"}) {
        CommandResult const result = fsparser({verb, path});
        EXPECT_EQ(result.exitCode, 0) << verb << ": " << result;
        EXPECT_EQ(result.error, note()) << verb;
    }
    EXPECT_EQ(fsparser({"ranges", path}).output, "0 " + std::to_string(units) + "\n");
    std::string const copy = directory.file("copy");
    CommandResult const result = fsparser({"copy", path, copy});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_THAT(result.error, HasSubstr(note()));
    EXPECT_EQ(runCommand({"cmp", path, copy}).exitCode, 0);
}

TEST_P(CommandOnForeignVolume, IsNamedInsideAPartition) {
    if (!findProgram("sfdisk")) {
        GTEST_SKIP() << "there is no sfdisk to make a partition table";
    }
    std::uint64_t const size = std::filesystem::file_size(path);
    std::string const disk = writeFile(directory.file("disk"), {});
    std::filesystem::resize_file(disk, size + (4 << 20));
    CommandOptions options;
    options.input = "label: gpt\nstart=2048, size=" + std::to_string(size / 512) + "\n";
    ASSERT_EQ(runCommand({"sfdisk", "-q", disk}, options).exitCode, 0);
    ASSERT_EQ(runCommand({"dd", "if=" + path, "of=" + disk, "bs=1M", "seek=1", "conv=notrunc,sparse"}).exitCode, 0);
    CommandResult const result = fsparser({"detect", disk});
    EXPECT_EQ(result.exitCode, 0) << result;
    EXPECT_THAT(result.output, HasSubstr("  1  " + std::string(GetParam().name) + "  "));
    Json const document = Json::parse(fsparser({"detect", "--json", disk}).output);
    EXPECT_EQ(document["partitions"][0]["content"], GetParam().name);
    CommandResult const alone = fsparser({"detect", "--partition", "1", disk});
    EXPECT_EQ(alone.exitCode, 3) << alone;
    EXPECT_EQ(alone.output, std::string(GetParam().name) + "\n");
}

INSTANTIATE_TEST_SUITE_P(Contents, CommandOnForeignVolume,
                         testing::Values(Content{"BitLocker", "BitLocker", makeBitLocker, 0, {}},
                                         Content{"BitLockerOfTheFirstVersion", "BitLocker", makeFirstBitLocker, 0, {}},
                                         Content{"Refs", "ReFS", makeRefs, 0, {}},
                                         Content{"Lvm", "LVM physical volume", makeLvm, 0, {}},
                                         Content{"Luks", "LUKS", makeLuks, 0, {}},
                                         Content{"Swap", "swap", nullptr, 1 << 20, {"mkswap"}},
                                         Content{"Exfat", "exfat", nullptr, 8 << 20, {"mkfs.exfat"}},
                                         Content{"Btrfs", "btrfs", nullptr, 128 << 20, {"mkfs.btrfs", "-q"}},
                                         Content{"Apfs", "apfs", nullptr, 600 << 20, {"mkapfs"}}),
                         [](auto const& instance) { return std::string(instance.param.label); });

} // namespace
