// The lists for other programs, made from ranges that each test names.
#include "imaging/ByteRange.h"
#include "imaging/Error.h"
#include "imaging/Sha256.h"
#include "imaging/formats/RangeFormat.h"

#include <algorithm>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <system_error>

namespace {

using imaging::ByteRange;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

using Ranges = std::vector<ByteRange>;

/// A volume of a byte pattern without symmetry, which may be unreadable from some byte on.
class PatternSource : public imaging::Source {
public:
    explicit PatternSource(std::uint64_t size) : content_(size, '\0') {
        for (std::size_t i = 0; i < content_.size(); ++i) {
            content_[i] = static_cast<char>(i * 2654435761U >> 13U);
        }
    }

    std::string const& content() const { return content_; }
    void failFrom(std::uint64_t offset) { readable_ = offset; }

    std::uint64_t alignment() const override { return 512; }
    std::size_t read(std::uint64_t offset, std::span<std::uint8_t> buffer) const override {
        if (offset + buffer.size() > readable_) {
            throw std::system_error(EIO, std::generic_category());
        }
        std::size_t const count = std::min(buffer.size(), content_.size() - offset);
        std::memcpy(buffer.data(), content_.data() + offset, count);
        return count;
    }
    Stretch stretchAt(std::uint64_t) const override { return {content_.size(), false}; }

private:
    std::string content_;
    std::uint64_t readable_ = UINT64_MAX;
};

std::string writeWith(std::string const& name, imaging::Source const& source, std::uint64_t size,
                      Ranges const& ranges) {
    auto const walk = [&ranges](imaging::FormatInput::RangeSink const& sink) {
        std::for_each(ranges.begin(), ranges.end(), sink);
    };
    std::string text;
    imaging::makeRangeFormat(name)->write({"/volume", size, source, walk},
                                          [&text](std::string_view piece) { text += piece; });
    return text;
}

/// For the formats that look at no content.
std::string writeList(std::string const& name, std::uint64_t size, Ranges const& ranges) {
    return writeWith(name, PatternSource(0), size, ranges);
}

std::string sha256(std::string_view text) {
    imaging::Sha256 hash;
    hash.add(text.data(), text.size());
    return hash.hexadecimal();
}

/// The text of an XML element, or of its attribute.
std::string elementOf(std::string const& xml, std::string const& name) {
    std::smatch match;
    return std::regex_search(xml, match, std::regex("<" + name + ">([^<]*)</" + name + ">")) ? match[1].str()
                                                                                             : "(none)";
}

struct BlockRow {
    std::string hash;
    std::string blocks;
    bool operator==(BlockRow const&) const = default;
};

std::vector<BlockRow> rowsOf(std::string const& xml) {
    std::regex const row("<Range chksum=\"([0-9a-f]{64})\">([0-9-]+)</Range>");
    std::vector<BlockRow> rows;
    for (auto match = std::sregex_iterator(xml.begin(), xml.end(), row); match != std::sregex_iterator(); ++match) {
        rows.push_back({(*match)[1], (*match)[2]});
    }
    return rows;
}

TEST(ImagingFormats, OnlyTheirNamesMakeThem) {
    for (char const* const name : {"bmap", "ddrescue", "extentlist", "fallocate"}) {
        EXPECT_NE(imaging::makeRangeFormat(name), nullptr) << name;
    }
    for (char const* const name : {"", "text", "json", "csv", "BMAP", "bmap2"}) {
        EXPECT_EQ(imaging::makeRangeFormat(name), nullptr) << name;
    }
}

TEST(ImagingFormatsExtentList, CoversTheVolumeFromItsFirstByteToItsLast) {
    EXPECT_EQ(writeList("extentlist", 10000, {{512, 1024}, {4096, 8192}}), "0 512 hole,zero\n"
                                                                           "512 512\n"
                                                                           "1024 3072 hole,zero\n"
                                                                           "4096 4096\n"
                                                                           "8192 1808 hole,zero\n");
}

TEST(ImagingFormatsExtentList, EndsWithDataWhereTheLastByteIsTaken) {
    EXPECT_EQ(writeList("extentlist", 10000, {{0, 512}, {9999, 10000}}), "0 512\n512 9487 hole,zero\n9999 1\n");
}

TEST(ImagingFormatsExtentList, IsNeverEmpty) {
    EXPECT_EQ(writeList("extentlist", 777, {}), "0 777 hole,zero\n");
    EXPECT_EQ(writeList("extentlist", 777, {{0, 777}}), "0 777\n");
}

TEST(ImagingFormatsExtentList, NumbersOfExabytesAreWhole) {
    constexpr std::uint64_t kHuge = std::uint64_t{7} << 60;
    EXPECT_EQ(writeList("extentlist", kHuge, {{kHuge - 1, kHuge}}),
              "0 8070450532247928831 hole,zero\n8070450532247928831 1\n");
}

constexpr char const* kMapfileHead = "# Mapfile. Created by fsparser\n"
                                     "# current_pos  current_status  current_pass\n"
                                     "0x00000000     +               1\n"
                                     "#      pos        size  status\n";

TEST(ImagingFormatsDomainMap, TakenIsFinishedAndAllElseUntriedUpToTheLastByte) {
    EXPECT_EQ(writeList("ddrescue", 10001, {{512, 1024}, {4096, 8192}}), std::string(kMapfileHead) +
                                                                             "0x00000000  0x00000200  ?\n"
                                                                             "0x00000200  0x00000200  +\n"
                                                                             "0x00000400  0x00000C00  ?\n"
                                                                             "0x00001000  0x00001000  +\n"
                                                                             "0x00002000  0x00000711  ?\n");
}

TEST(ImagingFormatsDomainMap, ReachesTheLastByteAlsoWhereItIsTakenOrNothingIs) {
    EXPECT_EQ(writeList("ddrescue", 4097, {{4096, 4097}}),
              std::string(kMapfileHead) + "0x00000000  0x00001000  ?\n0x00001000  0x00000001  +\n");
    EXPECT_EQ(writeList("ddrescue", 4097, {}), std::string(kMapfileHead) + "0x00000000  0x00001001  ?\n");
}

TEST(ImagingFormatsHolePunch, PunchesWhatIsNotTakenAndNothingElse) {
    std::string const script = writeList("fallocate", 10000, {{512, 1024}, {4096, 8192}});
    EXPECT_THAT(script, StartsWith("#!/bin/sh\n"));
    EXPECT_THAT(script, HasSubstr("\nset -eu\nsize=10000\n"));
    std::istringstream lines(script);
    std::vector<std::string> commands;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("punch ")) {
            commands.push_back(line);
        }
    }
    EXPECT_THAT(commands, ElementsAre("punch 0 512", "punch 1024 3072", "punch 8192 1808"));
}

TEST(ImagingFormatsHolePunch, TheVolumesPathIsNotInTheScript) {
    auto const walk = [](imaging::FormatInput::RangeSink const&) {};
    std::string text;
    imaging::makeRangeFormat("fallocate")
        ->write({"/volume\nreboot", 512, PatternSource(0), walk}, [&text](std::string_view piece) { text += piece; });
    EXPECT_THAT(text, HasSubstr("punch 0 512\n"));
    EXPECT_THAT(text, testing::Not(HasSubstr("reboot")));
}

TEST(ImagingFormatsBlockMap, HasTheSizesAndARowForEachRangeOfBlocks) {
    PatternSource const source(10 * 4096);
    std::string const xml = writeWith("bmap", source, 10 * 4096, {{0, 4096}, {8192, 20480}});
    EXPECT_THAT(xml, StartsWith("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<bmap version=\"2.0\">\n"));
    EXPECT_EQ(elementOf(xml, "ImageSize"), "40960");
    EXPECT_EQ(elementOf(xml, "BlockSize"), "4096");
    EXPECT_EQ(elementOf(xml, "BlocksCount"), "10");
    EXPECT_EQ(elementOf(xml, "MappedBlocksCount"), "4");
    EXPECT_EQ(elementOf(xml, "ChecksumType"), "sha256");
    EXPECT_EQ(rowsOf(xml), (std::vector<BlockRow>{{sha256(source.content().substr(0, 4096)), "0"},
                                                  {sha256(source.content().substr(8192, 12288)), "2-4"}}));
}

TEST(ImagingFormatsBlockMap, ABlockTakenInPartIsListedWholeAndRangesThatTouchAreOne) {
    PatternSource const source(10 * 4096);
    Ranges const ranges{{4095, 4097}, {5000, 6000}, {8191, 8193}, {13000, 13001}, {24576, 24577}};
    std::string const xml = writeWith("bmap", source, 10 * 4096, ranges);
    EXPECT_EQ(rowsOf(xml), (std::vector<BlockRow>{{sha256(source.content().substr(0, 16384)), "0-3"},
                                                  {sha256(source.content().substr(24576, 4096)), "6"}}));
    EXPECT_EQ(elementOf(xml, "MappedBlocksCount"), "5");
}

TEST(ImagingFormatsBlockMap, TheLastBlockIsHashedOverTheBytesThatExist) {
    PatternSource const source(2 * 4096 + 777);
    std::string const xml = writeWith("bmap", source, 2 * 4096 + 777, {{4096, 2 * 4096 + 777}});
    EXPECT_EQ(elementOf(xml, "BlocksCount"), "3");
    EXPECT_EQ(rowsOf(xml), (std::vector<BlockRow>{{sha256(source.content().substr(4096)), "1-2"}}));
}

TEST(ImagingFormatsBlockMap, ItsOwnHashIsThatOfTheListWithZerosInItsPlace) {
    PatternSource const source(8192);
    std::string xml = writeWith("bmap", source, 8192, {{0, 8192}});
    std::string const hash = elementOf(xml, "BmapFileChecksum");
    ASSERT_EQ(hash.size(), 64U);
    xml.replace(xml.find(hash), 64, std::string(64, '0'));
    EXPECT_EQ(sha256(xml), hash);
}

TEST(ImagingFormatsBlockMap, AListOfManyPiecesIsWhole) {
    constexpr std::uint64_t kRanges = 3000; // more text than is handed over at once
    PatternSource const source(kRanges * 8192);
    Ranges ranges;
    for (std::uint64_t i = 0; i < kRanges; ++i) {
        ranges.push_back({i * 8192, i * 8192 + 1});
    }
    std::string xml = writeWith("bmap", source, kRanges * 8192, ranges);
    EXPECT_GT(xml.size(), 200000U);
    EXPECT_EQ(rowsOf(xml).size(), kRanges);
    EXPECT_EQ(rowsOf(xml).back().blocks, "5998");
    std::string const hash = elementOf(xml, "BmapFileChecksum");
    xml.replace(xml.find(hash), 64, std::string(64, '0'));
    EXPECT_EQ(sha256(xml), hash);
    EXPECT_THAT(xml, testing::EndsWith("</BlockMap>\n</bmap>\n"));
}

TEST(ImagingFormatsBlockMap, WhatCannotBeReadIsAnErrorAndNothingIsWritten) {
    PatternSource source(16384);
    source.failFrom(8192);
    try {
        writeWith("bmap", source, 16384, {{8192, 16384}});
        FAIL() << "no error";
    } catch (imaging::VolumeError const& error) {
        EXPECT_EQ(std::string(error.what()), "/volume: cannot be read between byte 8192 and byte 16384: Input/output "
                                             "error");
        EXPECT_EQ(error.trouble(), imaging::Trouble::Io);
    }
}

TEST(ImagingFormatsBlockMap, PausesAfterEachReadAndCanBeEndedThere) {
    PatternSource const source(std::uint64_t{10} << 20);
    auto const walk = [](imaging::FormatInput::RangeSink const& sink) { sink({0, std::uint64_t{10} << 20}); };
    int pauses = 0;
    auto const pause = [&pauses] {
        if (++pauses == 2) {
            throw std::runtime_error("enough");
        }
    };
    std::string text;
    EXPECT_THROW(imaging::makeRangeFormat("bmap")->write({"/volume", std::uint64_t{10} << 20, source, walk, pause},
                                                         [&text](std::string_view piece) { text += piece; }),
                 std::runtime_error);
    EXPECT_EQ(pauses, 2);
    EXPECT_EQ(text, "");
}

TEST(ImagingSha256, IsThatOfTheStandard) {
    EXPECT_EQ(sha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(sha256(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

} // namespace
